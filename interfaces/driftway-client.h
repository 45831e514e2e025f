// Client of the running sync service over its control socket
// ("unix:/tmp/driftway-syncservice"). One request a call, a JSON object a line
// each way.
#pragma once

#include <cstdint>
#include <string>

namespace Json {
class Value;
}

class Driftway {
 public:
  struct UserInfo {
    std::string name;
    uint32_t uid = 0;
    bool is_admin = false;
  };

  void SetSSL(bool enable, bool verify, const std::string& ca, const std::string& cert);
  void SetServer(const std::string& address, int port);  // "unix:<path>"
  void SetUser(const std::string& user, const std::string& password, const std::string& token);
  void SetSudoUser(const std::string& user);
  void SetServerVersion(int version);
  void SetTimeout(int seconds);

  // Who the acting user is, or, with a sudo user set, who that user is: only
  // an administrator may act as someone else. 0 or negative.
  int QueryUser(UserInfo& out, bool with_admin_flag);
  // Service status: {"status": "...", "pid": N}.
  int QueryStatus(Json::Value& out);
  // Sends one request object and reads the answer object; 0 or negative.
  int Call(const Json::Value& request, Json::Value& answer);

  int GetLastError() const { return last_error_; }
  std::string GetLastErrorMessage() const { return last_error_message_; }

 private:
  int Fail(int code, const std::string& message);

  std::string socket_path_ = "/tmp/driftway-syncservice";
  std::string user_;
  std::string sudo_user_;
  int server_version_ = 0;
  int timeout_seconds_ = 30;
  int last_error_ = 0;
  std::string last_error_message_;
};

// A control request to the running sync service: 0 enable a user, 1 enable a
// share, 3 disable a user, 4 disable a share. `id` is the user's uid or 0.
// 0 or more on success, negative on failure (also when the service is down).
int SendUserControl(int operation, const std::string& name, unsigned int id, int rotate_cnt,
                    const std::string& rotate_policy, int rotate_days);

// Tells the running sync service that profiles changed, so that their rules
// apply from its next pass on. 0 or more on success, negative on failure
// (also when the service is down).
int ServiceReloadProfile();
