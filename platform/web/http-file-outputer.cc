// Bodies of raw answers go to standard output, which under the web server is
// a pipe to it. The pipe is widened first, so that a big body moves in few
// large steps; a file is handed over with sendfile (no copy through this
// process), a stream with splice when it is a pipe too.
#include "http-file-outputer.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <vector>

#include "archive-writer.h"
#include "fs-beneath.h"

namespace {

constexpr const char* kMimeTypes = "/etc/mime.types";
constexpr int kPipeBytes = 1 << 20;
constexpr size_t kChunk = 1 << 20;

// The few types that matter when the system has no mime.types.
struct Fallback {
  const char* ext;
  const char* type;
};
constexpr Fallback kFallback[] = {
    {"txt", "text/plain"},
    {"html", "text/html"},
    {"htm", "text/html"},
    {"xml", "application/xml"},
    {"xhtml", "application/xhtml+xml"},
    {"js", "text/javascript"},
    {"svg", "image/svg+xml"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"pdf", "application/pdf"},
    {"mp3", "audio/mpeg"},
    {"mp4", "video/mp4"},
};

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

void WidenPipe(int fd) {
  struct stat st {};
  if (fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode)) (void)fcntl(fd, F_SETPIPE_SZ, kPipeBytes);
}

int WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

// Ends the header block with the type (and the length when known).
int WriteTypeHeader(const std::string& type, long long length) {
  if (length >= 0) {
    printf("Content-Type: %s\r\nContent-Length: %lld\r\n\r\n", type.c_str(), length);
  } else {
    printf("Content-Type: %s\r\n\r\n", type.c_str());
  }
  if (fflush(stdout) != 0) return -1;
  WidenPipe(STDOUT_FILENO);
  return 0;
}

int CopyFd(int in, int out) {
  struct stat in_st {
  }, out_st{};
  const bool pipes = fstat(in, &in_st) == 0 && fstat(out, &out_st) == 0 &&
                     S_ISFIFO(in_st.st_mode) && S_ISFIFO(out_st.st_mode);
  if (pipes) {
    for (;;) {
      const ssize_t n = splice(in, nullptr, out, nullptr, kChunk, SPLICE_F_MOVE | SPLICE_F_MORE);
      if (n == 0) return 0;
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == EINVAL) break;  // not spliceable after all: copy
        return -1;
      }
    }
  }
  std::vector<char> buffer(kChunk);
  for (;;) {
    const ssize_t n = read(in, buffer.data(), buffer.size());
    if (n == 0) return 0;
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (WriteAll(out, buffer.data(), static_cast<size_t>(n)) < 0) return -1;
  }
}

}  // namespace

std::string HTTPFileOutputer::GetMimeType(const std::string& name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot + 1 >= name.size()) return "";
  const std::string ext = Lower(name.substr(dot + 1));
  std::ifstream table(kMimeTypes);
  if (!table) {
    for (const Fallback& entry : kFallback) {
      if (ext == entry.ext) return entry.type;
    }
    return "";
  }
  // "type ext ext ...", '#' starts a comment.
  std::string line;
  while (std::getline(table, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string type, word;
    if (!(words >> type)) continue;
    while (words >> word) {
      if (Lower(word) == ext) return type;
    }
  }
  return "";
}

int HTTPFileOutputer::Output(const std::string& path, const std::string& type) {
  const fsb::UniqueFd file(fsb::OpenNoSymlinks(path, O_RDONLY | O_NONBLOCK));
  struct stat st {};
  if (!file.valid() || fstat(file.get(), &st) != 0) return -1;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  if (WriteTypeHeader(type, static_cast<long long>(st.st_size)) < 0) return -1;
  off_t offset = 0;
  while (offset < st.st_size) {
    const size_t want = static_cast<size_t>(std::min<off_t>(st.st_size - offset, 1 << 30));
    const ssize_t n = sendfile(STDOUT_FILENO, file.get(), &offset, want);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EINVAL || errno == ENOSYS)) {
      // An output sendfile cannot feed: copy the rest.
      if (lseek(file.get(), offset, SEEK_SET) < 0) return -1;
      return CopyFd(file.get(), STDOUT_FILENO);
    }
    if (n < 0) return -1;
    if (n == 0) break;  // the file shrank under us; the length already went out
  }
  return 0;
}

int HTTPFileOutputer::Output(FILE* stream, const std::string& /*name*/, const std::string& type) {
  if (stream == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (WriteTypeHeader(type, -1) < 0) return -1;
  return CopyFd(fileno(stream), STDOUT_FILENO);
}

int HTTPFileOutputer::Output(tparchive::ArchiveWriter& writer, const std::string& type) {
  if (WriteTypeHeader(type, -1) < 0) return -1;
  return writer.Stream(STDOUT_FILENO);
}
