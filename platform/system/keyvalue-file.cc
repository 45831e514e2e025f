#include "keyvalue-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace tpsys {
namespace {

std::string Trim(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  const auto end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

// "key=value" or "key="value""; false for comments and other lines.
bool ParseLine(const std::string& raw, std::string& key, std::string& value) {
  const std::string line = Trim(raw);
  if (line.empty() || line[0] == '#') return false;
  const auto eq = line.find('=');
  if (eq == std::string::npos || eq == 0) return false;
  key = Trim(line.substr(0, eq));
  value = Trim(line.substr(eq + 1));
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    value = value.substr(1, value.size() - 2);
  }
  return !key.empty();
}

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::string& out) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::string data;
  char buffer[8192];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int saved = errno;
      close(fd);
      errno = saved;
      return false;
    }
    if (n == 0) break;
    data.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  out.swap(data);
  return true;
}

bool ReadKeyValues(const std::string& path, std::map<std::string, std::string>& out) {
  std::string content;
  if (!ReadWholeFile(path, content)) return false;
  std::istringstream in(content);
  std::string line, key, value;
  while (std::getline(in, line)) {
    if (ParseLine(line, key, value)) out[key] = value;
  }
  return true;
}

int WriteFileAtomically(const std::string& path, const std::string& content, int mode) {
  std::error_code ec;
  const std::filesystem::path target(path);
  if (target.has_parent_path()) std::filesystem::create_directories(target.parent_path(), ec);
  std::string temp = path + ".XXXXXX";
  const int fd = mkstemp(temp.data());
  if (fd < 0) return -1;
  const bool ok =
      fchmod(fd, static_cast<mode_t>(mode)) == 0 && WriteAll(fd, content) && fsync(fd) == 0;
  if (close(fd) != 0 || !ok || rename(temp.c_str(), path.c_str()) != 0) {
    unlink(temp.c_str());
    return -1;
  }
  return 0;
}

int SetKeyValues(const std::string& path,
                 const std::vector<std::pair<std::string, std::string>>& values) {
  std::string content;
  int mode = 0644;
  if (ReadWholeFile(path, content)) {
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) mode = static_cast<int>(st.st_mode & 07777);
  } else if (errno != ENOENT) {
    return -1;
  }
  std::vector<bool> written(values.size(), false);
  std::ostringstream out;
  std::istringstream in(content);
  std::string line, key, value;
  while (std::getline(in, line)) {
    bool replaced = false;
    if (ParseLine(line, key, value)) {
      for (size_t i = 0; i < values.size(); ++i) {
        if (values[i].first != key) continue;
        // A key that stood twice keeps only its first line.
        if (!written[i]) out << key << "=\"" << values[i].second << "\"\n";
        written[i] = true;
        replaced = true;
        break;
      }
    }
    if (!replaced) out << line << "\n";
  }
  for (size_t i = 0; i < values.size(); ++i) {
    if (!written[i]) out << values[i].first << "=\"" << values[i].second << "\"\n";
  }
  return WriteFileAtomically(path, out.str(), mode);
}

}  // namespace tpsys
