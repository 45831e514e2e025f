// What a caller is told when the parameters of a method are refused: code 120
// with the parameter's name and the reason, or nothing when they pass.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "schema-test-util.h"

namespace {

struct Case {
  const char* api;  // after "KSTX.Tidepool", e.g. ".Node"; "" for the service itself
  const char* method;
  const char* params;
  const char* name;  // the refused parameter; nullptr when the request passes
  const char* reason;
};

constexpr const char* kPass = nullptr;

void Expect(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    const std::string api = std::string("KSTX.Tidepool") + c.api;
    SCOPED_TRACE(api + "." + c.method + " " + c.params);
    const schematest::Outcome outcome = schematest::RunCheck(api, c.method, c.params);
    ASSERT_TRUE(outcome.found);
    if (c.name == kPass) {
      EXPECT_TRUE(outcome.passed);
      EXPECT_FALSE(outcome.error_set);
      continue;
    }
    EXPECT_FALSE(outcome.passed);
    EXPECT_TRUE(outcome.error_set);
    EXPECT_EQ(outcome.code, 120);
    Json::Value expected(Json::objectValue);
    expected["name"] = c.name;
    expected["reason"] = c.reason;
    EXPECT_EQ(outcome.errors, expected) << outcome.errors.toStyledString();
  }
}

TEST(ParameterCheck, MissingRequiredParameters) {
  Expect({
      {"", "get_client_link", "{}", "app", "required"},
      {"", "get_client_link", R"({"app":"x","platform":"x86"})", "os_type", "required"},
      {"", "get_client_link", R"({"app":"x","os_type":"linux","platform":"x86"})", kPass, ""},
      {".Node", "list_parent", R"({"target":"@docs"})", "node_id", "required"},
      {".Node", "activity", R"({"target":"","start_date":1,"end_date":2,"interval":3})",
       "tz_offset", "required"},
      {".Node", "activity",
       R"({"target":"","start_date":1,"end_date":2,"interval":3,"tz_offset":-60})", kPass, ""},
      {".Node.Download", "finish", R"({"nodes":[]})", "task_id", "required"},
      {".Log", "list", R"({"share_type":"all"})", "target", "required"},
      {".Log", "export", R"({"target":"@docs"})", "type", "required"},
      {".Connection", "delete", R"({"client_sess_id":["a"]})", "data_wipe", "required"},
      {".KeyManagement", "set", R"({"id":3,"username":"alice"})", "key", "required"},
      {".KeyManagement", "import", "{}", "upload_key", "required"},
      // Optional parameters may all be left out.
      {".Node", "list", "{}", kPass, ""},
      {".Privilege", "list", "{}", kPass, ""},
  });
}

TEST(ParameterCheck, WrongTypes) {
  Expect({
      {".Node", "list", R"({"offset":"10"})", "offset", "type"},
      {".Node", "list", R"({"recursive":"yes"})", "recursive", "type"},
      {".Node", "list", R"({"node_id":-1})", "node_id", "type"},
      {".Node", "list", R"({"ver_file_size_lower_bound":1.5})", "ver_file_size_lower_bound",
       "type"},
      {".Node", "list", R"({"node_id":18446744073709551615,"list_remove":false})", kPass, ""},
      // A node is a number in list_parent and a text in list_version.
      {".Node", "list_parent", R"({"target":"@docs","node_id":"12"})", "node_id", "type"},
      {".Node", "list_parent", R"({"target":"@docs","node_id":12})", kPass, ""},
      {".Node", "list_version", R"({"target":"@docs","node_id":12})", "node_id", "type"},
      {".Node", "list_version", R"({"target":"@docs","node_id":"12"})", kPass, ""},
      {".Node", "dry_run", R"({"target":"@docs","nodes":{"node_id":"1"}})", "nodes", "type"},
      {".Config", "set",
       R"({"db_volume":"/volume2","use_del_by_cnt":true,"del_cnt":"5","use_del_by_span":false,"del_span":30})",
       "del_cnt", "type"},
      {".Config", "set",
       R"({"db_volume":"/volume2","use_del_by_cnt":true,"del_cnt":5,"use_del_by_span":false,"del_span":30})",
       kPass, ""},
      {".KeyManagement", "get", R"({"id":-1})", "id", "type"},
      {".KeyManagement", "get", R"({"id":7})", kPass, ""},
      {".Privilege", "list", R"({"additional":"yes"})", "additional", "type"},
  });
}

TEST(ParameterCheck, WordsOutsideTheVocabulary) {
  Expect({
      {".Node", "list", R"({"sort_by":"size"})", "sort_by", "condition"},
      {".Node", "list", R"({"sort_direction":"desc"})", "sort_direction", "condition"},
      {".Node", "list", R"({"sort_by":"v_file_size","sort_direction":"ASC"})", kPass, ""},
      {".Share", "list", R"({"sort_by":"name"})", "sort_by", "condition"},
      {".Log", "list", R"({"target":"","share_type":"x"})", "share_type", "condition"},
      {".Log", "list", R"({"target":"","share_type":"home"})", kPass, ""},
      {".Connection", "list", R"({"sort_by":"client_location"})", kPass, ""},
      {".Connection", "list", R"({"sort_by":"uid"})", "sort_by", "condition"},
      {".Privilege", "list", R"({"auth_type":"nis"})", "auth_type", "condition"},
      {".Privilege", "list", R"({"auth_type":"ldap","additional":["x",1]})", kPass, ""},
      {".KeyManagement", "list", R"({"sort_by":"key"})", "sort_by", "condition"},
      // Only parameters that were given are tested: the lower-case default
      // direction of Share.list passes, the same word given explicitly does not.
      {".Share", "list", "{}", kPass, ""},
      {".Share", "list", R"({"sort_direction":"asc"})", "sort_direction", "condition"},
  });
}

TEST(ParameterCheck, ArrayElementsRefuseTheWholeArray) {
  Expect({
      {".Node", "dry_run", R"({"target":"@docs","nodes":[1]})", "nodes", "type"},
      {".Node", "dry_run", R"({"target":"@docs","nodes":[{"node_id":5}]})", "nodes", "type"},
      {".Node", "dry_run",
       R"({"target":"@docs","nodes":[{"node_id":"5","name":"a","path":"/a","file_type":1,"is_removed":false}]})",
       kPass, ""},
      {".Node", "dry_run", R"({"target":"@docs","nodes":[]})", kPass, ""},
      {".Node.Download", "start", R"({"target":"","nodes":[{"path":"/a"},{"is_removed":1}]})",
       "nodes", "type"},
      // Keys an element test does not know are left alone; a restore knows sync_id.
      {".Node.Download", "finish", R"({"task_id":4,"nodes":[{"sync_id":5}]})", kPass, ""},
      {".Node.Restore", "start", R"({"target":"","nodes":[{"sync_id":5}]})", "nodes", "type"},
      {".Node.Restore", "start", R"({"target":"","nodes":[{"sync_id":"5"}],"copy_to":"/x"})", kPass,
       ""},
      {".Node.Delete", "start", R"({"fileinfo":["12"]})", "fileinfo", "type"},
      {".Profile", "delete", R"({"id":[1,"2"]})", "id", "type"},
      {".Profile", "delete", R"({"id":[1.5]})", "id", "type"},
      {".Profile", "delete", R"({"id":[1,2]})", kPass, ""},
      {".KeyManagement", "delete", R"({"ids":[{}]})", "ids", "type"},
      {".Connection", "delete", R"({"client_sess_id":["a",1],"data_wipe":true})", "client_sess_id",
       "type"},
      {".Privilege", "set",
       R"({"auth_type":"local","batch_mode":"","user_list":[{"name":"alice","enable":"1"}]})",
       "user_list", "type"},
      {".Privilege", "set",
       R"({"auth_type":"local","batch_mode":"","user_list":[{"name":"alice","enable":true}]})",
       kPass, ""},
  });
}

TEST(ParameterCheck, NestedObjectsAndRanges) {
  Expect({
      {".Share", "set", R"({"share":[{"share_name":"docs","rotate_cnt":32}]})", kPass, ""},
      {".Share", "set", R"({"share":[{"share_name":"docs","rotate_cnt":0}]})", kPass, ""},
      {".Share", "set", R"({"share":[{"rotate_cnt":1},{"rotate_cnt":33}]})", "share", "type"},
      {".Share", "set", R"({"share":[{"rotate_cnt":-1}]})", "share", "type"},
      {".Share", "set", R"({"share":[{"share_enable":"true"}]})", "share", "type"},
      {".Profile", "set",
       R"({"profiles":[{"profile_id":1,"profile_name":"p","profile_desc":{"filtered_max_upload_size":10737418240000,"filtered_names":["a"]},"profile_applied":[{"name":"alice"}]}]})",
       kPass, ""},
      {".Profile", "set",
       R"({"profiles":[{"profile_desc":{"filtered_max_upload_size":10737418240001}}]})", "profiles",
       "type"},
      {".Profile", "set", R"({"profiles":[{"profile_desc":"none"}]})", "profiles", "type"},
      {".Profile", "set", R"({"profiles":[{"profile_desc":{"user_defined_extensions":[".a",2]}}]})",
       "profiles", "type"},
      {".Profile", "set", R"({"profiles":[{"profile_applied":["alice"]}]})", "profiles", "type"},
      {".Profile", "set", R"({"profiles":[{}]})", kPass, ""},
  });
}

TEST(ParameterCheck, FirstFaultInOrderIsReported) {
  Expect({
      // Presence and type of every parameter come first, in table order.
      {".Node", "activity", "{}", "target", "required"},
      {".Config", "set", R"({"use_del_by_cnt":"x"})", "db_volume", "required"},
      {".Config", "set", R"({"db_volume":1,"del_cnt":"x"})", "db_volume", "type"},
      {".Node", "list", R"({"sort_by":"size","path":3})", "path", "type"},
      {".Node.Restore", "start", R"({"target":"","nodes":[1],"override":"no"})", "override",
       "type"},
      // Then the conditions, in table order.
      {".Node", "list", R"({"sort_direction":"up","sort_by":"size"})", "sort_by", "condition"},
      // Log.list tests the elements of log_type before the word of share_type.
      {".Log", "list", R"({"target":"","share_type":"x","log_type":["1"]})", "log_type", "type"},
      {".Log", "list", R"({"target":"","share_type":"x","log_type":[1]})", "share_type",
       "condition"},
      {".Log", "list", R"({"target":"","share_type":"all","log_type":[1,22],"limit":5})", kPass,
       ""},
  });
}

}  // namespace
