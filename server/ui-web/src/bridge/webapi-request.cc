#include "webapi-request.h"

#include <kstx/webapi.h>

#include "logger.h"

WebAPIRequest::WebAPIRequest(KSTX::APIRequest* request) : api_request(request) {
  if (api_request->IsUploadRequest() && !HasParam("file_tmp")) GetUploadFile();
}

const Json::Value& WebAPIRequest::GetParamRef(const std::string& name,
                                              const Json::Value& default_value) const {
  return api_request->GetParamRef(name, default_value);
}

bool WebAPIRequest::HasParam(const std::string& name) const { return api_request->HasParam(name); }

std::string WebAPIRequest::GetRemoteIP() const { return api_request->GetRemoteIP(); }

std::string WebAPIRequest::GetUrlProto() const { return api_request->GetURLProto("http"); }

bool WebAPIRequest::IsPost() const { return api_request->IsPost(); }

bool WebAPIRequest::HasValidToken() const { return api_request->HasValidToken(); }

void WebAPIRequest::GetUploadFile() {
  Json::Value file(Json::objectValue);
  Json::Value params(Json::objectValue);
  KSTX::APIUpload upload(api_request);
  int result = upload.GetUploadParam(params);
  if (result != 1) {
    LOG_ERROR("Failed to get upload params, err: [%d]\n", result);
    return;
  }
  result = upload.GetUploadFile(file);
  if (result != 1) {
    LOG_ERROR("Failed to get upload file, err: [%d]\n", result);
    return;
  }
  params["postParam"]["file_tmp"] = file.isMember("file_tmp") ? file["file_tmp"] : Json::Value("");
  api_request->InitParam(params, false);
}

int WebAPIAuthenticationService::Authenticate(RequestAuthentication& auth, BridgeRequest&,
                                              BridgeResponse&) {
  auth.user = api_request->GetLoginUserName();
  auth.uid = api_request->GetLoginUID();
  auth.url_proto = api_request->GetURLProto("http");
  auth.url_host = api_request->GetURLHost("");
  auth.url_port = api_request->GetURLPort(0);
  auth.remote_ip = api_request->GetRemoteIP();
  auth.is_admin = api_request->IsAdmin();
  auth.is_root = auth.uid == 0;
  auth.is_anonymous = auth.uid == RequestAuthentication::kAnonymousUid || auth.user == "anonymous";
  auth.is_expired = api_request->IsExpired();
  auth.is_timeout = api_request->IsTimeout();
  if (auth.remote_ip.empty()) auth.remote_ip = "127.0.0.1";
  if (auth.url_host.empty()) auth.url_host = "localhost";
  if (auth.is_anonymous) auth.user = "anonymous";
  return 0;
}
