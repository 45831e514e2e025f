#include "upload-filter.h"

#include <fnmatch.h>
#include <json/reader.h>
#include <json/value.h>

#include <algorithm>

namespace scan {
namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  });
  return text;
}

template <class Add>
void ForEachText(const Json::Value& desc, const char* key, Add add) {
  const Json::Value& list = desc[key];
  if (!list.isArray()) return;
  for (const Json::Value& item : list)
    if (item.isString() && !item.asString().empty()) add(item.asString());
}

}  // namespace

UploadFilter UploadFilter::FromDescription(const std::string& description) {
  UploadFilter filter;
  Json::Value desc;
  Json::Reader reader;
  if (!reader.parse(description, desc, false) || !desc.isObject()) return filter;
  const Json::Value& size = desc["filtered_max_upload_size"];
  if (size.isUInt64()) filter.max_size_ = size.asUInt64();
  for (const char* key : {"filtered_extensions", "user_defined_extensions"}) {
    ForEachText(desc, key, [&](const std::string& ext) {
      const std::string bare = Lower(ext[0] == '.' ? ext.substr(1) : ext);
      if (!bare.empty()) filter.extensions_.insert(bare);
    });
  }
  for (const char* key : {"filtered_names", "user_defined_names"}) {
    ForEachText(desc, key, [&](const std::string& name) {
      if (name.find_first_of("*?") != std::string::npos)
        filter.patterns_.push_back(Lower(name));
      else
        filter.names_.insert(Lower(name));
    });
  }
  return filter;
}

bool UploadFilter::Skips(const std::string& name, bool regular_file, uint64_t size) const {
  if (regular_file && max_size_ != 0 && size > max_size_) return true;
  if (extensions_.empty() && names_.empty() && patterns_.empty()) return false;
  const std::string lower = Lower(name);
  if (names_.count(lower)) return true;
  for (const std::string& pattern : patterns_)
    if (fnmatch(pattern.c_str(), lower.c_str(), FNM_PERIOD) == 0) return true;
  if (regular_file && !extensions_.empty()) {
    // Every ending counts, so that "tar.gz" matches as well as "gz".
    for (size_t dot = lower.find('.', 1); dot != std::string::npos; dot = lower.find('.', dot + 1))
      if (extensions_.count(lower.substr(dot + 1))) return true;
  }
  return false;
}

}  // namespace scan
