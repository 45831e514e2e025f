#include "zip-reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace tptest {
namespace {

uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t Le32(const unsigned char* p) { return Le16(p) | static_cast<uint32_t>(Le16(p + 2)) << 16; }
uint64_t Le64(const unsigned char* p) { return Le32(p) | static_cast<uint64_t>(Le32(p + 4)) << 32; }

bool ReadAt(int fd, uint64_t offset, size_t size, std::string& out) {
  out.resize(size);
  return pread(fd, out.data(), size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

}  // namespace

ZipDirectory ReadZipDirectory(const std::string& path) {
  ZipDirectory dir;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || st.st_size < 22) {
    if (fd >= 0) close(fd);
    return dir;
  }
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  // The end record, searched backwards past a comment of up to 64 KiB.
  const uint64_t tail_size = std::min<uint64_t>(size, 22 + 65535 + 76);
  std::string tail;
  ReadAt(fd, size - tail_size, tail_size, tail);
  const auto* t = reinterpret_cast<const unsigned char*>(tail.data());
  int64_t end = -1;
  for (int64_t i = static_cast<int64_t>(tail_size) - 22; i >= 0; --i) {
    if (memcmp(t + i, "PK\5\6", 4) == 0) {
      end = i;
      break;
    }
  }
  if (end < 0) {
    close(fd);
    return dir;
  }
  uint64_t count = Le16(t + end + 10);
  uint64_t cd_offset = Le32(t + end + 16);
  if (end >= 20 && memcmp(t + end - 20, "PK\6\7", 4) == 0) {
    std::string record;
    if (ReadAt(fd, Le64(t + end - 20 + 8), 56, record) && record.compare(0, 4, "PK\6\6") == 0) {
      const auto* r = reinterpret_cast<const unsigned char*>(record.data());
      dir.zip64 = true;
      count = Le64(r + 32);
      cd_offset = Le64(r + 48);
    }
  }
  dir.count = count;
  std::string header;
  uint64_t at = cd_offset;
  for (uint64_t i = 0; i < count; ++i) {
    if (!ReadAt(fd, at, 46, header) || header.compare(0, 4, "PK\1\2") != 0) {
      close(fd);
      return dir;
    }
    const auto* h = reinterpret_cast<const unsigned char*>(header.data());
    ZipEntry entry;
    entry.flags = Le16(h + 8);
    entry.method = Le16(h + 10);
    entry.unix_mode = Le32(h + 38) >> 16;
    const uint16_t name_size = Le16(h + 28);
    ReadAt(fd, at + 46, name_size, entry.name);
    at += 46u + name_size + Le16(h + 30) + Le16(h + 32);
    dir.entries.push_back(std::move(entry));
  }
  close(fd);
  dir.ok = true;
  return dir;
}

}  // namespace tptest
