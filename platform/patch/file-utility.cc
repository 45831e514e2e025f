// HVFileUtility's single-file helpers: the store's cipher over a whole file
// (the restore engine opens Mac attribute files with it) and renames that
// keep extended attributes.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "file-util.h"
#include "hv-file-utility.h"
#include "logger.h"
#include "store-cipher.h"

namespace patch {
int& LastError();
}  // namespace patch

int HVFileUtility::EncryptFile(const std::string& src, const std::string& dst,
                               const std::string& key, bool encrypt) {
  int& last_error = patch::LastError();
  last_error = 0;
  patch::CipherKey cipher;
  if (!cipher.Parse(key)) {
    LOG_ERROR("not a share key for %s\n", src.c_str());
    last_error = -1;
    errno = EINVAL;
    return -1;
  }
  const int in = open(src.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    const int err = errno;
    LOG_ERROR("cannot open %s: %s\n", src.c_str(), strerror(err));
    last_error = -1;
    errno = err;
    return -1;
  }
  const int out = open(dst.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int rc = out < 0   ? -1
           : encrypt ? patch::EncryptFd(cipher, in, out)
                     : patch::DecryptFd(cipher, in, out);
  int err = errno;
  close(in);
  if (out >= 0 && close(out) != 0 && rc == 0) {
    rc = -1;
    err = errno;
  }
  if (rc == 0) return 0;
  LOG_ERROR("cannot %s %s into %s: %s\n", encrypt ? "encrypt" : "decrypt", src.c_str(), dst.c_str(),
            strerror(err));
  if (out >= 0) unlink(dst.c_str());
  last_error = err == ENOSPC || err == EDQUOT ? -2 : -1;
  errno = err;
  return -1;
}

int HVFileUtility::FSRenameWithEA(const std::string& src, const std::string& dst, bool with_ea) {
  if (with_ea) return ::FSRenameWithEA(src, dst);
  return rename(src.c_str(), dst.c_str()) == 0 ? 0 : -1;
}
