#include "content.h"

#include <openssl/evp.h>

#include <random>

namespace tptest {

std::string RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng());
  return s;
}

std::string Sha256Hex(const std::string& data) {
  static constexpr char kHex[] = "0123456789abcdef";
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  EVP_Digest(data.data(), data.size(), md, &n, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned i = 0; i < n; ++i) {
    hex.push_back(kHex[md[i] >> 4]);
    hex.push_back(kHex[md[i] & 15]);
  }
  return hex;
}

}  // namespace tptest
