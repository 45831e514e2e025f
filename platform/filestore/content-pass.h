// One read of a file's content feeding several consumers: a copy, the
// SHA-256, a librsync signature, a librsync delta. Large files split the
// consumers over two threads so the slowest one, not their sum, sets the
// pace; the file is still read once.
#pragma once

#include <librsync.h>
#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "store-cipher.h"

namespace filestore {

class Consumer {
 public:
  virtual ~Consumer() = default;
  // Takes the next block (empty with `eof` at the end). 0 or negative.
  virtual int Feed(const char* data, size_t len, bool eof) = 0;
};

// Writes the blocks to a file descriptor.
class CopyConsumer final : public Consumer {
 public:
  explicit CopyConsumer(int fd) : fd_(fd) {}
  int Feed(const char* data, size_t len, bool eof) override;

 private:
  int fd_;
};

// Seals the blocks under a share key and writes them to a file descriptor.
class SealConsumer final : public Consumer {
 public:
  SealConsumer(const patch::CipherKey& key, int fd) : enc_(key, fd) {}
  int Feed(const char* data, size_t len, bool eof) override { return enc_.Feed(data, len, eof); }

 private:
  patch::Encryptor enc_;
};

// SHA-256 of the blocks, lower-case hex once the end was fed.
class HashConsumer final : public Consumer {
 public:
  HashConsumer();
  ~HashConsumer() override;
  int Feed(const char* data, size_t len, bool eof) override;
  const std::string& hex() const { return hex_; }
  uint64_t bytes() const { return bytes_; }

 private:
  EVP_MD_CTX* ctx_;
  uint64_t bytes_ = 0;
  std::string hex_;
};

// Drives a librsync job (signature or delta) with the blocks as input and
// writes its output to `fd`, or feeds it to `sink` (which then sees the end
// once the job is done). Owns the job.
class JobConsumer final : public Consumer {
 public:
  JobConsumer(rs_job_t* job, int fd);
  JobConsumer(rs_job_t* job, Consumer* sink);
  ~JobConsumer() override;
  int Feed(const char* data, size_t len, bool eof) override;

 private:
  rs_job_t* job_;
  int fd_;
  Consumer* sink_ = nullptr;
  bool done_ = false;
  std::unique_ptr<char[]> out_;
};

// A signature job for content of `size` bytes, with the block and strong
// sum lengths librsync recommends for it.
rs_job_t* NewSignatureJob(uint64_t size);

// A loaded signature, ready for deltas.
struct SignatureDeleter {
  void operator()(rs_signature_t* sig) const { rs_free_sumset(sig); }
};
using Signature = std::unique_ptr<rs_signature_t, SignatureDeleter>;
// Reads a signature file, sealed under `key` when given; negative when it is
// missing or damaged.
int LoadSignature(const std::string& path, const patch::CipherKey* key, Signature& out);

// Reads `fd` (of `size` bytes by fstat) to its end once. `front` consumers
// run on the calling thread; `back` ones on a helper thread for large
// content, inline otherwise. 0, or negative with errno set when reading
// failed.
int ReadOnce(int fd, uint64_t size, const std::vector<Consumer*>& front,
             const std::vector<Consumer*>& back);

// Applies a delta file to `basis`, writing `out`. 0, or negative.
int ApplyDelta(const std::string& basis, const std::string& delta, const std::string& out);

}  // namespace filestore
