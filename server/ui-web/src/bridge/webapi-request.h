// The two classes that connect the handlers' request interface and identity
// to the web-API runtime.
#pragma once

#include "bridge-request.h"

namespace KSTX {
class APIRequest;
class APIResponse;
}  // namespace KSTX

class WebAPIRequest : public BridgeRequest {
 public:
  // An upload request gets its file parameter here, unless it has one.
  explicit WebAPIRequest(KSTX::APIRequest* api_request);

  const Json::Value& GetParamRef(const std::string& name,
                                 const Json::Value& default_value) const override;
  bool HasParam(const std::string& name) const override;
  std::string GetRemoteIP() const override;
  std::string GetUrlProto() const override;
  bool IsPost() const override;
  bool HasValidToken() const override;

  // Puts the upload's form fields under "postParam" and the stored file's path
  // under "postParam"/"file_tmp". A failure is logged and leaves the
  // parameters as they were.
  void GetUploadFile();

 private:
  KSTX::APIRequest* api_request;
};

class WebAPIAuthenticationService : public AuthenticationService {
 public:
  WebAPIAuthenticationService(KSTX::APIRequest* request, KSTX::APIResponse* response)
      : api_request(request), api_response(response) {}

  // Copies the identity the runtime established (the account's standing is
  // the directory's of this request); never fails.
  int Authenticate(RequestAuthentication& auth, BridgeRequest& request,
                   BridgeResponse& response) override;

 private:
  KSTX::APIRequest* api_request;
  KSTX::APIResponse* api_response;
};
