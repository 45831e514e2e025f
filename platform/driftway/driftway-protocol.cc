#include "driftway-protocol.h"

#include <json/reader.h>
#include <json/writer.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

int RemoveSocketFile(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return errno == ENOENT ? 0 : -1;
  if (!S_ISSOCK(st.st_mode)) {
    errno = EEXIST;
    return -1;
  }
  // unlink acts on the name itself: had a link taken the socket's place
  // since the lstat, the link would go, never its target.
  if (unlink(path.c_str()) != 0) return errno == ENOENT ? 0 : -1;
  return 1;
}

}  // namespace driftway
