// The web-API runtime as a module sees it: the request with its typed
// parameter getters, the response, uploads, and the validators used by the
// modules' parameter check functions.
//
// A module is a shared object that exports GetAPITable, GetAPICheckTable and
// Process (see kstx/webapi-module.h). For each request the runtime (entry.cgi)
// decodes the parameters, resolves the caller's session, calls the method's
// check function and then Process.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace KSTX {

enum PARAM_NECESSITY { PARAM_REQUIRED = 0, PARAM_OPTIONAL = 1 };

// The outcome of reading one parameter:
//   missing and required     IsInvalid() true,  IsSet() false
//   present, wrong JSON type IsInvalid() true,  IsSet() true
//   missing and optional     IsInvalid() false, IsSet() false (SetDefault applies)
//   present and right        IsInvalid() false, IsSet() true
template <typename T>
class APIParameter {
 public:
  APIParameter() = default;
  APIParameter(T value, bool is_set, bool is_invalid)
      : value_(std::move(value)), is_set_(is_set), is_invalid_(is_invalid) {}

  bool IsInvalid() const { return is_invalid_; }
  bool IsSet() const { return is_set_; }
  // Supplies the value a handler reads when the parameter was not given; a
  // given value (valid or not) is kept.
  void SetDefault(const T& value) {
    if (!is_set_) value_ = value;
  }
  const T& Get() const { return value_; }

 private:
  T value_{};
  bool is_set_ = false;
  bool is_invalid_ = false;
};

// Optional extra test of a present, well-typed value; false makes it invalid.
template <typename T>
using APIValidatorFunc = bool (*)(const T&);

// Reading typed values out of a JSON object. The type rules are the runtime's
// one place for them: int and unsigned are JSON integers in range, text is a
// JSON string, bool a JSON boolean, arrays and objects their JSON kinds.
template <typename T>
struct APIParameterFactoryBasicImpl {
  static APIParameter<T> FromJson(const Json::Value& object, const std::string& key,
                                  PARAM_NECESSITY necessity,
                                  APIValidatorFunc<T> validator = nullptr);
};

// Instantiated once, in the runtime library.
extern template struct APIParameterFactoryBasicImpl<std::string>;
extern template struct APIParameterFactoryBasicImpl<int>;
extern template struct APIParameterFactoryBasicImpl<unsigned int>;
extern template struct APIParameterFactoryBasicImpl<unsigned long long>;
extern template struct APIParameterFactoryBasicImpl<bool>;
extern template struct APIParameterFactoryBasicImpl<Json::Value>;

struct APIParameterFactory {
  static APIParameter<Json::Value> ArrayFromJson(const Json::Value& object, const std::string& key,
                                                 PARAM_NECESSITY necessity,
                                                 APIValidatorFunc<Json::Value> validator = nullptr);
  static APIParameter<Json::Value> ObjectFromJson(
      const Json::Value& object, const std::string& key, PARAM_NECESSITY necessity,
      APIValidatorFunc<Json::Value> validator = nullptr);
};

struct APIValidator {
  // True when the parameter's value is one of the texts in `list` (a JSON array).
  static bool IsBelong(const APIParameter<std::string>& parameter, const Json::Value& list);
  // Inclusive at both ends.
  static bool IsBetween(const APIParameter<int>& parameter, int low, int high);
  static bool IsBetween(const APIParameter<unsigned long long>& parameter, unsigned long long low,
                        unsigned long long high);
};

struct WebAPIUtil {
  // Parses a JSON text; null for text that is not JSON.
  static Json::Value ParseJson(const std::string& text);
};

// Everything the runtime learned about one HTTP request.
struct RequestContext {
  std::string api;
  std::string method;
  unsigned version = 0;
  Json::Value params = Json::Value(Json::objectValue);
  // For a form value that was read as JSON (a password "1234" became a
  // number), the text it was sent as, by parameter name.
  Json::Value form_text = Json::Value(Json::objectValue);
  std::string login_user;  // empty without a session
  uint32_t login_uid = 4294967295u;
  // Read from the account directory on every request, not kept from the
  // login: a demoted or expired account loses its rights at once.
  bool is_admin = false;
  bool is_expired = false;
  bool is_timeout = false;
  // Requests that change something must be POSTs carrying the session's
  // request token, which a page of another site cannot read; the runtime
  // compares the token, the module decides which methods need it.
  bool is_post = false;
  bool has_valid_token = false;
  std::string remote_ip;
  std::string url_proto;
  std::string url_host;
  int url_port = 0;
  // A multipart request: its form fields and the stored file, if any.
  bool is_upload = false;
  Json::Value upload_fields = Json::Value(Json::objectValue);
  std::string upload_file_path;
};

class APIRequest {
 public:
  explicit APIRequest(RequestContext context);

  std::string GetAPIClass() const { return ctx_.api; }
  std::string GetAPIMethod() const { return ctx_.method; }
  unsigned GetAPIVersion() const { return ctx_.version; }

  std::string GetLoginUserName() const { return ctx_.login_user; }
  uint32_t GetLoginUID() const { return ctx_.login_uid; }
  bool IsAdmin() const { return ctx_.is_admin; }
  bool IsTimeout() const { return ctx_.is_timeout; }
  bool IsExpired() const { return ctx_.is_expired; }
  // An HTTP POST (and every call made through the runner).
  bool IsPost() const { return ctx_.is_post; }
  // The request carried its session's token (X-Tidepool-Token or `_token`).
  bool HasValidToken() const { return ctx_.has_valid_token; }

  std::string GetRemoteIP() const { return ctx_.remote_ip; }
  std::string GetURLProto(const std::string& default_value) const;
  std::string GetURLHost(const std::string& default_value) const;
  int GetURLPort(int default_value) const;

  bool HasParam(const std::string& name) const;
  // The parameter as a JSON value, or `default_value` when it is missing. The
  // reference stays valid until the parameter set is replaced.
  const Json::Value& GetParamRef(const std::string& name, const Json::Value& default_value) const;
  // Replaces the parameter set (merge false) or adds to it (merge true).
  void InitParam(const Json::Value& params, bool merge);
  const Json::Value& GetParams() const { return ctx_.params; }

  bool IsUploadRequest() const { return ctx_.is_upload; }

  APIParameter<std::string> GetAndCheckString(
      const std::string& name, PARAM_NECESSITY necessity,
      APIValidatorFunc<std::string> validator = nullptr) const;
  APIParameter<int> GetAndCheckInt(const std::string& name, PARAM_NECESSITY necessity,
                                   APIValidatorFunc<int> validator = nullptr) const;
  APIParameter<bool> GetAndCheckBool(const std::string& name, PARAM_NECESSITY necessity,
                                     APIValidatorFunc<bool> validator = nullptr) const;
  APIParameter<Json::Value> GetAndCheckUnitArray(
      const std::string& name, PARAM_NECESSITY necessity,
      APIValidatorFunc<Json::Value> validator = nullptr) const;
  // T is unsigned int or unsigned long long.
  template <typename T>
  APIParameter<T> GetAndCheckIntegral(const std::string& name, PARAM_NECESSITY necessity,
                                      APIValidatorFunc<T> validator = nullptr) const {
    return APIParameterFactoryBasicImpl<T>::FromJson(ctx_.params, name, necessity, validator);
  }

  const RequestContext& Context() const { return ctx_; }

 private:
  RequestContext ctx_;
};

class APIResponse {
 public:
  void SetSuccess(const Json::Value& data);
  void SetError(int code, const Json::Value& errors);
  void SetHeader(const std::string& name, const std::string& value);
  // Off: the module writes the whole answer to standard output itself.
  void SetEnableOutput(bool enable) { output_enabled_ = enable; }

  bool IsOutputEnabled() const { return output_enabled_; }
  bool IsError() const { return is_error_; }
  bool IsSet() const { return is_set_; }
  int GetErrorCode() const { return error_code_; }
  const Json::Value& GetData() const { return data_; }
  const Json::Value& GetErrors() const { return errors_; }
  const std::vector<std::pair<std::string, std::string>>& GetHeaders() const { return headers_; }
  // The JSON envelope: {"success":true,"data":...} (no data for null) or
  // {"success":false,"error":{"code":N,"errors":{...}}}.
  Json::Value Envelope() const;

 private:
  bool output_enabled_ = true;
  bool is_set_ = false;
  bool is_error_ = false;
  int error_code_ = 0;
  Json::Value data_;
  Json::Value errors_;
  std::vector<std::pair<std::string, std::string>> headers_;
};

class APIUpload {
 public:
  explicit APIUpload(APIRequest* request) : request_(request) {}
  // Fills params["postParam"] with the upload's form fields. 1 on success.
  int GetUploadParam(Json::Value& params);
  // Fills file["file_tmp"] with the path of the stored file. 1 on success.
  int GetUploadFile(Json::Value& file);

 private:
  APIRequest* request_;
};

}  // namespace KSTX
