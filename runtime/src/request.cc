// The request and response objects handed to a module.
#include "kstx/webapi.h"

namespace KSTX {

APIRequest::APIRequest(RequestContext context) : ctx_(std::move(context)) {
  if (!ctx_.params.isObject()) ctx_.params = Json::Value(Json::objectValue);
}

std::string APIRequest::GetURLProto(const std::string& default_value) const {
  return ctx_.url_proto.empty() ? default_value : ctx_.url_proto;
}

std::string APIRequest::GetURLHost(const std::string& default_value) const {
  return ctx_.url_host.empty() ? default_value : ctx_.url_host;
}

int APIRequest::GetURLPort(int default_value) const {
  return ctx_.url_port > 0 ? ctx_.url_port : default_value;
}

bool APIRequest::HasParam(const std::string& name) const {
  return ctx_.params.find(name.data(), name.data() + name.size()) != nullptr;
}

const Json::Value& APIRequest::GetParamRef(const std::string& name,
                                           const Json::Value& default_value) const {
  const Json::Value* found = ctx_.params.find(name.data(), name.data() + name.size());
  return found != nullptr ? *found : default_value;
}

void APIRequest::InitParam(const Json::Value& params, bool merge) {
  if (!merge) {
    ctx_.params = params.isObject() ? params : Json::Value(Json::objectValue);
    return;
  }
  if (!params.isObject()) return;
  for (auto it = params.begin(); it != params.end(); ++it) ctx_.params[it.name()] = *it;
}

APIParameter<std::string> APIRequest::GetAndCheckString(
    const std::string& name, PARAM_NECESSITY necessity,
    APIValidatorFunc<std::string> validator) const {
  return APIParameterFactoryBasicImpl<std::string>::FromJson(ctx_.params, name, necessity,
                                                             validator);
}

APIParameter<int> APIRequest::GetAndCheckInt(const std::string& name, PARAM_NECESSITY necessity,
                                             APIValidatorFunc<int> validator) const {
  return APIParameterFactoryBasicImpl<int>::FromJson(ctx_.params, name, necessity, validator);
}

APIParameter<bool> APIRequest::GetAndCheckBool(const std::string& name, PARAM_NECESSITY necessity,
                                               APIValidatorFunc<bool> validator) const {
  return APIParameterFactoryBasicImpl<bool>::FromJson(ctx_.params, name, necessity, validator);
}

APIParameter<Json::Value> APIRequest::GetAndCheckUnitArray(
    const std::string& name, PARAM_NECESSITY necessity,
    APIValidatorFunc<Json::Value> validator) const {
  return APIParameterFactory::ArrayFromJson(ctx_.params, name, necessity, validator);
}

void APIResponse::SetSuccess(const Json::Value& data) {
  is_set_ = true;
  is_error_ = false;
  error_code_ = 0;
  data_ = data;
  errors_ = Json::Value();
}

void APIResponse::SetError(int code, const Json::Value& errors) {
  is_set_ = true;
  is_error_ = true;
  error_code_ = code;
  errors_ = errors;
  data_ = Json::Value();
}

void APIResponse::SetHeader(const std::string& name, const std::string& value) {
  headers_.emplace_back(name, value);
}

Json::Value APIResponse::Envelope() const {
  Json::Value envelope(Json::objectValue);
  if (is_error_) {
    envelope["success"] = false;
    Json::Value& error = envelope["error"];
    error["code"] = error_code_;
    error["errors"] = errors_.isNull() ? Json::Value(Json::objectValue) : errors_;
    return envelope;
  }
  envelope["success"] = true;
  if (!data_.isNull()) envelope["data"] = data_;
  return envelope;
}

int APIUpload::GetUploadParam(Json::Value& params) {
  if (request_ == nullptr || !request_->IsUploadRequest()) return -1;
  params["postParam"] = request_->Context().upload_fields;
  return 1;
}

int APIUpload::GetUploadFile(Json::Value& file) {
  if (request_ == nullptr || !request_->IsUploadRequest()) return -1;
  const std::string& path = request_->Context().upload_file_path;
  if (path.empty()) return -2;  // a multipart form without a file part
  file["file_tmp"] = path;
  return 1;
}

}  // namespace KSTX
