// Base class of the API handlers. Each handler declares in its constructor
// what it needs (databases, account tests, access privilege, service state);
// HandleRequest runs a fixed pipeline of checks against those settings and
// then the handler's Handle. Every check either passes or records an error in
// the response and stops the pipeline.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "bridge-request.h"
#include "bridge-response.h"

enum RequestMethod { kRequestMethodRead = 1, kRequestMethodWrite = 2 };

class RequestHandler {
 public:
  // Bits of required_database / opened_databases.
  static constexpr uint32_t kUserDatabase = 1;
  static constexpr uint32_t kLogDatabase = 2;
  static constexpr uint32_t kDataDatabase = 4;
  // Bits of account_option.
  static constexpr uint32_t kAccountAppPrivilege = 1;
  static constexpr uint32_t kAccountRefuseExpired = 2;
  static constexpr uint32_t kAccountAllowAnonymous = 4;
  // Bits of required_access_privilege.
  static constexpr uint32_t kAccessEnabledUser = 1;
  static constexpr uint32_t kAccessAdmin = 2;
  // Bits of status_option.
  static constexpr uint32_t kStatusEnabled = 1;
  static constexpr uint32_t kStatusNotFrozen = 2;

  // Result codes of a restore item, as background tasks report them.
  static constexpr int kItemBadPassword = -3;
  static constexpr int kItemNoSpace = -2;

  RequestHandler() = default;
  RequestHandler(const RequestHandler&) = delete;
  RequestHandler& operator=(const RequestHandler&) = delete;
  virtual ~RequestHandler();

  // 0 or more on success; a failure is negative and must have set an error
  // in the response, or the caller sees a success with null data.
  virtual int Handle(const RequestAuthentication& auth, BridgeRequest& request,
                     BridgeResponse& response);

  void SetRequiredDatabase(unsigned value) { required_database = value; }
  void SetAccountOption(unsigned value) { account_option = value; }
  void SetRequiredAccessPrivilege(unsigned value) { required_access_privilege = value; }
  void SetRequestMethod(RequestMethod value) { request_method = value; }
  void SetStatusOption(unsigned value) { status_option = value; }
  void SetAllowDemoMode(bool value) { allow_demo_mode = value; }
  void SetAPI(const std::string& api_class, const std::string& api_method, unsigned version_min,
              unsigned version_max);
  void SetAuthenticationService(AuthenticationService* service) {
    authentication_service = service;
  }

  const std::string& GetAPIClass() const { return api_class; }
  const std::string& GetAPIMethod() const { return api_method; }
  unsigned GetVersionMin() const { return version_min; }
  unsigned GetVersionMax() const { return version_max; }
  // "KSTX.Tidepool.Node.list": the key of the handler table and the name in the log.
  std::string GetAPI() const { return api_class + "." + api_method; }
  const std::string& GetSudoUser() const { return sudo_user; }
  uint32_t GetOpenedDatabases() const { return opened_databases; }

  // 0 when the pipeline and Handle succeeded, -1 otherwise.
  int HandleRequest(BridgeRequest& request, BridgeResponse& response);

  // The pipeline's stages, each 0 or negative.
  int Authenticate(RequestAuthentication& auth, BridgeRequest& request, BridgeResponse& response);
  // A writing method answers only a POST with the session's request token.
  int CheckRequestMethod(BridgeRequest& request, BridgeResponse& response) const;
  int CheckDemoMode(const RequestAuthentication& auth, BridgeRequest& request,
                    BridgeResponse& response) const;
  int CheckServiceStatus(const RequestAuthentication& auth, BridgeRequest& request,
                         BridgeResponse& response);
  int CheckAccount(RequestAuthentication& auth, BridgeRequest& request, BridgeResponse& response);
  int CheckSudoUser(RequestAuthentication& auth, BridgeRequest& request, BridgeResponse& response);
  int CheckAccessPrivilege(const RequestAuthentication& auth, BridgeRequest& request,
                           BridgeResponse& response);
  int HandleWithCorrectPrivilege(const RequestAuthentication& auth, BridgeRequest& request,
                                 BridgeResponse& response);

  // 0 allowed; 1 not allowed now, but the user may hold the privilege; 2 not allowed.
  int CheckAppPrivilege(const RequestAuthentication& auth);
  bool IsUserEnabled(const RequestAuthentication& auth);
  bool IsFreeze() const;
  bool IsUserHomeEnabled(const std::string& user);
  // The identity of `target_user` as seen by the sync service; only an
  // administrator may act as someone else. 0, or -1 with `result` untouched.
  int SwitchAuth(const RequestAuthentication& auth, const std::string& target_user,
                 RequestAuthentication& result);
  // Closes the databases, forks and reopens them in both processes: the
  // child's number in the parent, 0 in the child, negative on failure.
  int Fork(int flags);

  int InitializeDatabase();
  void DestroyDatabase();
  std::string CreateAndGetSysVolumeTempDirectory();
  static void SetTaskErrDataByItemRc(int item_result, Json::Value& data);

 private:
  // Runs Handle and logs its failure.
  int RunHandle(const RequestAuthentication& auth, BridgeRequest& request, BridgeResponse& response,
                bool elevated);

  std::string sudo_user;
  uint32_t required_database = 0;
  uint32_t opened_databases = 0;
  uint32_t account_option = 3;
  uint32_t required_access_privilege = 3;
  RequestMethod request_method = kRequestMethodWrite;
  uint32_t status_option = 3;
  // Declared and kept, but nothing enforces it: read-only handlers may run in
  // demo mode.
  bool allow_demo_mode = false;
  unsigned version_min = 0;
  unsigned version_max = 0;
  std::string api_class;
  std::string api_method;
  AuthenticationService* authentication_service = nullptr;
};
