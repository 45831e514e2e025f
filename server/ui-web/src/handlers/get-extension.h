#pragma once

#include <json/value.h>

#include "bridge/request-handler.h"

struct BlackListFilter;

// KSTX.Tidepool get_extension: what the file manager's extension must know of
// the service: the black list's rules, whether the caller's home and the
// caller are enabled, and which shares are synced. It runs for anybody and
// always succeeds, with whatever it could gather.
class GetExtensionHandler : public RequestHandler {
 public:
  GetExtensionHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  // Pushes the caller's application privilege to the sync service, which
  // enables or disables the caller to match it.
  void SyncAppPrivilegeWithDatabase(const RequestAuthentication& auth);

  // The black list as the extension reads it: the objects "common", "file",
  // "dir" and "ea".
  static Json::Value RulesToJson(const BlackListFilter& filter);
};
