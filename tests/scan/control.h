// driftway-control run as the tests run it: a process of its own.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process.h"

namespace scantest {

inline constexpr const char* kControl = "/var/packages/Tidepool/target/bin/driftway-control";

inline tptest::ProcessResult Control(std::vector<std::string> args) {
  args.insert(args.begin(), kControl);
  return tptest::RunProcess(args);
}

// One scan whose versions are made at `at`.
inline void Scan(uint32_t at) {
  const auto r = Control({"scan", "--at", std::to_string(at)});
  ASSERT_EQ(r.exit_status, 0) << r.out << r.err;
}

}  // namespace scantest
