// The control operations of the sync service: enabling and disabling users
// and shares in the user database. Shared by the daemon and driftway-control;
// the caller has UserManager initialised.
#pragma once

#include <cstdint>
#include <string>

class SyncConfigMgr;

namespace driftway {

struct OpResult {
  int code = 0;  // 0 done, else an ErrorCode of the control protocol
  std::string message;
  bool ok() const { return code == 0; }
};

struct Rotation {
  int count = 32;
  std::string policy = "fifo";
  int days = 0;
};

// 0 local, 2 LDAP ("name@domain"), 3 domain ("DOMAIN\name").
uint32_t UserTypeOf(const std::string& name);
// "<repository volume>/homes/<user>/Tidepool".
std::string UserHomeRoot(const SyncConfigMgr& config, const std::string& user);

// The host account must exist; `uid`, when not 0, must be its uid.
OpResult EnableUser(const SyncConfigMgr& config, const std::string& name, uint32_t uid);
OpResult DisableUser(const std::string& name);
// The host share must exist; its rotation is set to `rotation`.
OpResult EnableShare(const std::string& share, const Rotation& rotation);
OpResult DisableShare(const std::string& share);

}  // namespace driftway
