#include "config-file.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kLineBuffer = 8192;

bool IsKeyChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

bool IsBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

bool IsLineEnd(char c) { return c == '\0' || c == '\n' || c == '\r'; }

const char* SkipBlanks(const char* p) {
  while (*p != '\0' && IsBlank(*p)) ++p;
  return p;
}

}  // namespace

// One line of the file; false when it is malformed.
bool Config::ParseLine(const char* line) {
  const char* p = SkipBlanks(line);
  const char* key_begin = p;
  while (IsKeyChar(*p)) ++p;
  const std::string key(key_begin, p);
  // Empty lines, comments, and a key with nothing after it.
  if (*p == '#' || IsLineEnd(*p)) return true;
  p = SkipBlanks(p);
  if (*p != '=') return false;
  p = SkipBlanks(p + 1);
  if (*p == '\0') return false;
  std::string value;
  if (*p == '"' || *p == '\'') {
    const char quote = *p;
    const char* close = strchr(p + 1, quote);
    if (close == nullptr) return false;
    value.assign(p + 1, close);
    if (keep_quotes_) value = quote + value + quote;
    p = close + 1;
  } else {
    const char* begin = p;
    while (*p != '\0' && !IsBlank(*p)) ++p;
    value.assign(begin, p);
  }
  p = SkipBlanks(p);
  if (*p != '\0' && *p != '#') return false;
  values_[key] = value;
  return true;
}

int Config::read(const std::string& path) {
  values_.clear();
  if (path.empty()) return -1;
  FILE* file = fopen(path.c_str(), "re");
  if (file == nullptr) return -1;
  char buffer[kLineBuffer];
  int rc = 0;
  while (fgets(buffer, sizeof buffer, file) != nullptr) {
    if (!ParseLine(buffer)) {
      values_.clear();
      rc = -1;
      break;
    }
  }
  fclose(file);
  return rc;
}

std::string Config::Get(const std::string& key) const {
  const auto it = values_.find(key);
  return it == values_.end() ? std::string() : it->second;
}
