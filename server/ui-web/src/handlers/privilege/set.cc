#include "set.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "batch-state.h"
#include "driftway-client.h"
#include "hlibc.h"
#include "logger.h"
#include "util/webapi-util.h"

namespace {

struct UserPrivilegeDesc {
  std::string name;
  bool enable = false;
};

// The child's work: one control request per user, in order, a progress
// report every hundredth of the batch (every 100 users in small ones).
// A user the service refuses does not stop the batch.
void RunBatch(const std::string& mode, const std::vector<UserPrivilegeDesc>& users) {
  const int total = static_cast<int>(users.size());
  const int step = std::max(total / 100, 100);
  for (int i = 0; i < total; ++i) {
    if (i % step == 0) (void)privilege::WriteBatchState(mode, i, total);
    const UserPrivilegeDesc& user = users[static_cast<size_t>(i)];
    (void)SendUserControl(user.enable ? 0 : 3, user.name, 0, 32, "fifo", 0);
  }
  (void)privilege::RemoveBatchState();
}

}  // namespace

PrivilegeSetHandler::PrivilegeSetHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Privilege", "set", 0, 0);
}

int PrivilegeSetHandler::Handle(const RequestAuthentication& /*auth*/, BridgeRequest& request,
                                BridgeResponse& /*response*/) {
  const std::string auth_type = request.GetParamRef("auth_type", Json::Value("local")).asString();
  const std::string domain_name = request.GetParamRef("domain_name", Json::Value("")).asString();
  std::string mode = request.GetParamRef("batch_mode", Json::Value("normal")).asString();

  std::vector<UserPrivilegeDesc> users;
  if (mode == "enable_all" || mode == "disable_all") {
    uint32_t total = 0;
    std::vector<std::string> names;
    GetPrivilegedUsers(0, -1, "", auth_type, domain_name, total, names);
    users.reserve(names.size());
    for (std::string& name : names) users.push_back({std::move(name), mode == "enable_all"});
  } else {
    mode = "normal";
    const Json::Value& list = request.GetParamRef("user_list", Json::Value(Json::arrayValue));
    if (list.isArray()) {
      for (const Json::Value& entry : list) {
        if (!entry.isObject()) continue;
        users.push_back({entry["name"].asString(), entry["enable"].asBool()});
      }
    }
  }

  (void)privilege::WriteBatchState(mode, 0, static_cast<int>(users.size()));
  const int pid = HLIBCProcForkChildNoWait();
  if (pid < 0) {
    LOG_ERROR("HLIBCProcForkChildNoWait\n");
    return 0;
  }
  if (pid > 0) return 0;
  RunBatch(mode, users);
  // The parent's database handles and buffers are its own: nothing of them
  // may be closed or flushed from here.
  _exit(0);
}
