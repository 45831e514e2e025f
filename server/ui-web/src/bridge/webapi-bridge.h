// The dispatcher of one request: it owns the handlers and the authentication
// service, finds the handler for the request, runs it and turns its response
// into the runtime's answer (or raw output), and removes the response's
// temporary files when it is destroyed.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bridge-response.h"

namespace KSTX {
class APIRequest;
class APIResponse;
}  // namespace KSTX

class AuthenticationService;
class RequestHandler;

class WebAPIBridge {
 public:
  WebAPIBridge(KSTX::APIRequest* request, KSTX::APIResponse* response);
  ~WebAPIBridge();
  WebAPIBridge(const WebAPIBridge&) = delete;
  WebAPIBridge& operator=(const WebAPIBridge&) = delete;

  // Takes ownership; a handler with the same key and version_max replaces
  // (and deletes) the earlier one.
  void AddHandler(RequestHandler* handler);
  RequestHandler* FindHandler() const;
  RequestHandler* FindHandler(const std::string& api_class, const std::string& method,
                              unsigned version) const;
  bool HasHandler(const std::string& api_class, const std::string& method, int version) const;

  // The whole life of a request: 0 or -1.
  int Process();
  void SetResponse(const BridgeResponse& response);
  void HandleAutoRemove();
  void DestroyJobDB();

  // Raw answers, written to standard output by the module itself.
  // The file at `path` under the type its name suggests; HTML, scripts and
  // SVG never go out under their own type. 0, or -1 (logged).
  int SendFile(const std::string& name, const std::string& path, bool force_download);
  // A zip of the contents of the folder `path`, always as an attachment.
  int SendArchive(const std::string& name, const std::string& path, const std::string& codepage);
  // The download options, disposition and ranges lines of a raw answer.
  void PrintDownloadHeader(const std::string& name, bool force_download);
  // True for a folder that holds nothing; false also when it cannot be read.
  bool ArchiveFolderEmpty(const std::string& path);

 private:
  // The error of a raw answer: a header block, and the failure object when
  // the response asks for it.
  void WriteDownloadError(const BridgeResponse& response);
  void WriteDownloadError(int code, const std::string& message, int line, bool as_json);
  // The codepage of the archive's names: the response's, else the user's
  // web settings', else "unicode".
  std::string ArchiveCodepage(const BridgeResponse& response) const;

  std::map<std::string, std::map<unsigned, std::unique_ptr<RequestHandler>>> handlers;
  KSTX::APIRequest* api_request;
  KSTX::APIResponse* api_response;
  std::unique_ptr<AuthenticationService> authentication_service;
  std::vector<std::string> auto_remove_paths;
};
