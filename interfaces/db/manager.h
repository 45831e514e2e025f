// The sync data database: process-wide, opened by the request pipeline.
#pragma once

#include <string>

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
};

}  // namespace db
