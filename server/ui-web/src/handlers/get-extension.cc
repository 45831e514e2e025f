#include "get-extension.h"

#include <list>

#include "bridge/run-as.h"
#include "driftway-client.h"
#include "fs.h"
#include "logger.h"
#include "sync-package.h"
#include "sync-service.h"
#include "user-manager.h"

namespace {

// SendUserControl's operations and the values it takes for a user.
constexpr int kEnableUser = 0;
constexpr int kDisableUser = 3;
constexpr int kUserRotateCount = 32;
constexpr const char* kUserRotatePolicy = "fifo";

Json::Value TextList(const std::vector<std::string>& items) {
  Json::Value list(Json::arrayValue);
  for (const std::string& item : items) list.append(item);
  return list;
}

Json::Value Size(uint64_t value) { return Json::Value(static_cast<Json::UInt64>(value)); }

}  // namespace

GetExtensionHandler::GetExtensionHandler() {
  SetRequiredDatabase(0);
  SetAccountOption(0);
  SetRequiredAccessPrivilege(0);
  SetStatusOption(0);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool", "get_extension", 0, 0);
}

Json::Value GetExtensionHandler::RulesToJson(const BlackListFilter& filter) {
  Json::Value rules(Json::objectValue);
  Json::Value& common = rules["common"];
  common["max_name_length"] = Size(filter.common.max_name_length);
  common["max_path_length"] = Size(filter.common.max_path_length);
  common["character"] = filter.common.character;
  common["name"] = TextList(filter.common.name);
  common["prefix"] = TextList(filter.common.prefix);
  common["suffix"] = TextList(filter.common.suffix);
  common["dir_prefix"] = TextList(filter.common.dir_prefix);
  Json::Value& file = rules["file"];
  file["max_size"] = Size(filter.file.max_size);
  file["character"] = filter.file.character;
  file["name"] = TextList(filter.file.name);
  file["prefix"] = TextList(filter.file.prefix);
  file["suffix"] = TextList(filter.file.suffix);
  file["glob"] = TextList(filter.file.glob);
  file["ext"] = TextList(filter.file.ext);
  Json::Value& dir = rules["dir"];
  dir["character"] = filter.dir.character;
  dir["name"] = TextList(filter.dir.name);
  dir["prefix"] = TextList(filter.dir.prefix);
  dir["suffix"] = TextList(filter.dir.suffix);
  rules["ea"]["name"] = TextList({filter.ea.name.begin(), filter.ea.name.end()});
  return rules;
}

void GetExtensionHandler::SyncAppPrivilegeWithDatabase(const RequestAuthentication& auth) {
  // Nobody logged in has no account in the service to enable or disable.
  if (!ServiceSupportAppPrivilege() || auth.is_anonymous) return;
  const int privilege = CheckAppPrivilege(auth);
  if (privilege == 1) return;
  const int operation = privilege == 0 ? kEnableUser : kDisableUser;
  // The service may refuse (an unknown user, a service that is down); the
  // extension's answer does not depend on it.
  SendUserControl(operation, auth.user, auth.uid, kUserRotateCount, kUserRotatePolicy, 0);
}

int GetExtensionHandler::Handle(const RequestAuthentication& auth, BridgeRequest&,
                                BridgeResponse& response) {
  bool home_enabled = false;
  bool user_enabled = false;
  Json::Value share_list(Json::arrayValue);
  Json::Value config(Json::objectValue);
  // Each step that fails leaves what follows at its default: the extension
  // always gets an answer.
  [&] {
    if (!SyncIsPkgEnable()) return;
    std::string status;
    if (ServiceStatusGet(status, true) < 0) {
      LOG_ERROR("failed to get service status\n");
      return;
    }
    if (status != "enabled") return;
    SyncAppPrivilegeWithDatabase(auth);
    bool database_ready = false;
    IF_RUN_AS(0, 0) {
      // This host's sync database set-up opens nothing by itself: the user
      // database is the handler's to open.
      SetRequiredDatabase(kUserDatabase);
      database_ready = SyncDBInit() >= 0 && InitializeDatabase() >= 0;
      if (database_ready) {
        user_enabled = IsUserEnabled(auth);
      } else {
        LOG_ERROR("failed to initialize database\n");
      }
      SyncDBDestroy();
    }
    else {
      LOG_ERROR("Fail to run as root\n");
      return;
    }
    if (!database_ready || IsFreeze()) return;
    home_enabled = IsUserHomeEnabled(auth.user);
    BlackList2 black_list;
    if (black_list.Load(BlackList2::kDefaultPath) < 0) {
      LOG_ERROR("failed to load black list\n");
      return;
    }
    if (const BlackListFilter* filter = black_list.GetFilter()) {
      config["rules"] = RulesToJson(*filter);
    }
    black_list.ReturnFilter();
    IF_RUN_AS(0, 0) {
      if (SyncDBInit() < 0) LOG_ERROR("failed to initialize database\n");
      std::list<UserInfo> shares;
      if (UserManager::EnumShareUser(shares, "") < 0) {
        LOG_ERROR("fail to enumerate shared folders\n");
      }
      // A share that was switched off keeps its record, and its history,
      // but is no longer synced: the extension is told of enabled ones.
      for (const UserInfo& share : shares) {
        if (!share.isEnabled()) continue;
        Json::Value entry(Json::objectValue);
        entry["name"] = share.name;
        share_list.append(entry);
      }
      SyncDBDestroy();
    }
    else {
      LOG_ERROR("Fail to run as root\n");
    }
  }();
  config["home_enabled"] = home_enabled;
  config["user_enabled"] = user_enabled;
  config["share_list"] = share_list;
  Json::Value data(Json::objectValue);
  data["service_config"] = config;
  response.SetJsonResponse(data);
  return 0;
}
