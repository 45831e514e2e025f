#include "driftway-protocol.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

namespace driftway {

const char* UserControlOp(int operation) {
  switch (operation) {
    case 0:
      return "enable_user";
    case 1:
      return "enable_share";
    case 3:
      return "disable_user";
    case 4:
      return "disable_share";
    default:
      return nullptr;
  }
}

Json::Value ErrorAnswer(int code, const std::string& message) {
  Json::Value answer(Json::objectValue);
  answer["success"] = false;
  answer["error"]["code"] = code;
  answer["error"]["message"] = message;
  return answer;
}

std::string EncodeLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  std::string text = Json::writeString(builder, value);
  text.push_back('\n');
  return text;
}

bool DecodeLine(const std::string& line, Json::Value& out) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(line.data(), line.data() + line.size(), &value, &errors)) return false;
  if (!value.isObject()) return false;
  out = std::move(value);
  return true;
}

}  // namespace driftway
