#include "get-client-link.h"

#include <json/reader.h>

#include <cctype>

#include "hlibc.h"
#include "logger.h"
#include "sync-service.h"
#include "url-encode.h"
#include "util/config-file.h"
#include "util/lazy-curl.h"

namespace {

constexpr const char* kInfoPath = "/var/packages/Tidepool/INFO";
// A silent update server must not hold a request, and with it a web server
// process, for ever: the whole exchange gets this long. A product decision:
// the client link is a convenience, never worth a hung page.
constexpr long kTimeoutSeconds = 10;
// A loop of redirects ends here rather than at the time-out.
constexpr long kMaxRedirects = 5;
// An update document is a few hundred bytes; anything past this is not one.
constexpr size_t kMaxAnswerBytes = 1 << 20;

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

GetClientLinkHandler::GetClientLinkHandler() {
  SetRequiredDatabase(0);
  SetAccountOption(0);
  SetRequiredAccessPrivilege(0);
  SetStatusOption(0);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool", "get_client_link", 0, 0);
}

std::string GetClientLinkHandler::ClientArch(const std::string& os_type,
                                             const std::string& platform) {
  // Case sensitive on purpose: clients send "Linux" as they always have.
  if (os_type.find("Linux") != std::string::npos) {
    return platform.find("64") != std::string::npos ? "x86_64" : "i686";
  }
  return "i686";
}

std::string GetClientLinkHandler::BuildNumber(const std::string& version) {
  const size_t hyphen = version.find('-');
  return hyphen == std::string::npos ? version : version.substr(hyphen + 1);
}

bool GetClientLinkHandler::UpdateQuery(const std::string& app, const std::string& build,
                                       const std::string& os, const std::string& arch,
                                       std::string& query) {
  const char* identify = nullptr;
  if (app == "tidepool") identify = "TidepoolClient";
  if (app == "backup") identify = "DriftwayBackup";
  if (identify == nullptr) return false;
  // The client names its system: encoded, so that it stays one value.
  query = std::string("identify=") + identify + "&type=installer&server=" + UrlEncode(build) +
          "&os=" + UrlEncode(os) + "&arch=" + arch;
  return true;
}

int GetClientLinkHandler::Handle(const RequestAuthentication&, BridgeRequest& request,
                                 BridgeResponse& response) {
  const std::string os_type = request.GetParamRef("os_type", "").asString();
  const std::string platform = request.GetParamRef("platform", "").asString();
  const std::string app = request.GetParamRef("app", "").asString();
  const std::string arch = ClientArch(os_type, platform);
  const std::string os = Lower(os_type);

  char version[30] = {};
  if (HLIBCFileGetKeyValue(kInfoPath, "version", version, sizeof version) < 1) {
    LOG_ERROR("Cannot find version from INFO file");
    return RESPONSE_FAIL(response, 404, "cannot find version");
  }
  std::string answer;
  if (RequestUpdateServer(BuildNumber(version), os, arch, app, answer) < 0) {
    return RESPONSE_FAIL(response, 404, "failed to reach update server");
  }
  std::string link;
  if (GetDownloadLinkFromJSON(answer, link) < 0) {
    return RESPONSE_FAIL(response, 404, "failed to get download link");
  }
  Json::Value data(Json::objectValue);
  data["download_link"] = link;
  response.SetJsonResponse(data);
  return 0;
}

size_t GetClientLinkHandler::WriteToStream(void* data, size_t size, size_t count, void* target) {
  auto* text = static_cast<std::string*>(target);
  const size_t bytes = size * count;
  // Returning less than was given makes libcurl fail the transfer.
  if (text->size() + bytes > kMaxAnswerBytes) return 0;
  text->append(static_cast<const char*>(data), bytes);
  return bytes;
}

int GetClientLinkHandler::RequestUpdateServer(const std::string& build, const std::string& os,
                                              const std::string& arch, const std::string& app,
                                              std::string& response) {
  const lazy_curl::Api* curl_api = lazy_curl::Get();
  if (curl_api == nullptr) return -1;
  curl_api->global_init(CURL_GLOBAL_ALL);
  CURL* curl = curl_api->easy_init();
  if (curl == nullptr) {
    // Reported later, as an answer that does not parse.
    curl_api->global_cleanup();
    return 0;
  }
  auto cleanup = [curl, curl_api] {
    curl_api->easy_cleanup(curl);
    curl_api->global_cleanup();
  };
  // A missing or malformed settings file means the built-in server.
  Config config;
  (void)config.read(SyncConfigMgr::kPath);
  std::string url = config.Get("update_server");
  if (url.empty()) url = kDefaultUpdateServer;

  std::string query;
  if (!UpdateQuery(app, build, os, arch, query)) {
    LOG_ERROR("RequestUpdateServer: unknown app type %s\n", app.c_str());
    cleanup();
    return -1;
  }
  const std::string address = url + "?" + query;
  LOG_DEBUG("query update server '%s'\n", address.c_str());
  curl_api->easy_setopt(curl, CURLOPT_URL, address.c_str());
  curl_api->easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteToStream);
  curl_api->easy_setopt(curl, CURLOPT_WRITEDATA, &response);
  curl_api->easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_api->easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_api->easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_api->easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_api->easy_setopt(curl, CURLOPT_TIMEOUT, kTimeoutSeconds);
  curl_api->easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  const CURLcode rc = curl_api->easy_perform(curl);
  if (rc != CURLE_OK) {
    LOG_ERROR("curl_ezsy_perform() failed: %s\n", curl_api->easy_strerror(rc));
    cleanup();
    return -1;
  }
  cleanup();
  return 0;
}

int GetClientLinkHandler::GetDownloadLinkFromJSON(const std::string& text, std::string& link) {
  Json::Value value;
  if (!Json::Reader().parse(text, value, true)) {
    LOG_ERROR("fail to parse installer info from update server.\n");
    return -1;
  }
  // Only an object can hold an installer; anything else, or an installer
  // that is not an object, is no update document.
  const Json::Value* installer =
      value.isObject() ? value.find("installer", "installer" + 9) : nullptr;
  if (installer == nullptr || !installer->isObject()) {
    LOG_ERROR("can't find installer info\n");
    return -1;
  }
  const Json::Value& url = (*installer)["url"];
  if (!url.isNull() && !url.isString()) {
    LOG_ERROR("can't find installer info\n");
    return -1;
  }
  // An installer without a link answers an empty one.
  link = url.isString() ? url.asString() : std::string();
  return 0;
}
