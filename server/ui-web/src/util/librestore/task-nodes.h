// The checks a task's request passes before anything is forked: its nodes
// read strictly, each node_id tied to the node of its permanent_id, the
// caller's rights judged on what will really be read, and the passwords of
// encrypted documents.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "db/types.h"
#include "utils.h"

namespace tidepool::restore {

class View;

// The request's `nodes`, each for `view_id`. 0, or -1 with `why` naming
// what is wrong (logged).
int ParseTaskDescs(const Json::Value& nodes, uint64_t default_bound, uint32_t view_id,
                   std::vector<TaskDesc>& out, std::string& why);
// The node each descriptor names, after checking that its node_id is the
// node of its permanent_id: the rights are judged on what is read, never on
// a node picked to pass. 0, or -1 (logged) at the first that is not.
int ResolveClaimedNodes(View& view, const std::vector<TaskDesc>& descs,
                        std::vector<db::Node>& nodes);
// Whether the view's caller (View::GetRights) may have every descriptor's
// node as it is read.
bool MayHaveAll(View& view, const std::vector<TaskDesc>& descs);
// The passwords of a request's `decrypt`: 0, or -1 at a malformed entry
// (logged as "Malformed decrypt_info").
int ParseDecryptMap(const Json::Value& decrypt, DecryptMap& out);

}  // namespace tidepool::restore
