// AppleDouble files as Macs write them beside a file ("._name"):
//
//   header   magic 0x00051607, version 0x00020000, 16 filler bytes, entry
//            count, then per entry id, offset and length (all big-endian)
//   entry 9  Finder info: 32 bytes, 2 bytes of padding, then the "ATTR"
//            block: a header (magic, debug tag, total size, data start, data
//            length, 3 reserved words, flags, count) and, 4-byte aligned,
//            per attribute its offset and length in the file, flags, name
//            length and NUL-terminated name
//   entry 2  resource fork
//
// Unpacking checks every offset against the file before it sets anything.
#include <fcntl.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "fd.h"
#include "file-util.h"

namespace {

constexpr uint32_t kMagic = 0x00051607;
constexpr uint32_t kVersion = 0x00020000;
constexpr uint32_t kAttrMagic = 0x41545452;  // "ATTR"
constexpr uint32_t kEntryResourceFork = 2;
constexpr uint32_t kEntryFinderInfo = 9;
constexpr size_t kFinderInfoSize = 32;
constexpr size_t kHeaderSize = 26;      // up to and with the entry count
constexpr size_t kAttrHeaderSize = 36;  // "ATTR" to the attribute count
constexpr size_t kMaxFile = 64u << 20;
const std::string kMacPrefix = "com.apple.";
const std::string kLinuxPrefix = "user.";

using Attrs = std::vector<std::pair<std::string, std::string>>;

uint32_t Get32(const std::string& d, size_t at) {
  auto b = [&](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(d[at + i])); };
  return b(0) << 24 | b(1) << 16 | b(2) << 8 | b(3);
}
uint16_t Get16(const std::string& d, size_t at) {
  return static_cast<uint16_t>(static_cast<unsigned char>(d[at]) << 8 |
                               static_cast<unsigned char>(d[at + 1]));
}
void Put32(std::string& d, uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) d += static_cast<char>((v >> s) & 0xff);
}
void Put16(std::string& d, uint16_t v) {
  d += static_cast<char>(v >> 8);
  d += static_cast<char>(v & 0xff);
}
bool Fits(size_t off, size_t len, size_t size) { return off <= size && len <= size - off; }

// The attributes of the ATTR block that starts at `at`. False when malformed.
bool ParseAttrBlock(const std::string& d, size_t at, size_t end, Attrs& out) {
  if (!Fits(at, kAttrHeaderSize, end) || Get32(d, at) != kAttrMagic) return false;
  uint16_t count = Get16(d, at + 34);
  size_t pos = at + kAttrHeaderSize;
  for (uint16_t i = 0; i < count; ++i) {
    pos = (pos + 3) & ~size_t{3};
    if (!Fits(pos, 11, end)) return false;
    uint32_t off = Get32(d, pos);
    uint32_t len = Get32(d, pos + 4);
    size_t name_len = static_cast<unsigned char>(d[pos + 10]);
    if (name_len == 0 || !Fits(pos + 11, name_len, end) || d[pos + 11 + name_len - 1] != '\0')
      return false;
    std::string name = d.substr(pos + 11, name_len - 1);
    if (name.empty() || name.find('\0') != std::string::npos) return false;
    if (!Fits(off, len, d.size())) return false;
    out.emplace_back(std::move(name), d.substr(off, len));
    pos += 11 + name_len;
  }
  return true;
}

// Every attribute of an AppleDouble file. False when malformed.
bool ParseAppleDouble(const std::string& d, Attrs& out) {
  if (d.size() < kHeaderSize || Get32(d, 0) != kMagic || Get32(d, 4) != kVersion) return false;
  uint16_t entries = Get16(d, 24);
  if (!Fits(kHeaderSize, size_t{entries} * 12, d.size())) return false;
  std::string finder_info, fork;
  for (uint16_t i = 0; i < entries; ++i) {
    size_t e = kHeaderSize + size_t{i} * 12;
    uint32_t id = Get32(d, e), off = Get32(d, e + 4), len = Get32(d, e + 8);
    if (!Fits(off, len, d.size())) return false;
    if (id == kEntryResourceFork) {
      fork = d.substr(off, len);
    } else if (id == kEntryFinderInfo) {
      if (len < kFinderInfoSize) return false;
      finder_info = d.substr(off, kFinderInfoSize);
      // Without room for an ATTR header the entry is Finder info alone.
      if (len >= kFinderInfoSize + 2 + kAttrHeaderSize &&
          !ParseAttrBlock(d, off + kFinderInfoSize + 2, size_t{off} + len, out))
        return false;
    }
  }
  auto has = [&](const std::string& n) {
    return std::any_of(out.begin(), out.end(), [&](const auto& a) { return a.first == n; });
  };
  if (finder_info.find_first_not_of('\0') != std::string::npos && !has("com.apple.FinderInfo"))
    out.emplace_back("com.apple.FinderInfo", finder_info);
  if (!fork.empty() && !has("com.apple.ResourceFork"))
    out.emplace_back("com.apple.ResourceFork", fork);
  return true;
}

// The Mac attributes, names without the Linux prefix, through `list` and
// `get` (xattr calls on a path or on a descriptor).
template <typename List, typename Get>
int ReadMacAttrs(List list, Get get, Attrs& out) {
  ssize_t size = list(nullptr, 0);
  if (size < 0) return -1;
  std::string names(static_cast<size_t>(size), '\0');
  size = list(names.data(), names.size());
  if (size < 0) return -1;
  names.resize(static_cast<size_t>(size));
  const std::string prefix = kLinuxPrefix + kMacPrefix;
  for (size_t pos = 0; pos < names.size();) {
    std::string name = names.c_str() + pos;
    pos += name.size() + 1;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    ssize_t len = get(name.c_str(), nullptr, 0);
    if (len < 0) return -1;
    std::string value(static_cast<size_t>(len), '\0');
    len = get(name.c_str(), value.data(), value.size());
    if (len < 0) return -1;
    value.resize(static_cast<size_t>(len));
    out.emplace_back(name.substr(kLinuxPrefix.size()), std::move(value));
  }
  return 0;
}

int PackAttrs(const Attrs& attrs, const std::string& out_appledouble);

}  // namespace

int MacAttributeUnpack(const std::string& appledouble_path, const std::string& target_path,
                       const std::set<std::string>* skip) {
  std::string data;
  if (fileutil::ReadWhole(appledouble_path, data, kMaxFile) < 0) return -1;
  Attrs attrs;
  if (!ParseAppleDouble(data, attrs)) {
    errno = EINVAL;
    return -1;
  }
  for (const auto& [name, value] : attrs) {
    if (skip && skip->count(name)) continue;
    std::string linux_name = kLinuxPrefix + name;
    if (lsetxattr(target_path.c_str(), linux_name.c_str(), value.data(), value.size(), 0) < 0)
      return -1;
  }
  return 0;
}

int MacAttributePack(const std::string& path, const std::string& out_appledouble) {
  Attrs attrs;
  const char* p = path.c_str();
  if (ReadMacAttrs([p](char* list, size_t size) { return llistxattr(p, list, size); },
                   [p](const char* name, void* value, size_t size) {
                     return lgetxattr(p, name, value, size);
                   },
                   attrs) < 0)
    return -1;
  return PackAttrs(attrs, out_appledouble);
}

int MacAttributePackFd(int fd, const std::string& out_appledouble) {
  Attrs attrs;
  if (ReadMacAttrs([fd](char* list, size_t size) { return flistxattr(fd, list, size); },
                   [fd](const char* name, void* value, size_t size) {
                     return fgetxattr(fd, name, value, size);
                   },
                   attrs) < 0)
    return -1;
  return PackAttrs(attrs, out_appledouble);
}

namespace {

int PackAttrs(const Attrs& attrs, const std::string& out_appledouble) {
  if (attrs.size() > UINT16_MAX) {
    errno = E2BIG;
    return -1;
  }
  for (const auto& a : attrs) {
    if (a.first.size() + 1 > 255) {
      errno = ENAMETOOLONG;
      return -1;
    }
  }
  // Layout: header with two entries (50 bytes), Finder info and padding,
  // ATTR header, attribute entries, data, and an empty resource fork last.
  const size_t entries_start = 50 + kFinderInfoSize + 2 + kAttrHeaderSize;
  size_t entries_end = entries_start;
  for (const auto& a : attrs)
    entries_end = ((entries_end + 3) & ~size_t{3}) + 11 + a.first.size() + 1;
  size_t data_start = (entries_end + 3) & ~size_t{3};
  size_t data_len = 0;
  for (const auto& a : attrs) data_len += a.second.size();
  size_t total = data_start + data_len;
  if (total > UINT32_MAX) {
    errno = EFBIG;
    return -1;
  }

  std::string d;
  d.reserve(total);
  Put32(d, kMagic);
  Put32(d, kVersion);
  d.append(16, '\0');
  Put16(d, 2);
  Put32(d, kEntryFinderInfo);
  Put32(d, 50);
  Put32(d, static_cast<uint32_t>(total - 50));
  Put32(d, kEntryResourceFork);
  Put32(d, static_cast<uint32_t>(total));
  Put32(d, 0);
  d.append(kFinderInfoSize + 2, '\0');
  Put32(d, kAttrMagic);
  Put32(d, 0);
  Put32(d, static_cast<uint32_t>(total));
  Put32(d, static_cast<uint32_t>(data_start));
  Put32(d, static_cast<uint32_t>(data_len));
  d.append(12, '\0');
  Put16(d, 0);
  Put16(d, static_cast<uint16_t>(attrs.size()));
  size_t off = data_start;
  for (const auto& [name, value] : attrs) {
    d.resize((d.size() + 3) & ~size_t{3}, '\0');
    Put32(d, static_cast<uint32_t>(off));
    Put32(d, static_cast<uint32_t>(value.size()));
    Put16(d, 0);
    d += static_cast<char>(name.size() + 1);
    d += name;
    d += '\0';
    off += value.size();
  }
  d.resize(data_start, '\0');
  for (const auto& a : attrs) d += a.second;

  fileutil::Fd out(open(out_appledouble.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out.ok()) return -1;
  if (fileutil::WriteAll(out.get(), d.data(), d.size()) < 0) return -1;
  return out.close();
}

}  // namespace
