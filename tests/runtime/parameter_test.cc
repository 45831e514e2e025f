// The typed getters a module's check functions use, the validators, and the
// envelope a caller receives.
#include <gtest/gtest.h>
#include <json/writer.h>

#include <climits>

#include "kstx/request-decoder.h"
#include "kstx/webapi.h"

namespace {

using KSTX::PARAM_OPTIONAL;
using KSTX::PARAM_REQUIRED;

KSTX::APIRequest RequestWith(const std::string& params_json) {
  KSTX::RequestContext ctx;
  EXPECT_TRUE(KSTX::ParseStrictJson(params_json, ctx.params));
  return KSTX::APIRequest(ctx);
}

struct Outcome {
  bool set;
  bool invalid;
};

// Each row: a parameter value (absent when empty) and, per getter, whether
// it is set and invalid.
TEST(TypedGetters, TypeRules) {
  const Outcome ok{true, false}, wrong{true, true}, missing{false, true};
  const struct {
    std::string value;
    Outcome as_int, as_uint, as_ull, as_text, as_bool, as_array;
  } rows[] = {
      {"5", ok, ok, ok, wrong, wrong, wrong},
      {"-5", ok, wrong, wrong, wrong, wrong, wrong},
      {"2147483647", ok, ok, ok, wrong, wrong, wrong},
      {"2147483648", wrong, ok, ok, wrong, wrong, wrong},
      {"4294967296", wrong, wrong, ok, wrong, wrong, wrong},
      {"18446744073709551615", wrong, wrong, ok, wrong, wrong, wrong},
      {"18446744073709551616", wrong, wrong, wrong, wrong, wrong, wrong},  // a real
      {"3.0", wrong, wrong, wrong, wrong, wrong, wrong},
      {"\"5\"", wrong, wrong, wrong, ok, wrong, wrong},
      {"true", wrong, wrong, wrong, wrong, ok, wrong},
      {"null", wrong, wrong, wrong, wrong, wrong, wrong},
      {"[1]", wrong, wrong, wrong, wrong, wrong, ok},
      {"{}", wrong, wrong, wrong, wrong, wrong, wrong},
      {"", missing, missing, missing, missing, missing, missing},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.value.empty() ? "absent" : row.value);
    const auto request = RequestWith(row.value.empty() ? "{}" : "{\"p\":" + row.value + "}");
    const auto check = [](const auto& param, Outcome want) {
      EXPECT_EQ(param.IsSet(), want.set);
      EXPECT_EQ(param.IsInvalid(), want.invalid);
    };
    check(request.GetAndCheckInt("p", PARAM_REQUIRED), row.as_int);
    check(request.GetAndCheckIntegral<unsigned int>("p", PARAM_REQUIRED), row.as_uint);
    check(request.GetAndCheckIntegral<unsigned long long>("p", PARAM_REQUIRED), row.as_ull);
    check(request.GetAndCheckString("p", PARAM_REQUIRED), row.as_text);
    check(request.GetAndCheckBool("p", PARAM_REQUIRED), row.as_bool);
    check(request.GetAndCheckUnitArray("p", PARAM_REQUIRED), row.as_array);
  }
}

TEST(TypedGetters, ValuesDefaultsAndValidators) {
  const auto request = RequestWith(R"({"n":-7,"big":18446744073709551615,"s":"x","b":false})");
  EXPECT_EQ(request.GetAndCheckInt("n", PARAM_REQUIRED).Get(), -7);
  EXPECT_EQ(request.GetAndCheckIntegral<unsigned long long>("big", PARAM_REQUIRED).Get(),
            ULLONG_MAX);
  EXPECT_EQ(request.GetAndCheckString("s", PARAM_REQUIRED).Get(), "x");
  EXPECT_FALSE(request.GetAndCheckBool("b", PARAM_REQUIRED).Get());

  // A default fills a missing optional value only; a given value, even a
  // wrong one, is kept.
  auto absent = request.GetAndCheckInt("none", PARAM_OPTIONAL);
  EXPECT_FALSE(absent.IsInvalid());
  absent.SetDefault(50);
  EXPECT_EQ(absent.Get(), 50);
  auto given = request.GetAndCheckInt("n", PARAM_OPTIONAL);
  given.SetDefault(50);
  EXPECT_EQ(given.Get(), -7);

  // A validator that says no makes a present value invalid.
  auto positive = [](const int& v) { return v > 0; };
  EXPECT_TRUE(request.GetAndCheckInt("n", PARAM_REQUIRED, positive).IsInvalid());
  EXPECT_FALSE(request.GetAndCheckInt("none", PARAM_OPTIONAL, positive).IsInvalid());

  // Elements of arrays and objects.
  const Json::Value element = KSTX::WebAPIUtil::ParseJson(R"({"id":3,"tags":["a"],"o":{}})");
  EXPECT_FALSE(
      KSTX::APIParameterFactoryBasicImpl<int>::FromJson(element, "id", PARAM_REQUIRED).IsInvalid());
  EXPECT_FALSE(
      KSTX::APIParameterFactory::ArrayFromJson(element, "tags", PARAM_REQUIRED).IsInvalid());
  EXPECT_TRUE(KSTX::APIParameterFactory::ArrayFromJson(element, "o", PARAM_REQUIRED).IsInvalid());
  EXPECT_FALSE(KSTX::APIParameterFactory::ObjectFromJson(element, "o", PARAM_REQUIRED).IsInvalid());
  // A bare number is no object to read from.
  EXPECT_TRUE(
      KSTX::APIParameterFactoryBasicImpl<int>::FromJson(Json::Value(3), "id", PARAM_REQUIRED)
          .IsInvalid());

  const Json::Value list = KSTX::WebAPIUtil::ParseJson(R"(["ASC","DESC"])");
  EXPECT_TRUE(
      KSTX::APIValidator::IsBelong(KSTX::APIParameter<std::string>("ASC", true, false), list));
  EXPECT_FALSE(
      KSTX::APIValidator::IsBelong(KSTX::APIParameter<std::string>("asc", true, false), list));
  EXPECT_TRUE(KSTX::APIValidator::IsBetween(KSTX::APIParameter<int>(32, true, false), 0, 32));
  EXPECT_FALSE(KSTX::APIValidator::IsBetween(KSTX::APIParameter<int>(33, true, false), 0, 32));
  EXPECT_FALSE(KSTX::APIValidator::IsBetween(
      KSTX::APIParameter<unsigned long long>(10737418240001ull, true, false), 0,
      10737418240000ull));
  EXPECT_TRUE(KSTX::WebAPIUtil::ParseJson("[1,]").isNull());
  EXPECT_TRUE(KSTX::WebAPIUtil::ParseJson("").isNull());
}

TEST(TypedGetters, InitParam) {
  auto request = RequestWith(R"({"a":1,"b":2})");
  request.InitParam(KSTX::WebAPIUtil::ParseJson(R"({"b":3,"c":4})"), true);
  EXPECT_EQ(request.GetParamRef("a", Json::Value()), 1);
  EXPECT_EQ(request.GetParamRef("b", Json::Value()), 3);
  request.InitParam(KSTX::WebAPIUtil::ParseJson(R"({"postParam":{}})"), false);
  EXPECT_FALSE(request.HasParam("a"));
  EXPECT_TRUE(request.HasParam("postParam"));
  EXPECT_EQ(request.GetParamRef("a", Json::Value("dflt")), "dflt");
}

std::string Compact(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  return Json::writeString(b, v);
}

TEST(Envelope, Forms) {
  KSTX::APIResponse nothing;
  EXPECT_EQ(Compact(nothing.Envelope()), R"({"success":true})");

  KSTX::APIResponse ok;
  ok.SetSuccess(KSTX::WebAPIUtil::ParseJson(R"({"items":[],"total":0})"));
  EXPECT_EQ(Compact(ok.Envelope()), R"({"data":{"items":[],"total":0},"success":true})");

  KSTX::APIResponse null_data;
  null_data.SetSuccess(Json::Value());
  EXPECT_EQ(Compact(null_data.Envelope()), R"({"success":true})");

  KSTX::APIResponse failed;
  failed.SetSuccess(1);
  failed.SetError(120, KSTX::WebAPIUtil::ParseJson(R"({"name":"target","reason":"required"})"));
  EXPECT_EQ(Compact(failed.Envelope()),
            R"({"error":{"code":120,"errors":{"name":"target","reason":"required"}},)"
            R"("success":false})");
  EXPECT_TRUE(failed.IsError());
  EXPECT_EQ(failed.GetErrorCode(), 120);
}

}  // namespace
