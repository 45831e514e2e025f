// File contents for tests: reproducible random bytes and their SHA-256.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tptest {

// `n` bytes from a generator seeded with `seed`: the same call, the same bytes.
std::string RandomBytes(size_t n, uint32_t seed);
// SHA-256 of `data` in lower-case hex, as the store records it.
std::string Sha256Hex(const std::string& data);

}  // namespace tptest
