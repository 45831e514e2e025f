// Settings files are root's; a name that could leave the folder, a link or
// anything but a small regular file reads as no settings.
#include "web-man.h"

#include <fcntl.h>
#include <json/reader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <memory>

#include "fs-beneath.h"

namespace {
constexpr off_t kMaxSettingsBytes = 1 << 20;
}

int WebMan::loadUserJsonSettings(Json::Value& settings) const {
  settings = Json::Value(Json::objectValue);
  if (!fsb::IsPlainName(user_)) return -1;
  const fsb::UniqueFd file(fsb::OpenNoSymlinks(std::string(kSettingsDir) + "/" + user_ + ".json",
                                               O_RDONLY | O_NONBLOCK));
  struct stat st {};
  if (!file.valid() || fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != 0 ||
      st.st_size > kMaxSettingsBytes) {
    return -1;
  }
  std::string text(static_cast<size_t>(st.st_size), '\0');
  size_t have = 0;
  while (have < text.size()) {
    const ssize_t n = read(file.get(), text.data() + have, text.size() - have);
    if (n <= 0) return -1;
    have += static_cast<size_t>(n);
  }
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = 64;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value parsed;
  std::string errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors) ||
        !parsed.isObject()) {
      return -1;
    }
  } catch (const std::exception&) {
    return -1;
  }
  settings = std::move(parsed);
  return 0;
}
