#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "bridge/request-handler.h"
#include "db/log.h"

// KSTX.Tidepool.Log list: a page of the activity log, newest first. An
// administrator sees every record; anyone else the records of their own
// home and their own doings. Arguments that would lead to a file the caller
// may not open (node ids, link flags) are blanked before a record leaves.
class LogListHandler : public RequestHandler {
 public:
  LogListHandler();
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;
};

namespace log_list {

// What the caller is, for shaping records.
struct Viewer {
  bool is_admin = false;    // the caller's own record, not the role taken on
  uint64_t own_view = 0;    // the view of the home whose records are "own"
  bool ldap_homes = false;  // directory home services that give links
  bool domain_homes = false;
};

// The JSON object of one record as `viewer` may see it.
Json::Value BuildRecord(const db::Log& log, const Viewer& viewer);

// The front-end's path to the folder that holds an owner's synced files:
// "/<share>" for a share, the user's home for a home; "" when unknown.
std::string LinkPrefix(bool is_admin, uint32_t share_type, const std::string& name);

}  // namespace log_list
