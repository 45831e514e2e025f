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

 private:
  void WriteDownloadError(const BridgeResponse& response);

  std::map<std::string, std::map<unsigned, std::unique_ptr<RequestHandler>>> handlers;
  KSTX::APIRequest* api_request;
  KSTX::APIResponse* api_response;
  std::unique_ptr<AuthenticationService> authentication_service;
  std::vector<std::string> auto_remove_paths;
};
