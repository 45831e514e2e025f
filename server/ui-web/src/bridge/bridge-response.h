// The one result object of a request: a handler fills it, the bridge turns it
// into the answer.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

class BridgeResponse {
 public:
  enum ResponseType { kJson = 0, kFile = 1, kArchive = 2 };

  struct CookieOptions {
    std::string path;
  };

  void SetType(ResponseType type) { type_ = type; }
  void SetOutputJsonError(bool value) { output_json_error_ = value; }
  // Stores code, message and the source line of the call; a later call
  // overwrites an earlier one. The type is left as it is.
  void SetError(int code, const std::string& message, int line);
  void SetJsonResponse(const Json::Value& value);
  void SetHeader(const std::string& name, const std::string& value);
  void SetCookie(const std::string& name, const std::string& value, const CookieOptions& options);
  void SetCookie(const std::string& name, const std::string& value);
  void AddAutoRemovePath(const std::string& path);
  // The codepage is accepted and dropped on purpose: the archive's codepage
  // always comes from the user's settings when the answer is written.
  void SetArchiveResponse(const std::string& name, const std::string& path,
                          const std::string& codepage, bool auto_remove);
  void SetFileResponse(const std::string& name, const std::string& path, bool force_download,
                       bool auto_remove);

  ResponseType GetType() const { return type_; }
  bool IsForceDownload() const { return force_download_; }
  bool IsOutputJsonError() const { return output_json_error_; }
  bool IsErrorSet() const { return error_code_ != 0; }
  int GetErrorCode() const { return error_code_; }
  const std::string& GetErrorMessage() const { return error_message_; }
  int GetErrorLine() const { return error_line_; }
  const std::vector<std::pair<std::string, std::string>>& GetHeaders() const { return headers_; }
  bool IsAutoRemove() const { return !auto_remove_paths_.empty(); }
  const std::vector<std::string>& GetAutoRemovePaths() const { return auto_remove_paths_; }
  const std::string& GetArchiveName() const { return archive_name_; }
  const std::string& GetArchivePath() const { return archive_path_; }
  const std::string& GetArchiveCodepage() const { return archive_codepage_; }
  const std::string& GetFileName() const { return file_name_; }
  const std::string& GetFilePath() const { return file_path_; }
  const Json::Value& GetJsonObject() const { return json_; }

 private:
  ResponseType type_ = kJson;
  int error_code_ = 0;
  std::string error_message_;
  int error_line_ = -1;
  std::string archive_name_;
  std::string archive_path_;
  std::string archive_codepage_;
  std::string file_name_;
  std::string file_path_;
  bool force_download_ = true;
  bool output_json_error_ = false;
  std::vector<std::string> auto_remove_paths_;
  Json::Value json_;
  std::vector<std::pair<std::string, std::string>> headers_;
};

// Sets the error with this line and yields -1, so that a failing path cannot
// return without telling the caller why.
#define RESPONSE_FAIL(response, code, message) \
  ((response).SetError((code), (message), __LINE__), -1)
