// The black list file: INI-like sections, each line `key = "v1", "v2"`.
//
//   [common]  max_name_length, max_path_length, character, name, prefix,
//             suffix, dir_prefix
//   [file]    max_size, character, name, prefix, suffix, glob, ext
//   [dir]     character, name, prefix, suffix
//   [ea]      name
//
// Numbers may be quoted or bare; a text value may escape `"` and `\` with a
// backslash; lines starting with `#` or `;` are comments. An unknown section
// or key, a value that does not parse or a line outside a section makes the
// whole file invalid: a typo must not quietly let names through.
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "file-util.h"
#include "fs.h"

namespace {

std::string Trim(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  const size_t end = text.find_last_not_of(" \t\r");
  return text.substr(begin, end - begin + 1);
}

// `"a", "b", 12` -> {"a", "b", "12"}; nullopt for a malformed list.
std::optional<std::vector<std::string>> ParseValues(const std::string& text) {
  std::vector<std::string> values;
  size_t i = 0;
  auto skip_blanks = [&] {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
  };
  skip_blanks();
  if (i == text.size()) return values;  // `key =` with nothing: an empty list
  for (;;) {
    std::string value;
    if (text[i] == '"') {
      bool closed = false;
      for (++i; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
          value.push_back(text[++i]);
        } else if (text[i] == '"') {
          closed = true;
          ++i;
          break;
        } else {
          value.push_back(text[i]);
        }
      }
      if (!closed) return std::nullopt;
    } else {
      while (i < text.size() && text[i] != ',' && text[i] != ' ' && text[i] != '\t') {
        value.push_back(text[i++]);
      }
      if (value.empty()) return std::nullopt;
    }
    values.push_back(std::move(value));
    skip_blanks();
    if (i == text.size()) return values;
    if (text[i] != ',') return std::nullopt;
    ++i;
    skip_blanks();
    if (i == text.size()) return std::nullopt;  // a trailing comma
  }
}

bool ParseNumber(const std::vector<std::string>& values, uint64_t& out) {
  if (values.size() != 1 || values[0].empty() || values[0][0] < '0' || values[0][0] > '9') {
    return false;
  }
  errno = 0;
  char* end = nullptr;
  const unsigned long long n = std::strtoull(values[0].c_str(), &end, 10);
  if (errno != 0 || *end != '\0') return false;
  out = n;
  return true;
}

bool ParseText(const std::vector<std::string>& values, std::string& out) {
  if (values.size() > 1) return false;
  out = values.empty() ? "" : values[0];
  return true;
}

// Stores one key of one section; false for an unknown key or a bad value.
bool Assign(BlackListFilter& f, const std::string& section, const std::string& key,
            std::vector<std::string> values) {
  auto list = [&](std::vector<std::string>& field) {
    field = std::move(values);
    return true;
  };
  if (section == "common") {
    auto& c = f.common;
    if (key == "max_name_length") return ParseNumber(values, c.max_name_length);
    if (key == "max_path_length") return ParseNumber(values, c.max_path_length);
    if (key == "character") return ParseText(values, c.character);
    if (key == "name") return list(c.name);
    if (key == "prefix") return list(c.prefix);
    if (key == "suffix") return list(c.suffix);
    if (key == "dir_prefix") return list(c.dir_prefix);
  } else if (section == "file") {
    auto& c = f.file;
    if (key == "max_size") return ParseNumber(values, c.max_size);
    if (key == "character") return ParseText(values, c.character);
    if (key == "name") return list(c.name);
    if (key == "prefix") return list(c.prefix);
    if (key == "suffix") return list(c.suffix);
    if (key == "glob") return list(c.glob);
    if (key == "ext") return list(c.ext);
  } else if (section == "dir") {
    auto& c = f.dir;
    if (key == "character") return ParseText(values, c.character);
    if (key == "name") return list(c.name);
    if (key == "prefix") return list(c.prefix);
    if (key == "suffix") return list(c.suffix);
  } else if (section == "ea") {
    if (key == "name") {
      f.ea.name.insert(values.begin(), values.end());
      return true;
    }
  }
  return false;
}

int ParseFile(const std::string& path, BlackListFilter& out) {
  std::ifstream in(path);
  if (!in) return -1;
  BlackListFilter filter;
  std::string section, line;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line.front() == '[') {
      if (line.back() != ']') return -1;
      section = Trim(line.substr(1, line.size() - 2));
      if (section != "common" && section != "file" && section != "dir" && section != "ea") {
        return -1;
      }
      continue;
    }
    const size_t eq = line.find('=');
    if (section.empty() || eq == std::string::npos) return -1;
    auto values = ParseValues(line.substr(eq + 1));
    if (!values || !Assign(filter, section, Trim(line.substr(0, eq)), std::move(*values))) {
      return -1;
    }
  }
  if (in.bad()) return -1;
  out = std::move(filter);
  return 0;
}

}  // namespace

int BlackList2::Load(const std::string& path) {
  filter_ = BlackListFilter();
  loaded_ = false;
  if (ParseFile(path, filter_) < 0) {
    filter_ = BlackListFilter();
    return -1;
  }
  loaded_ = true;
  return 0;
}

const BlackListFilter* BlackList2::GetFilter() {
  if (loaded_) return &filter_;
  // The service's own list is read once; it may well not exist.
  if (!tried_default_) {
    tried_default_ = true;
    if (ParseFile(kDefaultPath, filter_) == 0) loaded_ = true;
  }
  return loaded_ ? &filter_ : nullptr;
}

void BlackList2::ReturnFilter() {
  filter_ = BlackListFilter();
  loaded_ = false;
  tried_default_ = false;
}

int MacAttributeUnpack(const std::string& appledouble_path, const std::string& target_path,
                       const BlackListFilter* filter) {
  return MacAttributeUnpack(appledouble_path, target_path,
                            filter != nullptr ? &filter->ea.name : nullptr);
}
