// Rebuilding one file version.
//   Stored version: open the file database named by the version, list the
//   origin and its deltas, and have the patcher write the result in one pass
//   into the working folder; a symlink's stored form then becomes a link.
//   Live version: clone the share's file (copy-on-write volumes) or copy it
//   into a temporary file, reading it once for the hash; a file whose hash
//   is no longer the version's cannot stand for it.
// Everything happens in the working folder; nothing partial reaches a
// target.
#include "file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>

#include "db/file-manager.h"
#include "db/manager.h"
#include "file-util.h"
#include "fs-beneath.h"
#include "fs.h"
#include "hv-file-utility.h"
#include "utils.h"

namespace tidepool::restore {

namespace {

// A task rebuilds thousands of files from the same few file databases:
// each stays open for the task's life rather than being opened per file.
std::map<std::string, db::FileDBInterface>& OpenFileDatabases() {
  static std::map<std::string, db::FileDBInterface> open;
  return open;
}

db::FileManager* FileDatabase(const std::string& uuid) {
  auto& open = OpenFileDatabases();
  auto it = open.find(uuid);
  if (it != open.end()) return it->second.get();
  db::FileDBInterface files;
  if (db::Manager::GetFileDB(uuid, files, false, "") < 0 || !files) return nullptr;
  return open.emplace(uuid, std::move(files)).first->second.get();
}

bool IsNoSpace(int err) { return err == ENOSPC || err == EDQUOT; }

// Any write to a file moves its change time; the same inode, size and
// change time mean the same content.
bool Unchanged(int fd, const struct stat& before) {
  struct stat now {};
  return fstat(fd, &now) == 0 && now.st_ino == before.st_ino && now.st_dev == before.st_dev &&
         now.st_size == before.st_size && now.st_ctim.tv_sec == before.st_ctim.tv_sec &&
         now.st_ctim.tv_nsec == before.st_ctim.tv_nsec;
}

}  // namespace

void CloseFileDatabases() { OpenFileDatabases().clear(); }

int File::Patch(const std::string& work_dir, const std::string& key) {
  if (!IsFileExist(work_dir, true) && FSMKDir(work_dir, true) < 0) {
    RESTORE_ERR("Failed to make @tmp at path (%s)", work_dir.c_str());
    return RC_GENERAL;
  }
  db::FileManager* files = FileDatabase(version.getFileUuid());
  if (files == nullptr) {
    RESTORE_ERR("Failed to open file db with uuid %s", version.getFileUuid().c_str());
    return RC_GENERAL;
  }
  std::string origin;
  std::vector<std::string> patches;
  const int rc = files->GetPatchFiles(version.getFileId(), origin, patches);
  if (rc < 0) {
    RESTORE_ERR("GetPatchFiles failed. (%d)", rc);
    return RC_GENERAL;
  }
  if (HVFileUtility::PatchFile(origin, patches, key, work_dir, patched_path) < 0) {
    if (HVFileUtility::GetError() == RC_NO_SPACE) {
      RESTORE_ERR("failed for origin file: %s. Space not enough", origin.c_str());
      return RC_NO_SPACE;
    }
    RESTORE_ERR("failed for origin file: %s", origin.c_str());
    return RC_GENERAL;
  }
  return RC_OK;
}

int File::PatchedToPath(const std::string& dst) {
  if (patched_path.empty()) {
    RESTORE_ERR("patched path is empty, not initialized?");
    return RC_GENERAL;
  }
  if (!version.isSymlink()) {
    if (rename(patched_path.c_str(), dst.c_str()) < 0) {
      RESTORE_ERR("rename from %s to %s failed. (%s)\n", patched_path.c_str(), dst.c_str(),
                  strerror(errno));
      return RC_GENERAL;
    }
    return RC_OK;
  }
  std::string target;
  if (getSymlinkFromFile(patched_path, target) < 0) {
    RESTORE_ERR("getSymlinkFromFile from '%s' failed\n", patched_path.c_str());
    return RC_GENERAL;
  }
  if (FSCreateSymbolicLink(target, dst) < 0) {
    RESTORE_ERR("FSCreateSymbolicLink '%s' -> '%s' failed\n", target.c_str(), dst.c_str());
    return RC_GENERAL;
  }
  (void)FSRemove(patched_path, false);
  return RC_OK;
}

bool File::SupportSnapShot(const std::string& src, const std::string& /*dst*/) const {
  return SDK::IsPathSupportSnapShot(src, false);
}

int File::DupFromShare(int root_fd, const std::string& rel, const std::string& work_dir,
                       bool encrypted, std::string& out_path) {
  TempFile temp(work_dir);
  if (temp.create() < 0) {
    RESTORE_ERR("Fail to create temp file at %s: %s (%d)\n", work_dir.c_str(), strerror(errno),
                errno);
    return IsNoSpace(errno) ? RC_NO_SPACE : RC_GENERAL;
  }
  const size_t slash = rel.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : rel.substr(0, slash);
  const std::string leaf = slash == std::string::npos ? rel : rel.substr(slash + 1);
  if (root_fd < 0 || !fsb::IsPlainName(leaf)) {
    RESTORE_ERR("Live file '%s' cannot be reached\n", rel.c_str());
    return RC_GENERAL;
  }
  const fsb::UniqueFd dir(fsb::OpenBeneath(root_fd, folder, O_DIRECTORY | O_PATH));
  struct stat st {};
  if (!dir.valid() || fstatat(dir.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) {
      RESTORE_ERR("File is not exist '%s'\n", rel.c_str());
      return RC_NO_SHARE_FILE;
    }
    RESTORE_ERR("Cannot reach live file '%s': %s\n", rel.c_str(), strerror(errno));
    return RC_GENERAL;
  }
  const std::string& staged = temp.getPath();
  SimpleFileReader reader;
  struct stat before_clone {};
  bool cloned = false;
  fsb::UniqueFd source;
  if (S_ISLNK(st.st_mode)) {
    const std::string link = fsb::FdPath(dir.get()) + "/" + leaf;
    if (getFileFromSymlink(link, staged) < 0) {
      RESTORE_ERR("getFileFromSymlink (%s) to (%s) failed\n", rel.c_str(), staged.c_str());
      return RC_GENERAL;
    }
    // Links are hashed in their plain-file form.
    reader.setFile(staged);
  } else {
    // Opened once, without following a link swapped in since the stat; the
    // descriptor's own path reopens exactly this file.
    source.reset(
        openat(dir.get(), leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!source.valid() || fstat(source.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
      RESTORE_ERR("Live file '%s' is not a plain file any more\n", rel.c_str());
      return RC_GENERAL;
    }
    const std::string source_path = fsb::FdPath(source.get());
    reader.setFile(source_path);
    if (!encrypted && SupportSnapShot(source_path, staged)) {
      RESTORE_INFO("clone file '%s' -> '%s'\n", rel.c_str(), staged.c_str());
      // The clone shares the source's blocks, but the page cache holds them
      // under the source: hashing the source reads from memory where the
      // clone would read the disk. The source's hash stands for the clone's
      // when the source did not change from before the clone to after the
      // read; otherwise the clone itself is hashed.
      before_clone = st;
      if (CloneFile(source_path, staged) == 0) {
        cloned = true;
      } else {
        RESTORE_ERR("Fail to clone file '%s' -> '%s', fallback to copy\n", rel.c_str(),
                    staged.c_str());
        unlink(staged.c_str());
        reader.pushCopyFile(staged);
      }
    } else {
      RESTORE_INFO("copy file '%s' -> '%s'\n", rel.c_str(), staged.c_str());
      reader.pushCopyFile(staged);
    }
  }
  std::string hash;
  reader.setHashString(&hash);
  int read_rc = reader.readFile();
  if (read_rc == 0 && cloned && !Unchanged(source.get(), before_clone)) {
    reader.setFile(staged);
    read_rc = reader.readFile();
  }
  if (read_rc < 0) {
    const int err = errno;
    RESTORE_ERR("readFile failure of '%s' (%s)\n", rel.c_str(), strerror(err));
    return IsNoSpace(err) ? RC_NO_SPACE : RC_GENERAL;
  }
  if (hash != version.getHash()) {
    RESTORE_ERR("share file hash is different from that in db.\n");
    return RC_GENERAL;
  }
  temp.convert_permanent();
  out_path = staged;
  return RC_OK;
}

}  // namespace tidepool::restore
