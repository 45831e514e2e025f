// A request and an identity as the runtime would hand them to the pipeline.
#pragma once

#include "bridge-request.h"

// A POST with the session's token unless told otherwise.
class FakeRequest : public BridgeRequest {
 public:
  explicit FakeRequest(Json::Value params = Json::Value(Json::objectValue), bool post = true,
                       bool token = true)
      : params_(std::move(params)), post_(post), token_(token) {}
  const Json::Value& GetParamRef(const std::string& name,
                                 const Json::Value& default_value) const override {
    return params_.isMember(name) ? params_[name] : default_value;
  }
  bool HasParam(const std::string& name) const override { return params_.isMember(name); }
  std::string GetRemoteIP() const override { return "127.0.0.1"; }
  std::string GetUrlProto() const override { return "http"; }
  bool IsPost() const override { return post_; }
  bool HasValidToken() const override { return token_; }

 private:
  Json::Value params_;
  bool post_;
  bool token_;
};

class FixedIdentity : public AuthenticationService {
 public:
  explicit FixedIdentity(RequestAuthentication auth) : auth_(std::move(auth)) {}
  int Authenticate(RequestAuthentication& auth, BridgeRequest&, BridgeResponse&) override {
    auth = auth_;
    return 0;
  }

 private:
  RequestAuthentication auth_;
};
