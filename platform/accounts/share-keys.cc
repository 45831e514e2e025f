// Passphrase -> key-encryption key by crypto_pwhash (argon2id, per-share
// salt); the 32-byte content key sealed under it by crypto_secretbox. The
// limits are stored with the salt so that later builds may raise them for
// new shares and still open old ones.
#include "share-keys.h"

#include <SQLiteCpp/Statement.h>
#include <sodium.h>

#include <array>
#include <vector>

#include "host-accounts.h"

namespace hostaccounts {
namespace {

constexpr size_t kKeyBytes = 32;
static_assert(crypto_secretbox_KEYBYTES == kKeyBytes);

// Wiped when it goes.
struct Secret {
  std::array<unsigned char, kKeyBytes> bytes{};
  ~Secret() { sodium_memzero(bytes.data(), bytes.size()); }
};

bool Ready() {
  static const bool ok = sodium_init() >= 0;
  return ok;
}

int DeriveKek(const std::string& passphrase, const std::vector<unsigned char>& salt,
              unsigned long long ops, size_t mem, Secret& kek) {
  if (salt.size() != crypto_pwhash_SALTBYTES) return kErrStorage;
  if (crypto_pwhash(kek.bytes.data(), kek.bytes.size(), passphrase.data(), passphrase.size(),
                    salt.data(), ops, mem, crypto_pwhash_ALG_ARGON2ID13) != 0) {
    return kErrStorage;  // out of memory, or limits not ours
  }
  return 0;
}

std::string Hex(const Secret& key) {
  std::string hex(2 * kKeyBytes + 1, '\0');
  sodium_bin2hex(hex.data(), hex.size(), key.bytes.data(), key.bytes.size());
  hex.pop_back();
  return hex;
}

std::vector<unsigned char> BlobOf(const SQLite::Column& column) {
  const auto* data = static_cast<const unsigned char*>(column.getBlob());
  return std::vector<unsigned char>(data, data + column.getBytes());
}

int SetUnwrapped(SQLite::Database& db, const std::string& share_key, const std::string* hex) {
  SQLite::Statement key(db, "UPDATE share_keys SET content_key = ? WHERE share_key = ?");
  if (hex) key.bind(1, *hex);
  key.bind(2, share_key);
  if (key.exec() != 1) return kErrNotFound;
  SQLite::Statement mounted(db, "UPDATE shares SET mounted = ? WHERE name_key = ?");
  mounted.bind(1, int64_t{hex != nullptr});
  mounted.bind(2, share_key);
  mounted.exec();
  return 0;
}

}  // namespace

int CreateShareKey(SQLite::Database& db, const std::string& share_key,
                   const std::string& passphrase) {
  if (passphrase.empty()) return kErrInvalid;
  if (!Ready()) return kErrStorage;
  const unsigned long long ops = crypto_pwhash_OPSLIMIT_INTERACTIVE;
  const size_t mem = crypto_pwhash_MEMLIMIT_INTERACTIVE;
  std::vector<unsigned char> salt(crypto_pwhash_SALTBYTES);
  randombytes_buf(salt.data(), salt.size());
  Secret kek, content;
  int rc = DeriveKek(passphrase, salt, ops, mem, kek);
  if (rc < 0) return rc;
  crypto_secretbox_keygen(content.bytes.data());
  std::vector<unsigned char> wrapped(crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES +
                                     kKeyBytes);
  randombytes_buf(wrapped.data(), crypto_secretbox_NONCEBYTES);
  crypto_secretbox_easy(wrapped.data() + crypto_secretbox_NONCEBYTES, content.bytes.data(),
                        kKeyBytes, wrapped.data(), kek.bytes.data());
  SQLite::Statement insert(db,
                           "INSERT INTO share_keys (share_key, salt, opslimit, memlimit, wrapped,"
                           " content_key) VALUES (?, ?, ?, ?, ?, ?)");
  insert.bind(1, share_key);
  insert.bind(2, salt.data(), static_cast<int>(salt.size()));
  insert.bind(3, static_cast<int64_t>(ops));
  insert.bind(4, static_cast<int64_t>(mem));
  insert.bind(5, wrapped.data(), static_cast<int>(wrapped.size()));
  std::string hex = Hex(content);
  insert.bind(6, hex);
  insert.exec();
  sodium_memzero(hex.data(), hex.size());
  return 0;
}

int UnlockShareKey(SQLite::Database& db, const std::string& share_key,
                   const std::string& passphrase) {
  if (!Ready()) return kErrStorage;
  SQLite::Statement query(
      db, "SELECT salt, opslimit, memlimit, wrapped FROM share_keys WHERE share_key = ?");
  query.bind(1, share_key);
  if (!query.executeStep()) return kErrNotFound;
  const std::vector<unsigned char> salt = BlobOf(query.getColumn(0));
  const int64_t ops = query.getColumn(1).getInt64();
  const int64_t mem = query.getColumn(2).getInt64();
  const std::vector<unsigned char> wrapped = BlobOf(query.getColumn(3));
  query.reset();
  // Stored values are checked before they reach the hash or the box.
  if (ops <= 0 || mem <= 0 ||
      wrapped.size() != crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES + kKeyBytes)
    return kErrStorage;
  Secret kek, content;
  int rc = DeriveKek(passphrase, salt, static_cast<unsigned long long>(ops),
                     static_cast<size_t>(mem), kek);
  if (rc < 0) return rc;
  if (crypto_secretbox_open_easy(content.bytes.data(), wrapped.data() + crypto_secretbox_NONCEBYTES,
                                 wrapped.size() - crypto_secretbox_NONCEBYTES, wrapped.data(),
                                 kek.bytes.data()) != 0) {
    return kErrInvalid;
  }
  std::string hex = Hex(content);
  rc = SetUnwrapped(db, share_key, &hex);
  sodium_memzero(hex.data(), hex.size());
  return rc;
}

int LockShareKey(SQLite::Database& db, const std::string& share_key) {
  return SetUnwrapped(db, share_key, nullptr);
}

}  // namespace hostaccounts
