// What a zip's central directory says about its entries, read from the raw
// bytes, so that tests see names and flags exactly as an unzipper gets them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tptest {

struct ZipEntry {
  std::string name;  // raw bytes
  uint16_t flags = 0;
  uint16_t method = 0;
  uint32_t unix_mode = 0;  // from the external attributes
};

struct ZipDirectory {
  bool ok = false;     // an end record was found and the directory parsed
  uint64_t count = 0;  // as the end records say
  bool zip64 = false;  // a zip64 end record is there
  std::vector<ZipEntry> entries;
};

constexpr uint16_t kZipUtf8Flag = 0x0800;

// Reads the archive at `path` (its tail and central directory only, so a
// sparse multi-GiB archive is cheap).
ZipDirectory ReadZipDirectory(const std::string& path);

}  // namespace tptest
