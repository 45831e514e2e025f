#include "string-bundle.h"

#include "text-file.h"

StringBundle::StringBundle(const char* section, int, int, int, int, int) {
  // A section name is a file name: nothing that leaves the strings folder.
  if (section == nullptr || *section == '\0') return;
  const std::string name(section);
  if (name.find('/') != std::string::npos || name == "." || name == "..") return;
  texts_ = tprelay::ReadKeyValueFile(std::string(tprelay::kEtcRoot) + "/strings/" + name + ".txt");
}

const char* StringBundle::Text(const char* key, int) const {
  if (key == nullptr) return nullptr;
  const auto it = texts_.find(key);
  return it == texts_.end() ? nullptr : it->second.c_str();
}
