// The cipher of an encrypted share's pieces in the version store (origins,
// deltas, signatures, Mac attribute files), also used by EncryptFile.
//
// A piece is "TPX1", the 24-byte libsodium secretstream header, then chunks:
// each holds kChunk plain bytes sealed with crypto_secretstream_xchacha20-
// poly1305 (kChunk + 17 bytes on disk), except the last, which may be
// shorter or empty and carries the final tag. A chunk that fails to open, a
// chunk after the final one and a stream without one are all EBADMSG, so
// tampering, truncation and a wrong key are told apart from I/O faults only
// by errno. Memory stays at one chunk whatever the piece's size.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace patch {

constexpr size_t kKeyBytes = 32;
constexpr size_t kChunk = 64 << 10;

// A share's content key. The text form (the share key that
// HVOSService hands out) is 64 lower- or upper-case hex digits.
class CipherKey {
 public:
  CipherKey() = default;
  ~CipherKey();
  CipherKey(const CipherKey&) = delete;
  CipherKey& operator=(const CipherKey&) = delete;
  // False (and the key left unset) for text that is not a key.
  bool Parse(const std::string& text);
  bool set() const { return set_; }
  const unsigned char* bytes() const { return bytes_.data(); }

 private:
  std::array<unsigned char, kKeyBytes> bytes_{};
  bool set_ = false;
};

// Seals what it is fed and writes it to `fd` (which it does not own).
class Encryptor {
 public:
  Encryptor(const CipherKey& key, int fd);
  ~Encryptor();
  Encryptor(const Encryptor&) = delete;
  Encryptor& operator=(const Encryptor&) = delete;
  // The next plain bytes; `eof` seals the final chunk. 0, or -1 with errno.
  int Feed(const char* data, size_t len, bool eof);

 private:
  int Start();
  int Seal(unsigned char tag);

  struct State;
  std::unique_ptr<State> state_;
  const CipherKey& key_;
  int fd_;
  bool started_ = false;
  bool finished_ = false;
  std::unique_ptr<char[]> plain_;
  size_t used_ = 0;
};

// Opens the piece read from `in` (from its current position to its end)
// and hands the plain bytes to `sink` block by block, the last call with
// `eof` true. 0, or -1 with errno (EBADMSG for a bad piece or key; the
// sink's own errno when it fails).
using PlainSink = std::function<int(const char* data, size_t len, bool eof)>;
int Decrypt(const CipherKey& key, int in, const PlainSink& sink);

// Whole-descriptor forms: all of `in` into `out`.
int EncryptFd(const CipherKey& key, int in, int out);
int DecryptFd(const CipherKey& key, int in, int out);

}  // namespace patch
