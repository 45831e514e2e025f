#include "request-handler.h"

#include <unistd.h>

#include "driftway-client.h"
#include "logger.h"
#include "run-as.h"
#include "sdk.h"
#include "sync-service.h"
#include "user-manager.h"

namespace {

constexpr uint32_t kAnonymousUid = RequestAuthentication::kAnonymousUid;
constexpr const char* kDriftwaySocket = "unix:/tmp/driftway-syncservice";
constexpr int kDriftwayServerVersion = 11061;
constexpr int kDriftwayTimeoutSeconds = 300;

}  // namespace

RequestHandler::~RequestHandler() { DestroyDatabase(); }

int RequestHandler::Handle(const RequestAuthentication&, BridgeRequest&, BridgeResponse&) {
  return 0;
}

void RequestHandler::SetAPI(const std::string& cls, const std::string& method, unsigned min,
                            unsigned max) {
  api_class = cls;
  api_method = method;
  version_min = min;
  version_max = max;
}

int RequestHandler::HandleRequest(BridgeRequest& request, BridgeResponse& response) {
  RequestAuthentication auth;
  if (Authenticate(auth, request, response) < 0 || CheckRequestMethod(request, response) < 0 ||
      CheckDemoMode(auth, request, response) < 0 ||
      CheckServiceStatus(auth, request, response) < 0 ||
      CheckAccount(auth, request, response) < 0 || CheckSudoUser(auth, request, response) < 0) {
    return -1;
  }
  // The databases open before the access test, which needs the user
  // database; the destructor closes them after the answer is out.
  if (InitializeDatabase() < 0) {
    return RESPONSE_FAIL(response, 401, "failed to initialize database");
  }
  if (CheckAccessPrivilege(auth, request, response) < 0) return -1;
  return HandleWithCorrectPrivilege(auth, request, response) < 0 ? -1 : 0;
}

int RequestHandler::Authenticate(RequestAuthentication& auth, BridgeRequest& request,
                                 BridgeResponse& response) {
  if (authentication_service == nullptr) {
    LOG_ERROR("no authentication service\n");
    return RESPONSE_FAIL(response, 401, "missing authentication service");
  }
  if (authentication_service->Authenticate(auth, request, response) < 0) {
    LOG_ERROR("authentication failure\n");
    return RESPONSE_FAIL(response, 105, "authentication failed");
  }
  return 0;
}

int RequestHandler::CheckRequestMethod(BridgeRequest& request, BridgeResponse& response) const {
  if (request_method != kRequestMethodWrite) return 0;
  // A link or a form on another site makes the browser send the cookie, but
  // it cannot read the token; a GET is never an intent to change anything.
  if (request.IsPost() && request.HasValidToken()) return 0;
  LOG_ERROR("'%s' refused: %s\n", GetAPI().c_str(),
            request.IsPost() ? "no valid request token" : "not a POST");
  return RESPONSE_FAIL(response, 105, "permission denied (request token)");
}

int RequestHandler::CheckDemoMode(const RequestAuthentication&, BridgeRequest&,
                                  BridgeResponse&) const {
  return 0;
}

int RequestHandler::CheckServiceStatus(const RequestAuthentication&, BridgeRequest&,
                                       BridgeResponse& response) {
  if (status_option & kStatusEnabled) {
    std::string status;
    if (ServiceStatusGet(status, true) < 0) {
      LOG_ERROR("Failed to get Driftway status\n");
      return RESPONSE_FAIL(response, 401, "failed to get status");
    }
    if (status == "moving_db") {
      // A move whose mover died is finished or undone by a recovery: without
      // it the service would answer 503 for good.
      IF_RUN_AS(0, 0) {
        if (RecoverInterruptedMove() > 0) LOG_ERROR("Started the recovery of a cut-short move\n");
      }
      LOG_ERROR("Repo of Driftway is moving and you shall not do any action!\n");
      return RESPONSE_FAIL(response, 503, "repository is moving");
    }
    if (status != "enabled") {
      LOG_ERROR("Driftway is not ready (status = '%s')\n", status.c_str());
      return RESPONSE_FAIL(response, 501, "driftway is not ready");
    }
  }
  if ((status_option & kStatusNotFrozen) && IsFreeze()) {
    LOG_ERROR("Driftway is in freeze mode\n");
    return RESPONSE_FAIL(response, 502, "freeze mode");
  }
  return 0;
}

int RequestHandler::CheckAccount(RequestAuthentication& auth, BridgeRequest&,
                                 BridgeResponse& response) {
  if (auth.is_root || account_option == 0) return 0;
  const bool allow_anonymous = account_option & kAccountAllowAnonymous;
  if (!allow_anonymous && auth.is_anonymous) {
    return RESPONSE_FAIL(response, 105, "permission denied by anonymous");
  }
  if (!auth.is_anonymous && auth.is_timeout) {
    return RESPONSE_FAIL(response, 106, "session timeout");
  }
  if ((account_option & kAccountAppPrivilege) && ServiceSupportAppPrivilege() &&
      CheckAppPrivilege(auth) != 0) {
    if (allow_anonymous) {
      auth.uid = kAnonymousUid;
      auth.user = "anonymous";
      auth.is_anonymous = true;
      auth.is_root = false;
      auth.is_admin = false;
      return 0;
    }
    LOG_ERROR("Permission denied\n");
    return RESPONSE_FAIL(response, 105, "permission denied by app-privilege");
  }
  if ((account_option & kAccountRefuseExpired) && auth.is_expired) {
    LOG_ERROR("account '%s' expired\n", auth.user.c_str());
    return RESPONSE_FAIL(response, 105, "permission denied (user expired)");
  }
  return 0;
}

int RequestHandler::CheckSudoUser(RequestAuthentication&, BridgeRequest& request,
                                  BridgeResponse& response) {
  if (!request.HasParam("sudo")) return 0;
  const Json::Value& value = request.GetParamRef("sudo", Json::Value(""));
  if (value.isString()) {
    sudo_user = value.asString();
  } else if (value.isIntegral()) {
    SDK::User user;
    // A number outside the range of user numbers names nobody.
    if (!value.isUInt() || SDK::UserService().GetUserByUid(value.asUInt(), user) < 0) {
      LOG_ERROR("Failed to get user %d\n", value.isInt() ? value.asInt() : -1);
      return RESPONSE_FAIL(response, 401, "sudo: Failed to get user");
    }
    sudo_user = user.getName();
  } else {
    LOG_CRIT("shouldn't be here");
    return RESPONSE_FAIL(response, 401, "sudo: format error");
  }
  if (account_option & kAccountAllowAnonymous) {
    RequestAuthentication sudo_auth;
    sudo_auth.user = sudo_user;
    sudo_auth.remote_ip = "127.0.0.1";
    if (CheckAppPrivilege(sudo_auth) != 0) sudo_user = "anonymous";
  }
  return 0;
}

int RequestHandler::CheckAccessPrivilege(const RequestAuthentication& auth, BridgeRequest&,
                                         BridgeResponse& response) {
  if (auth.is_root) return 0;
  if (required_access_privilege & kAccessAdmin) {
    if (auth.is_admin) return 0;
    return RESPONSE_FAIL(response, 105, "permission denied (admin only)");
  }
  // An anonymous caller passes on purpose: the account test has decided
  // about it already.
  if ((required_access_privilege & kAccessEnabledUser) && !auth.is_admin && !auth.is_anonymous) {
    if (!(required_database & kUserDatabase)) {
      return RESPONSE_FAIL(response, 401, "user database is not initialized");
    }
    if (!IsUserEnabled(auth)) {
      return RESPONSE_FAIL(response, 105, "permission denied (disabled)");
    }
  }
  return 0;
}

int RequestHandler::RunHandle(const RequestAuthentication& auth, BridgeRequest& request,
                              BridgeResponse& response, bool elevated) {
  if (Handle(auth, request, response) >= 0) return 0;
  // The elevated form lacks its closing quote; log readers match both texts.
  if (elevated) {
    LOG_ERROR("failed to handle API '%s\n", GetAPI().c_str());
  } else {
    LOG_ERROR("failed to handle API '%s'\n", GetAPI().c_str());
  }
  if (response.IsErrorSet()) {
    LOG_ERROR("error code: %d, error message: %s, error line: %d.\n", response.GetErrorCode(),
              response.GetErrorMessage().c_str(), response.GetErrorLine());
  }
  return -1;
}

int RequestHandler::HandleWithCorrectPrivilege(const RequestAuthentication& auth,
                                               BridgeRequest& request, BridgeResponse& response) {
  if (!(required_access_privilege & kAccessAdmin)) {
    LOG_DEBUG("handling '%s' with normal user privilege\n", GetAPI().c_str());
    return RunHandle(auth, request, response, false);
  }
  IF_RUN_AS(0, 0) {
    LOG_DEBUG("handling '%s' with elevated privilege\n", GetAPI().c_str());
    return RunHandle(auth, request, response, true);
  }
  else {
    // No error is recorded here: the caller sees a success with null data.
    LOG_ERROR("Failed to switch to root\n");
    return -1;
  }
}

int RequestHandler::CheckAppPrivilege(const RequestAuthentication& auth) {
  SDK::UserAppPrivilege privilege;
  privilege.SetLoginInfo(auth.user, auth.remote_ip);
  const auto [allowed_known, allowed] = privilege.IsLoginAllowed();
  if (allowed_known && allowed) return 0;
  const auto [may_known, may_have] = privilege.UserMayHavePrivilege();
  return (may_known && may_have) ? 1 : 2;
}

bool RequestHandler::IsUserEnabled(const RequestAuthentication& auth) {
  UserInfo info;
  if (UserManager::GetUser(auth.user, auth.uid, info, UserManager::kQueryWithAccountState) < 0) {
    LOG_ERROR("Failed to get user '%s' from user database\n", auth.user.c_str());
    return false;
  }
  if (info.name.empty()) {
    LOG_DEBUG("User '%s' is disabled\n", auth.user.c_str());
    return false;
  }
  if (!info.isHVOSEnabled()) {
    LOG_DEBUG("User '%s' is HVOS disabled\n", auth.user.c_str());
    return false;
  }
  return true;
}

bool RequestHandler::IsFreeze() const { return IsViewIdFreeze(0); }

bool RequestHandler::IsUserHomeEnabled(const std::string& user) {
  int type = 0;
  if (user.find('\\') != std::string::npos) {
    type = 3;
  } else if (user.find('@') != std::string::npos) {
    type = 2;
  }
  return ServiceIsHomeServiceEnabled(type);
}

int RequestHandler::SwitchAuth(const RequestAuthentication& auth, const std::string& target_user,
                               RequestAuthentication& result) {
  if (auth.user == target_user) {
    result = auth;
    return 0;
  }
  Driftway client;
  client.SetSSL(false, false, "", "");
  client.SetServer(kDriftwaySocket, 0);
  client.SetUser(auth.user, "", "");
  client.SetServerVersion(kDriftwayServerVersion);
  client.SetTimeout(kDriftwayTimeoutSeconds);
  client.SetSudoUser(target_user);
  Driftway::UserInfo info;
  if (client.QueryUser(info, true) < 0) {
    LOG_ERROR("SwitchAuth failed: %s (%d)", client.GetLastErrorMessage().c_str(),
              client.GetLastError());
    return -1;
  }
  result = auth;
  result.user = target_user;
  result.uid = info.uid;
  result.is_admin = info.is_admin;
  result.is_root = info.uid == 0;
  result.is_anonymous = info.uid == kAnonymousUid || target_user == "anonymous";
  result.is_expired = false;
  return 0;
}
