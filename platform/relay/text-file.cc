#include "text-file.h"

#include "keyvalue-file.h"

namespace tprelay {

std::map<std::string, std::string> ReadKeyValueFile(const std::string& path) {
  std::map<std::string, std::string> values;
  // A missing file describes a service that is off: no values, no error.
  if (!tpsys::ReadKeyValues(path, values)) values.clear();
  return values;
}

}  // namespace tprelay
