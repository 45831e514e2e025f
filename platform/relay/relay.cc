// The relay daemon writes its state into small files; reading them needs no
// daemon. Missing files mean the relay is off, never an error of the caller.
#include "relay.h"

#include "text-file.h"

namespace KSTX::Relay {
namespace {

std::string StatusPath(const std::string& name) {
  return std::string(tprelay::kEtcRoot) + "/kstxrelayd/status/" + name;
}

// A status file without a "status" line tells nothing: the relay is off.
bool ReadStatus(const std::string& name, std::map<std::string, std::string>& values) {
  // Names come from configuration; keep them inside the status folder.
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
    return false;
  }
  values = tprelay::ReadKeyValueFile(StatusPath(name));
  return values.count("status") != 0;
}

}  // namespace

RelaydConf::RelaydConf(const std::string& path) {
  auto values = tprelay::ReadKeyValueFile(path);
  enabled_ = values["enabled"] == "yes";
  alias_enabled_ = values["alias_enabled"] == "yes";
  alias_name_ = values["alias_name"];
}

bool Daemon::GetStatus(std::string& id, std::string& status, std::string& detail,
                       const std::string& service) {
  std::map<std::string, std::string> values;
  if (!ReadStatus(service, values)) return false;
  id = values["id"];
  status = values["status"];
  detail = values["detail"];
  return true;
}

bool AliasStatus::GetStatus(const std::string& alias, std::string& status, std::string& detail) {
  // One alias per host: its state does not depend on the name asked for.
  (void)alias;
  std::map<std::string, std::string> values;
  if (!ReadStatus("alias", values)) return false;
  status = values["status"];
  detail = values["detail"];
  return true;
}

}  // namespace KSTX::Relay
