// The check table as the runtime reads it: one row for every method the
// module serves, closed by a row of zeros.
#include <gtest/gtest.h>
#include <kstx/webapi-module.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "check-functions.h"
#include "schema-test-util.h"

namespace {

using Pair = std::pair<std::string, std::string>;

// The methods of the module, by API.
const std::vector<std::pair<std::string, std::vector<std::string>>> kServedMethods = {
    {"KSTX.Tidepool",
     {"get_status", "get_directory_service_status", "get_client_link", "check_user",
      "get_extension", "delete_database", "resume_freeze"}},
    {"KSTX.Tidepool.Node", {"list", "list_parent", "list_version", "activity", "dry_run"}},
    {"KSTX.Tidepool.Node.Restore", {"start", "status", "finish"}},
    {"KSTX.Tidepool.Node.Download", {"start", "status", "stop", "finish"}},
    {"KSTX.Tidepool.Node.Delete", {"start", "status"}},
    {"KSTX.Tidepool.Profile", {"list", "set", "delete"}},
    {"KSTX.Tidepool.Share", {"list_active", "list", "set"}},
    {"KSTX.Tidepool.Log", {"list", "delete", "export"}},
    {"KSTX.Tidepool.Config", {"get", "set"}},
    {"KSTX.Tidepool.Connection", {"list", "delete"}},
    {"KSTX.Tidepool.Privilege", {"list", "set", "status"}},
    {"KSTX.Tidepool.DBUsage", {"start", "status", "stop", "get"}},
    {"KSTX.Tidepool.KeyManagement", {"list", "get", "set", "delete", "export", "import"}},
};

// The methods that take no parameters (or test them in the handler).
const std::vector<Pair> kWithoutSchema = {
    {"KSTX.Tidepool", "resume_freeze"},        {"KSTX.Tidepool", "get_directory_service_status"},
    {"KSTX.Tidepool", "get_status"},           {"KSTX.Tidepool", "delete_database"},
    {"KSTX.Tidepool", "check_user"},           {"KSTX.Tidepool", "get_extension"},
    {"KSTX.Tidepool.Node.Restore", "status"},  {"KSTX.Tidepool.Node.Restore", "finish"},
    {"KSTX.Tidepool.Node.Download", "status"}, {"KSTX.Tidepool.Node.Download", "stop"},
    {"KSTX.Tidepool.Node.Delete", "status"},   {"KSTX.Tidepool.Profile", "list"},
    {"KSTX.Tidepool.Share", "list_active"},    {"KSTX.Tidepool.Log", "delete"},
    {"KSTX.Tidepool.Config", "get"},           {"KSTX.Tidepool.Privilege", "status"},
    {"KSTX.Tidepool.DBUsage", "status"},       {"KSTX.Tidepool.DBUsage", "start"},
    {"KSTX.Tidepool.DBUsage", "stop"},         {"KSTX.Tidepool.DBUsage", "get"},
    {"KSTX.Tidepool.KeyManagement", "export"},
};

TEST(CheckTable, HasOneRowPerServedMethodAndEndsWithZeros) {
  const KSTXAPICheckTableRow* table = GetAPICheckTable();
  ASSERT_EQ(table, gCheckTable);

  std::set<Pair> expected;
  for (const auto& [api, methods] : kServedMethods) {
    for (const auto& method : methods) expected.insert({api, method});
  }
  ASSERT_EQ(expected.size(), 47u);

  std::multiset<Pair> rows;
  const KSTXAPICheckTableRow* row = table;
  for (; row->api != nullptr; ++row) {
    ASSERT_NE(row->method, nullptr);
    SCOPED_TRACE(std::string(row->api) + "." + row->method);
    EXPECT_EQ(row->version, 1u);
    EXPECT_NE(row->check, nullptr);
    EXPECT_EQ(row->reserved1, nullptr);
    EXPECT_EQ(row->reserved2, nullptr);
    rows.insert({row->api, row->method});
  }
  EXPECT_EQ(row->version, 0u);
  EXPECT_EQ(row->method, nullptr);
  EXPECT_EQ(row->check, nullptr);
  EXPECT_EQ(row->reserved1, nullptr);
  EXPECT_EQ(row->reserved2, nullptr);

  EXPECT_EQ(rows.size(), 47u);  // no pair twice
  EXPECT_EQ(std::set<Pair>(rows.begin(), rows.end()), expected);
}

// Whatever the request carries, a method without a schema is let through
// untouched; its handler judges the parameters itself.
TEST(CheckTable, MethodsWithoutSchemaLetEverythingThrough) {
  const char* hostile = R"({"offset":"x","nodes":1,"target":[],"sort_by":"nonsense","id":-1})";
  for (const auto& [api, method] : kWithoutSchema) {
    for (const char* params : {"{}", hostile}) {
      SCOPED_TRACE(api + "." + method + " " + params);
      const schematest::Outcome outcome = schematest::RunCheck(api, method, params);
      ASSERT_TRUE(outcome.found);
      EXPECT_TRUE(outcome.passed);
      EXPECT_FALSE(outcome.error_set);
    }
  }
}

}  // namespace
