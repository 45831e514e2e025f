// What a handler sees of a request: its parameters and the caller's identity.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

class BridgeResponse;

class BridgeRequest {
 public:
  virtual ~BridgeRequest() = default;
  // The parameter, or `default_value` when it is missing.
  virtual const Json::Value& GetParamRef(const std::string& name,
                                         const Json::Value& default_value) const = 0;
  virtual bool HasParam(const std::string& name) const = 0;
  virtual std::string GetRemoteIP() const = 0;
  virtual std::string GetUrlProto() const = 0;
  // An HTTP POST, and whether it carried the session's request token: what a
  // page of another site cannot forge. Calls made from inside a request are
  // trusted and have both.
  virtual bool IsPost() const = 0;
  virtual bool HasValidToken() const = 0;
};

// The caller's identity for the length of the pipeline.
struct RequestAuthentication {
  static constexpr uint32_t kAnonymousUid = 4294967295u;

  std::string user;
  std::string remote_ip;
  std::string url_proto;
  std::string url_host;
  int url_port = 0;
  uint32_t uid = 0;
  bool is_admin = false;
  bool is_root = false;
  bool is_anonymous = false;
  // A record that never passed authentication counts as expired.
  bool is_expired = true;
  bool is_timeout = false;
};

class AuthenticationService {
 public:
  virtual ~AuthenticationService() = default;
  // 0 or more on success, negative on failure.
  virtual int Authenticate(RequestAuthentication& auth, BridgeRequest& request,
                           BridgeResponse& response) = 0;
};
