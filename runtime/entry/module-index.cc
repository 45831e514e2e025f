#include "module-index.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kstxentry {
namespace {

bool ParseVersion(const char* text, unsigned& out) {
  char* end = nullptr;
  if (*text < '0' || *text > '9') return false;
  const unsigned long value = std::strtoul(text, &end, 10);
  if (*end != '\0' || value > 0xffffffffUL) return false;
  out = static_cast<unsigned>(value);
  return true;
}

void ReadIndexFile(const std::string& path, std::vector<ApiIndexEntry>& out) {
  FILE* f = std::fopen(path.c_str(), "re");
  if (f == nullptr) return;
  char line[4096];
  while (std::fgets(line, sizeof line, f) != nullptr) {
    line[std::strcspn(line, "\r\n")] = '\0';
    char* fields[4];
    char* cursor = line;
    int n = 0;
    for (; n < 4 && cursor != nullptr; ++n) {
      fields[n] = cursor;
      cursor = std::strchr(cursor, '\t');
      if (cursor != nullptr) *cursor++ = '\0';
    }
    ApiIndexEntry entry;
    if (n != 4 || cursor != nullptr || *fields[0] == '\0' || *fields[3] != '/' ||
        !ParseVersion(fields[1], entry.min_version) ||
        !ParseVersion(fields[2], entry.max_version)) {
      continue;
    }
    entry.api = fields[0];
    entry.module_path = fields[3];
    out.push_back(std::move(entry));
  }
  std::fclose(f);
}

}  // namespace

std::vector<ApiIndexEntry> ReadModuleIndex(const char* dir) {
  std::vector<ApiIndexEntry> entries;
  DIR* d = opendir(dir);
  if (d == nullptr) return entries;
  std::vector<std::string> files;
  while (const dirent* e = readdir(d)) {
    const std::size_t len = std::strlen(e->d_name);
    if (len > 6 && e->d_name[0] != '.' && std::strcmp(e->d_name + len - 6, ".index") == 0) {
      files.push_back(std::string(dir) + "/" + e->d_name);
    }
  }
  closedir(d);
  std::sort(files.begin(), files.end());  // a stable answer whatever the directory order
  for (const std::string& file : files) ReadIndexFile(file, entries);
  return entries;
}

std::string FormatModuleIndex(const KSTXAPITableRow* rows, const std::string& module_path) {
  std::vector<ApiIndexEntry> apis;
  for (const KSTXAPITableRow* row = rows; row != nullptr && row->api != nullptr; ++row) {
    auto it = std::find_if(apis.begin(), apis.end(),
                           [&](const ApiIndexEntry& e) { return e.api == row->api; });
    if (it == apis.end()) {
      apis.push_back({row->api, row->version, row->version, module_path});
    } else {
      it->min_version = std::min(it->min_version, row->version);
      it->max_version = std::max(it->max_version, row->version);
    }
  }
  std::string text;
  for (const ApiIndexEntry& e : apis) {
    text += e.api + "\t" + std::to_string(e.min_version) + "\t" + std::to_string(e.max_version) +
            "\t" + e.module_path + "\n";
  }
  return text;
}

}  // namespace kstxentry
