#pragma once

#include <cstddef>
#include <string>

#include "bridge/request-handler.h"

// KSTX.Tidepool get_client_link: asks the update server for the download
// link of the desktop client that fits this server's build and the caller's
// operating system. Works without a login.
class GetClientLinkHandler : public RequestHandler {
 public:
  // The update server used when setting.conf names none.
  static constexpr const char* kDefaultUpdateServer = "https://update.tidepool.example/getUpdate";

  GetClientLinkHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  // Fills `response` with the update server's answer body. 0 or -1.
  int RequestUpdateServer(const std::string& build, const std::string& os, const std::string& arch,
                          const std::string& app, std::string& response);
  // The "url" of the answer's "installer". 0 or -1.
  int GetDownloadLinkFromJSON(const std::string& text, std::string& link);
  // libcurl's write callback: appends to the std::string at `target`.
  static size_t WriteToStream(void* data, size_t size, size_t count, void* target);

  // The client's architecture: "x86_64" for a 64-bit Linux, else "i686".
  static std::string ClientArch(const std::string& os_type, const std::string& platform);
  // The build number of a package version: what follows its first hyphen.
  static std::string BuildNumber(const std::string& version);
  // The update server's query for `app` ("tidepool" or "backup"), with the
  // build and the system percent-encoded; false for any other app.
  static bool UpdateQuery(const std::string& app, const std::string& build, const std::string& os,
                          const std::string& arch, std::string& query);
};
