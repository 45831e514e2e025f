// One open file database: the stored content of a volume's versions. A
// file id names one stored file: an origin (the content stored whole) and
// an ordered chain of deltas that rebuild later contents from it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace db {

class FileManager {
 public:
  virtual ~FileManager() = default;
  virtual int GetFileSizeSum(unsigned long long& size) = 0;
  virtual int GetDeltaSizeSum(unsigned long long& size) = 0;
  // The origin's path and the delta paths to apply to it, in order.
  virtual int GetPatchFiles(uint64_t file_id, std::string& origin,
                            std::vector<std::string>& patches) = 0;
};

void FileDBDelete(FileManager* files);

// Opens the file database in `folder` (creating it when `create`); provided
// by the file store library, not by the database library.
int OpenFileManager(const std::string& folder, bool create, std::unique_ptr<FileManager>& out);

class FileDBInterface {
 public:
  FileDBInterface() = default;
  FileManager* get() const { return files_.get(); }
  FileManager* operator->() const { return files_.get(); }
  explicit operator bool() const { return files_ != nullptr; }
  void reset(FileManager* files = nullptr) { files_.reset(files); }

 private:
  struct Deleter {
    void operator()(FileManager* files) const { FileDBDelete(files); }
  };
  std::unique_ptr<FileManager, Deleter> files_;
};

}  // namespace db
