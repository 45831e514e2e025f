#include "store-cipher.h"

#include <sodium.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace patch {
namespace {

constexpr char kMagic[4] = {'T', 'P', 'X', '1'};
constexpr size_t kHeader = crypto_secretstream_xchacha20poly1305_HEADERBYTES;
constexpr size_t kSealed = kChunk + crypto_secretstream_xchacha20poly1305_ABYTES;

static_assert(kKeyBytes == crypto_secretstream_xchacha20poly1305_KEYBYTES);

bool SodiumReady() {
  static std::once_flag once;
  static bool ok = false;
  std::call_once(once, [] { ok = sodium_init() >= 0; });
  return ok;
}

int WriteAll(int fd, const void* data, size_t len) {
  const char* p = static_cast<const char*>(data);
  while (len > 0) {
    const ssize_t n = write(fd, p, len);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return 0;
}

// Up to `len` bytes; fewer only at the end of the input.
ssize_t ReadFull(int fd, void* buf, size_t len) {
  char* p = static_cast<char*>(buf);
  size_t got = 0;
  while (got < len) {
    const ssize_t n = read(fd, p + got, len - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

int BadPiece() {
  errno = EBADMSG;
  return -1;
}

}  // namespace

CipherKey::~CipherKey() { sodium_memzero(bytes_.data(), bytes_.size()); }

bool CipherKey::Parse(const std::string& text) {
  size_t len = 0;
  std::array<unsigned char, kKeyBytes> parsed{};
  if (text.size() != 2 * kKeyBytes ||
      sodium_hex2bin(parsed.data(), parsed.size(), text.data(), text.size(), nullptr, &len,
                     nullptr) != 0 ||
      len != kKeyBytes) {
    sodium_memzero(parsed.data(), parsed.size());
    return false;
  }
  bytes_ = parsed;
  sodium_memzero(parsed.data(), parsed.size());
  set_ = true;
  return true;
}

struct Encryptor::State {
  crypto_secretstream_xchacha20poly1305_state st;
};

Encryptor::Encryptor(const CipherKey& key, int fd)
    : state_(std::make_unique<State>()),
      key_(key),
      fd_(fd),
      plain_(std::make_unique_for_overwrite<char[]>(kChunk)) {}

Encryptor::~Encryptor() { sodium_memzero(&state_->st, sizeof state_->st); }

int Encryptor::Start() {
  if (!key_.set() || !SodiumReady()) {
    errno = EINVAL;
    return -1;
  }
  unsigned char header[sizeof kMagic + kHeader];
  memcpy(header, kMagic, sizeof kMagic);
  crypto_secretstream_xchacha20poly1305_init_push(&state_->st, header + sizeof kMagic,
                                                  key_.bytes());
  started_ = true;
  return WriteAll(fd_, header, sizeof header);
}

int Encryptor::Seal(unsigned char tag) {
  unsigned char sealed[kSealed];
  unsigned long long n = 0;
  crypto_secretstream_xchacha20poly1305_push(&state_->st, sealed, &n,
                                             reinterpret_cast<unsigned char*>(plain_.get()), used_,
                                             nullptr, 0, tag);
  used_ = 0;
  return WriteAll(fd_, sealed, static_cast<size_t>(n));
}

int Encryptor::Feed(const char* data, size_t len, bool eof) {
  if (finished_) {
    if (len == 0) return 0;
    errno = EINVAL;
    return -1;
  }
  if (!started_ && Start() < 0) return -1;
  while (len > 0) {
    // A full chunk is sealed only once more input shows it is not the last,
    // so the final tag always rides on real data or an empty last chunk.
    if (used_ == kChunk && Seal(0) < 0) return -1;
    const size_t take = std::min(len, kChunk - used_);
    memcpy(plain_.get() + used_, data, take);
    used_ += take;
    data += take;
    len -= take;
  }
  if (!eof) return 0;
  finished_ = true;
  const int rc = Seal(crypto_secretstream_xchacha20poly1305_TAG_FINAL);
  sodium_memzero(plain_.get(), kChunk);
  return rc;
}

int Decrypt(const CipherKey& key, int in, const PlainSink& sink) {
  if (!key.set() || !SodiumReady()) {
    errno = EINVAL;
    return -1;
  }
  unsigned char header[sizeof kMagic + kHeader];
  ssize_t n = ReadFull(in, header, sizeof header);
  if (n < 0) return -1;
  if (static_cast<size_t>(n) != sizeof header || memcmp(header, kMagic, sizeof kMagic) != 0)
    return BadPiece();
  crypto_secretstream_xchacha20poly1305_state st;
  if (crypto_secretstream_xchacha20poly1305_init_pull(&st, header + sizeof kMagic, key.bytes()) !=
      0)
    return BadPiece();
  auto sealed = std::make_unique_for_overwrite<unsigned char[]>(kSealed);
  auto plain = std::make_unique_for_overwrite<char[]>(kChunk);
  int rc = -1;
  for (;;) {
    n = ReadFull(in, sealed.get(), kSealed);
    if (n < 0) break;
    unsigned long long len = 0;
    unsigned char tag = 0;
    if (crypto_secretstream_xchacha20poly1305_pull(
            &st, reinterpret_cast<unsigned char*>(plain.get()), &len, &tag, sealed.get(),
            static_cast<unsigned long long>(n), nullptr, 0) != 0) {
      rc = BadPiece();
      break;
    }
    const bool final = tag == crypto_secretstream_xchacha20poly1305_TAG_FINAL;
    // A short chunk that is not the final one: the piece was cut.
    if (!final && static_cast<size_t>(n) < kSealed) {
      rc = BadPiece();
      break;
    }
    if (final) {
      char extra;
      const ssize_t more = ReadFull(in, &extra, 1);
      if (more != 0) {
        rc = more < 0 ? -1 : BadPiece();
        break;
      }
    }
    if (sink(plain.get(), static_cast<size_t>(len), final) < 0) break;
    if (final) {
      rc = 0;
      break;
    }
  }
  sodium_memzero(plain.get(), kChunk);
  sodium_memzero(&st, sizeof st);
  return rc;
}

int EncryptFd(const CipherKey& key, int in, int out) {
  Encryptor enc(key, out);
  auto buf = std::make_unique_for_overwrite<char[]>(kChunk);
  for (;;) {
    const ssize_t n = ReadFull(in, buf.get(), kChunk);
    if (n < 0) return -1;
    const bool eof = static_cast<size_t>(n) < kChunk;
    if (enc.Feed(buf.get(), static_cast<size_t>(n), eof) < 0) return -1;
    if (eof) return 0;
  }
}

int DecryptFd(const CipherKey& key, int in, int out) {
  return Decrypt(key, in,
                 [out](const char* data, size_t len, bool) { return WriteAll(out, data, len); });
}

}  // namespace patch
