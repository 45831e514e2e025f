#include "get-directory-service-status.h"

#include <list>

#include "bridge/run-as.h"
#include "cache-ipc.h"
#include "logger.h"
#include "sdk.h"

namespace {

Json::Value Entry(const std::string& name, const char* type) {
  Json::Value entry(Json::objectValue);
  entry["display"] = name;
  entry["value"] = name;
  entry["type"] = type;
  return entry;
}

}  // namespace

GetDirectoryServiceStatusHandler::GetDirectoryServiceStatusHandler() {
  SetRequiredDatabase(1);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(1);
  SetStatusOption(3);
  SetAllowDemoMode(true);
  SetRequestMethod(kRequestMethodRead);
  SetAPI("KSTX.Tidepool", "get_directory_service_status", 0, 0);
}

int GetDirectoryServiceStatusHandler::Handle(const RequestAuthentication&, BridgeRequest&,
                                             BridgeResponse& response) {
  bool domain_enabled = false;
  bool ldap_enabled = false;
  IF_RUN_AS(0, 0) {
    domain_enabled = SDK::DomainService().IsServiceEnabled();
    ldap_enabled = SDK::LDAPService().IsServiceEnabled();
  }
  else {
    LOG_ERROR("Fail to run as root\n");
    return RESPONSE_FAIL(response, 401, "failed to run as root");
  }
  Json::Value names(Json::arrayValue);
  if (domain_enabled) {
    std::list<std::string> domains;
    if (CacheIPC::GetInstance()->ListDomainName(domains) < 0) {
      LOG_ERROR("Get domain name list fail\n");
      return RESPONSE_FAIL(response, 401, "cache ipc failed");
    }
    for (const std::string& domain : domains) names.append(Entry(domain, "domain"));
  }
  if (ldap_enabled) {
    std::string ldap_domain;
    IF_RUN_AS(0, 0) { ldap_domain = SDK::LDAPService().GetDomainName(); }
    else {
      LOG_ERROR("Fail to run as root\n");
      return RESPONSE_FAIL(response, 401, "failed to run as root");
    }
    if (ldap_domain.empty()) {
      LOG_ERROR("Get LDAP domain name fail\n");
      return RESPONSE_FAIL(response, 401, "failed to get LDAP domain name");
    }
    names.append(Entry(ldap_domain, "ldap"));
  }
  Json::Value data(Json::objectValue);
  data["domain_names"] = names;
  response.SetJsonResponse(data);
  return 0;
}
