// The sync databases as a whole: process-wide, opened by the request
// pipeline. Views live in "<connect_param>/views/<view id>.sqlite"; each
// volume's file database in "/volumeN/@tidepool/@sync/file-db.sqlite",
// named by its uuid in the volume table of "<connect_param>/sync-db.sqlite".
#pragma once

#include <map>
#include <memory>
#include <string>

#include "db/file-manager.h"
#include "db/view-manager.h"
#include "db/view-writer.h"

namespace db {

class Manager {
 public:
  // Prepares the working folder for the databases' temporary files.
  static bool InitTempFolder(const std::string& working_dir);
  // Opens "<connect_param>/sync-db.sqlite" for the "sqlite" backend; 0 or negative.
  static int Initialize(const std::string& repo_location, const std::string& connect_param,
                        const std::string& backend);
  static void Destroy();
  static bool IsInitialized();

  // Opens a view; negative (kErrCannotOpen for a view that does not exist).
  static int GetViewDB(uint64_t view_id, ViewDBInterface& out);
  static int GetFileDB(const std::string& uuid, FileDBInterface& out, bool create,
                       const std::string& volume);
  // Absolute path of a stored file; empty when unknown.
  static std::string GetFilePath(const std::string& uuid, uint64_t file_id);
  // Volume name ("/volume1") to its file database's folder.
  static int EnumVolumeTable(std::map<std::string, std::string>& out);
  // Each volume's file database by its uuid (for GetFileDB), to the volume
  // name; the number of entries, or negative.
  static int EnumFileDBTable(std::map<std::string, std::string>& out);
  static int GetDBUsage(unsigned long long& size, std::string& detail);
  static int SetDBUsage(unsigned long long size, const std::string& detail);
  static int GetViewDBFileSize(uint64_t view_id, unsigned long long& size);
  static int GetFileDBFileSize(const std::string& uuid, unsigned long long& size);
  static int GetLogDBFileSize(unsigned long long& size);

  // Creates the view's database with its root node "/"; 0 also when it exists.
  static int CreateView(uint64_t view_id);
  // Opens a view for writing; kErrCannotOpen for a view that does not exist.
  static int GetViewWriter(uint64_t view_id, std::unique_ptr<ViewWriter>& out);
  // Records (or replaces) a volume's file database: its uuid and folder.
  static int RegisterVolume(const std::string& volume, const std::string& uuid,
                            const std::string& folder);

  // Like Initialize, for a process that must leave the repository as it
  // is (a check): nothing is created or migrated, views open read-only, and
  // the calls that would write or create fail with kErrInvalid.
  // kErrCannotOpen when the service database does not exist.
  static int InitializeReadOnly(const std::string& connect_param, const std::string& backend);
};

}  // namespace db
