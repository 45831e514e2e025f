#include "task-nodes.h"

#include "logger.h"
#include "rights.h"
#include "view.h"

namespace tidepool::restore {

int ParseTaskDescs(const Json::Value& nodes, uint64_t default_bound, uint32_t view_id,
                   std::vector<TaskDesc>& out, std::string& why) {
  if (!nodes.isArray()) {
    why = "nodes is not an array";
    return -1;
  }
  out.clear();
  out.reserve(nodes.size());
  for (const Json::Value& entry : nodes) {
    TaskDesc desc;
    if (ParseTaskDesc(entry, default_bound, desc, why) < 0) {
      LOG_ERROR("Malformed node (%s): %s\n", why.c_str(), entry.toStyledString().c_str());
      return -1;
    }
    desc.view_id = view_id;
    out.push_back(std::move(desc));
  }
  return 0;
}

int ResolveClaimedNodes(View& view, const std::vector<TaskDesc>& descs,
                        std::vector<db::Node>& nodes) {
  nodes.clear();
  nodes.reserve(descs.size());
  for (const TaskDesc& desc : descs) {
    db::Node claimed, node;
    if (view.GetVif()->QueryNode(desc.node_id, claimed, db::ViewManager::kQueryWithRemoved) != 0 ||
        view.GetVif()->QueryNodeByPermanentId(desc.permanent_id, node,
                                              db::ViewManager::kQueryWithRemoved) < 0 ||
        node.getNodeId() != claimed.getNodeId()) {
      LOG_ERROR("node_id %llu does not name the node of permanent_id %llu\n",
                static_cast<unsigned long long>(desc.node_id),
                static_cast<unsigned long long>(desc.permanent_id));
      return -1;
    }
    nodes.push_back(std::move(node));
  }
  return 0;
}

bool MayHaveAll(View& view, const std::vector<TaskDesc>& descs) {
  for (const TaskDesc& desc : descs) {
    bool allowed = false;
    if (JudgeNode(view, desc.permanent_id, desc.sync_id, desc.ver_ctime_upper_bound, allowed) < 0 ||
        !allowed) {
      LOG_ERROR("No privilege on node %llu\n", static_cast<unsigned long long>(desc.permanent_id));
      return false;
    }
  }
  return true;
}

int ParseDecryptMap(const Json::Value& decrypt, DecryptMap& out) {
  // The entries hold passwords: a message names the entry, never its text.
  if (!decrypt.isArray()) {
    LOG_ERROR("Malformed decrypt_info: not an array\n");
    return -1;
  }
  for (Json::ArrayIndex i = 0; i < decrypt.size(); ++i) {
    const Json::Value& entry = decrypt[i];
    uint64_t id = 0;
    if (!entry.isObject() || !entry["permanent_id"].isString() || !entry["decrypt"].isString() ||
        !ParseNodeId(entry["permanent_id"], id)) {
      LOG_ERROR("Malformed decrypt_info: entry %u\n", static_cast<unsigned>(i));
      return -1;
    }
    out[id] = entry["decrypt"].asString();
  }
  return 0;
}

}  // namespace tidepool::restore
