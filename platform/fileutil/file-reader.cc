// SimpleFileReader: one read pass serves the hash and every copy, so a large
// file is read from disk only once.
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "fd.h"
#include "file-util.h"

namespace {

constexpr size_t kBlock = 1 << 20;

std::string Hex(const unsigned char* md, unsigned n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(n * 2);
  for (unsigned i = 0; i < n; ++i) {
    out += kDigits[md[i] >> 4];
    out += kDigits[md[i] & 15];
  }
  return out;
}

struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

}  // namespace

int SimpleFileReader::readFile() {
  fileutil::Fd in(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in.ok()) return -1;
  std::vector<fileutil::Fd> outs;
  outs.reserve(copies_.size());
  for (const auto& copy : copies_) {
    outs.emplace_back(open(copy.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!outs.back().ok()) return -1;
  }
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx;
  if (hash_) {
    ctx.reset(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) {
      errno = ENOMEM;
      return -1;
    }
  }
  posix_fadvise(in.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  std::unique_ptr<char[]> buf(new char[kBlock]);
  for (;;) {
    ssize_t n = read(in.get(), buf.get(), kBlock);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    if (ctx && EVP_DigestUpdate(ctx.get(), buf.get(), static_cast<size_t>(n)) != 1) {
      errno = EIO;
      return -1;
    }
    for (auto& out : outs) {
      if (fileutil::WriteAll(out.get(), buf.get(), static_cast<size_t>(n)) < 0) return -1;
    }
  }
  // A full disk may only show at close (delayed allocation, network file
  // systems), so the copies count only once closed.
  for (auto& out : outs) {
    if (out.close() < 0) return -1;
  }
  if (ctx) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    if (EVP_DigestFinal_ex(ctx.get(), md, &len) != 1) {
      errno = EIO;
      return -1;
    }
    *hash_ = Hex(md, len);
  }
  return 0;
}
