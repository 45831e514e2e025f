// The typed parameter getters: the one place that says which JSON value
// counts as an int, an unsigned, a text, a bool, an array or an object.
#include <json/reader.h>

#include <cctype>
#include <climits>
#include <cstring>
#include <memory>

#include "kstx/request-decoder.h"
#include "kstx/webapi.h"

namespace KSTX {
namespace {

// Only values written as integers count: 3.0 arrives as a real and is not an
// int, so that a handler never sees a silently truncated number.
bool IsIntegerKind(const Json::Value& v) {
  return v.type() == Json::intValue || v.type() == Json::uintValue;
}

bool Extract(const Json::Value& v, int& out) {
  if (!IsIntegerKind(v) || !v.isInt()) return false;
  out = v.asInt();
  return true;
}

bool Extract(const Json::Value& v, unsigned int& out) {
  if (!IsIntegerKind(v) || !v.isUInt()) return false;
  out = v.asUInt();
  return true;
}

bool Extract(const Json::Value& v, unsigned long long& out) {
  if (!IsIntegerKind(v) || !v.isUInt64()) return false;
  out = v.asUInt64();
  return true;
}

bool Extract(const Json::Value& v, std::string& out) {
  if (!v.isString()) return false;
  out = v.asString();
  return true;
}

bool Extract(const Json::Value& v, bool& out) {
  if (!v.isBool()) return false;
  out = v.asBool();
  return true;
}

// The untyped getter: any present value will do.
bool Extract(const Json::Value& v, Json::Value& out) {
  out = v;
  return true;
}

template <typename T, typename Check>
APIParameter<T> Read(const Json::Value& object, const std::string& key, PARAM_NECESSITY necessity,
                     APIValidatorFunc<T> validator, Check check) {
  const Json::Value* found =
      object.isObject() ? object.find(key.data(), key.data() + key.size()) : nullptr;
  if (found == nullptr) return APIParameter<T>(T{}, false, necessity == PARAM_REQUIRED);
  T value{};
  if (!check(*found, value)) return APIParameter<T>(T{}, true, true);
  const bool valid = validator == nullptr || validator(value);
  return APIParameter<T>(std::move(value), true, !valid);
}

}  // namespace

template <typename T>
APIParameter<T> APIParameterFactoryBasicImpl<T>::FromJson(const Json::Value& object,
                                                          const std::string& key,
                                                          PARAM_NECESSITY necessity,
                                                          APIValidatorFunc<T> validator) {
  return Read<T>(object, key, necessity, validator,
                 [](const Json::Value& v, T& out) { return Extract(v, out); });
}

template struct APIParameterFactoryBasicImpl<std::string>;
template struct APIParameterFactoryBasicImpl<int>;
template struct APIParameterFactoryBasicImpl<unsigned int>;
template struct APIParameterFactoryBasicImpl<unsigned long long>;
template struct APIParameterFactoryBasicImpl<bool>;
template struct APIParameterFactoryBasicImpl<Json::Value>;

APIParameter<Json::Value> APIParameterFactory::ArrayFromJson(
    const Json::Value& object, const std::string& key, PARAM_NECESSITY necessity,
    APIValidatorFunc<Json::Value> validator) {
  return Read<Json::Value>(object, key, necessity, validator,
                           [](const Json::Value& v, Json::Value& out) {
                             if (!v.isArray()) return false;
                             out = v;
                             return true;
                           });
}

APIParameter<Json::Value> APIParameterFactory::ObjectFromJson(
    const Json::Value& object, const std::string& key, PARAM_NECESSITY necessity,
    APIValidatorFunc<Json::Value> validator) {
  return Read<Json::Value>(object, key, necessity, validator,
                           [](const Json::Value& v, Json::Value& out) {
                             if (!v.isObject()) return false;
                             out = v;
                             return true;
                           });
}

bool APIValidator::IsBelong(const APIParameter<std::string>& parameter, const Json::Value& list) {
  if (!list.isArray()) return false;
  for (const Json::Value& item : list) {
    if (item.isString() && item.asString() == parameter.Get()) return true;
  }
  return false;
}

bool APIValidator::IsBetween(const APIParameter<int>& parameter, int low, int high) {
  return low <= parameter.Get() && parameter.Get() <= high;
}

bool APIValidator::IsBetween(const APIParameter<unsigned long long>& parameter,
                             unsigned long long low, unsigned long long high) {
  return low <= parameter.Get() && parameter.Get() <= high;
}

namespace {

// jsoncpp's reader is lenient even in its strictest settings (it takes
// "0123", a lone "-" and comments), so a text must first pass this check of
// the JSON grammar; the reader then only builds the value.
class JsonGrammar {
 public:
  explicit JsonGrammar(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

  bool Check() {
    SkipSpace();
    if (!Value(0)) return false;
    SkipSpace();
    return p_ == end_;
  }

 private:
  static constexpr int kMaxDepth = 64;

  void SkipSpace() {
    while (p_ < end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) ++p_;
  }
  bool Literal(std::string_view word) {
    if (static_cast<std::size_t>(end_ - p_) < word.size() ||
        std::string_view(p_, word.size()) != word) {
      return false;
    }
    p_ += word.size();
    return true;
  }
  bool Digits() {
    const char* start = p_;
    while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
    return p_ > start;
  }
  bool Number() {
    if (p_ < end_ && *p_ == '-') ++p_;
    if (p_ < end_ && *p_ == '0') {
      ++p_;
    } else if (!Digits()) {
      return false;
    }
    if (p_ < end_ && *p_ == '.') {
      ++p_;
      if (!Digits()) return false;
    }
    if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
      ++p_;
      if (p_ < end_ && (*p_ == '+' || *p_ == '-')) ++p_;
      if (!Digits()) return false;
    }
    return true;
  }
  bool String() {
    ++p_;  // the opening quote
    while (p_ < end_) {
      const unsigned char c = static_cast<unsigned char>(*p_++);
      if (c == '"') return true;
      if (c < 0x20) return false;
      if (c != '\\') continue;
      if (p_ >= end_) return false;
      const char e = *p_++;
      if (e == 'u') {
        for (int i = 0; i < 4; ++i, ++p_) {
          if (p_ >= end_ || !std::isxdigit(static_cast<unsigned char>(*p_))) return false;
        }
      } else if (std::strchr("\"\\/bfnrt", e) == nullptr || e == '\0') {
        return false;
      }
    }
    return false;
  }
  bool Value(int depth) {
    if (p_ >= end_) return false;
    switch (*p_) {
      case '{':
      case '[':
        return depth < kMaxDepth && Container(depth + 1);
      case '"':
        return String();
      case 't':
        return Literal("true");
      case 'f':
        return Literal("false");
      case 'n':
        return Literal("null");
      default:
        return Number();
    }
  }
  bool Container(int depth) {
    const bool object = *p_++ == '{';
    const char close = object ? '}' : ']';
    SkipSpace();
    if (p_ < end_ && *p_ == close) {
      ++p_;
      return true;
    }
    for (;;) {
      if (object) {
        if (p_ >= end_ || *p_ != '"' || !String()) return false;
        SkipSpace();
        if (p_ >= end_ || *p_++ != ':') return false;
        SkipSpace();
      }
      if (!Value(depth)) return false;
      SkipSpace();
      if (p_ >= end_) return false;
      const char c = *p_++;
      if (c == close) return true;
      if (c != ',') return false;
      SkipSpace();
    }
  }

  const char* p_;
  const char* end_;
};

Json::CharReader* StrictJsonReader() {
  // One reader for the process: building one costs more than most parses.
  static const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    Json::Value& s = builder.settings_;
    s["allowComments"] = false;
    s["allowTrailingCommas"] = false;
    s["strictRoot"] = false;  // a bare number or text is a value too
    s["allowDroppedNullPlaceholders"] = false;
    s["allowNumericKeys"] = false;
    s["allowSingleQuotes"] = false;
    s["stackLimit"] = 64 + 2;  // the grammar check holds the real limit
    s["failIfExtra"] = true;
    s["rejectDupKeys"] = true;
    s["allowSpecialFloats"] = false;
    s["skipBom"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  return reader.get();
}

}  // namespace

bool ParseStrictJson(std::string_view text, Json::Value& out) {
  if (!JsonGrammar(text).Check()) return false;
  try {
    return StrictJsonReader()->parse(text.data(), text.data() + text.size(), &out, nullptr);
  } catch (const std::exception&) {
    return false;  // jsoncpp throws past its stack limit
  }
}

Json::Value WebAPIUtil::ParseJson(const std::string& text) {
  Json::Value value;
  if (!ParseStrictJson(text, value)) return Json::Value();
  return value;
}

}  // namespace KSTX
