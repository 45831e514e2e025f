#include "content-pass.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <semaphore>
#include <thread>

namespace filestore {
namespace {

constexpr size_t kReadBlock = 1 << 20;
// Below malloc's mmap threshold, so a scan of many small files reuses heap.
constexpr size_t kJobOutput = 64 << 10;
// Below this a helper thread costs more than it saves.
constexpr uint64_t kThreadedSize = 8 << 20;

int WriteAll(int fd, const char* data, size_t len) {
  while (len > 0) {
    const ssize_t n = write(fd, data, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    data += n;
    len -= static_cast<size_t>(n);
  }
  return 0;
}

ssize_t ReadFull(int fd, char* buf, size_t len) {
  size_t got = 0;
  while (got < len) {
    const ssize_t n = read(fd, buf + got, len - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

int FeedAll(const std::vector<Consumer*>& consumers, const char* data, size_t len, bool eof) {
  for (Consumer* c : consumers)
    if (c->Feed(data, len, eof) < 0) return -1;
  return 0;
}

// Runs the back consumers on one block at a time, handed over by the reader.
class BackWorker {
 public:
  explicit BackWorker(const std::vector<Consumer*>& consumers)
      : consumers_(consumers), thread_([this] { Run(); }) {}
  ~BackWorker() {
    Post(nullptr, 0, false, true);
    thread_.join();
  }
  void Post(const char* data, size_t len, bool eof, bool quit = false) {
    data_ = data;
    len_ = len;
    eof_ = eof;
    quit_ = quit;
    go_.release();
  }
  // Waits for the posted block; the worker's result so far.
  int Wait() {
    done_.acquire();
    return result_;
  }

 private:
  void Run() {
    for (;;) {
      go_.acquire();
      if (quit_) return;
      if (result_ == 0) result_ = FeedAll(consumers_, data_, len_, eof_);
      done_.release();
    }
  }

  const std::vector<Consumer*>& consumers_;
  std::binary_semaphore go_{0};
  std::binary_semaphore done_{0};
  const char* data_ = nullptr;
  size_t len_ = 0;
  bool eof_ = false;
  bool quit_ = false;
  int result_ = 0;
  std::thread thread_;
};

}  // namespace

int CopyConsumer::Feed(const char* data, size_t len, bool) { return WriteAll(fd_, data, len); }

HashConsumer::HashConsumer() : ctx_(EVP_MD_CTX_new()) {
  if (ctx_ && EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr) != 1) {
    EVP_MD_CTX_free(ctx_);
    ctx_ = nullptr;
  }
}

HashConsumer::~HashConsumer() { EVP_MD_CTX_free(ctx_); }

int HashConsumer::Feed(const char* data, size_t len, bool eof) {
  if (!ctx_) return -1;
  if (len > 0 && EVP_DigestUpdate(ctx_, data, len) != 1) return -1;
  bytes_ += len;
  if (!eof) return 0;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  if (EVP_DigestFinal_ex(ctx_, digest, &n) != 1) return -1;
  static const char kHex[] = "0123456789abcdef";
  hex_.clear();
  for (unsigned int i = 0; i < n; ++i) {
    hex_ += kHex[digest[i] >> 4];
    hex_ += kHex[digest[i] & 15];
  }
  return 0;
}

JobConsumer::JobConsumer(rs_job_t* job, int fd)
    : job_(job), fd_(fd), out_(std::make_unique_for_overwrite<char[]>(kJobOutput)) {}

JobConsumer::JobConsumer(rs_job_t* job, Consumer* sink) : JobConsumer(job, -1) { sink_ = sink; }

JobConsumer::~JobConsumer() {
  if (job_) rs_job_free(job_);
}

// A job takes what input it can and stops when its output buffer is full
// or it needs more input; keep draining until neither moves.
int JobConsumer::Feed(const char* data, size_t len, bool eof) {
  if (!job_) return -1;
  if (done_) return len == 0 ? 0 : -1;
  rs_buffers_t b{};
  b.next_in = const_cast<char*>(data);
  b.avail_in = len;
  b.eof_in = eof ? 1 : 0;
  for (;;) {
    b.next_out = out_.get();
    b.avail_out = kJobOutput;
    const size_t in_before = b.avail_in;
    const rs_result r = rs_job_iter(job_, &b);
    const size_t produced = kJobOutput - b.avail_out;
    if (produced > 0 && fd_ >= 0 && WriteAll(fd_, out_.get(), produced) < 0) return -1;
    if (produced > 0 && sink_ && sink_->Feed(out_.get(), produced, false) < 0) return -1;
    if (r == RS_DONE) {
      done_ = true;
      return sink_ ? sink_->Feed(nullptr, 0, true) : 0;
    }
    if (r != RS_BLOCKED) return -1;
    const bool moved = produced > 0 || b.avail_in != in_before;
    if (!moved && b.avail_in == 0) return eof ? -1 : 0;
    if (!moved && !eof) return -1;
  }
}

rs_job_t* NewSignatureJob(uint64_t size) {
  rs_magic_number magic = RS_RK_BLAKE2_SIG_MAGIC;
  size_t block_len = 0;
  size_t strong_len = 0;
  if (rs_sig_args(static_cast<rs_long_t>(size), &magic, &block_len, &strong_len) != RS_DONE)
    return nullptr;
  return rs_sig_begin(block_len, strong_len, magic);
}

int LoadSignature(const std::string& path, const patch::CipherKey* key, Signature& out) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  rs_signature_t* sig = nullptr;
  int rc;
  {
    JobConsumer loader(rs_loadsig_begin(&sig), -1);
    if (key) {
      rc = patch::Decrypt(*key, fd, [&](const char* data, size_t len, bool eof) {
        return loader.Feed(data, len, eof);
      });
    } else {
      std::vector<char> buf(kReadBlock);
      for (;;) {
        const ssize_t n = ReadFull(fd, buf.data(), buf.size());
        if (n < 0) {
          rc = -1;
          break;
        }
        const bool eof = static_cast<size_t>(n) < buf.size();
        rc = loader.Feed(buf.data(), static_cast<size_t>(n), eof);
        if (rc < 0 || eof) break;
      }
    }
  }
  close(fd);
  if (rc == 0 && sig && rs_build_hash_table(sig) == RS_DONE) {
    out.reset(sig);
    return 0;
  }
  if (sig) rs_free_sumset(sig);
  return -1;
}

int ReadOnce(int fd, uint64_t size, const std::vector<Consumer*>& front,
             const std::vector<Consumer*>& back) {
  // One byte past the expected size lets a small file end in one read;
  // buffers are left uninitialised, as most files are far smaller.
  const size_t block = static_cast<size_t>(std::min<uint64_t>(size + 1, kReadBlock));
  const bool threaded = !back.empty() && size >= kThreadedSize;
  std::unique_ptr<char[]> buf[2] = {
      std::make_unique_for_overwrite<char[]>(block),
      threaded ? std::make_unique_for_overwrite<char[]>(block) : nullptr};
  std::unique_ptr<BackWorker> worker;
  if (threaded) worker = std::make_unique<BackWorker>(back);
  int cur = 0;
  bool posted = false;
  for (;;) {
    const ssize_t n = ReadFull(fd, buf[cur].get(), block);
    if (n < 0) {
      if (posted) worker->Wait();
      return -1;
    }
    const size_t len = static_cast<size_t>(n);
    const bool eof = len < block;
    // The worker may still hold the other buffer; this one is free.
    if (posted && worker->Wait() < 0) return -1;
    posted = false;
    if (threaded) {
      worker->Post(buf[cur].get(), len, eof);
      posted = true;
    } else if (FeedAll(back, buf[cur].get(), len, eof) < 0) {
      return -1;
    }
    if (FeedAll(front, buf[cur].get(), len, eof) < 0) {
      if (posted) worker->Wait();
      return -1;
    }
    if (eof) break;
    if (threaded) cur ^= 1;
  }
  if (posted && worker->Wait() < 0) return -1;
  return 0;
}

int ApplyDelta(const std::string& basis, const std::string& delta, const std::string& out) {
  FILE* b = fopen(basis.c_str(), "rb");
  FILE* d = fopen(delta.c_str(), "rb");
  FILE* o = fopen(out.c_str(), "wb");
  int rc = -1;
  if (b && d && o) {
    rs_stats_t stats;
    rc = rs_patch_file(b, d, o, &stats) == RS_DONE ? 0 : -1;
  }
  if (b) fclose(b);
  if (d) fclose(d);
  if (o && fclose(o) != 0) rc = -1;
  return rc;
}

}  // namespace filestore
