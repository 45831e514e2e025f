// Test hook of the password check: how many argon2id verifications this
// process has run. An unknown name must cost a verification like a known one,
// so that the time of an answer tells nothing about which names exist.
#pragma once

#include <cstdint>

namespace hostaccounts {

uint64_t TEST_PasswordVerifications();

}  // namespace hostaccounts
