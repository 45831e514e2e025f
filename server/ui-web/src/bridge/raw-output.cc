// Raw answers of the bridge: a file or an archive with its header block, or
// the error form a download expects, all written to standard output by the
// module itself once the runtime's output is off.
//
// Archives are written in this process by libarchive rather than by
// /usr/bin/zip: this platform's zip has neither "-yf" (it writes nothing to
// standard output with it) nor "-cp" (it makes a file named after the
// codepage, as root, in the folder), and the writer in process streams
// faster than the program's pipe (scripts/bench download). Links are stored
// as links, never followed.
#include <dirent.h>
#include <fcntl.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "archive-writer.h"
#include "fs-beneath.h"
#include "http-file-outputer.h"
#include "kstx/webapi.h"
#include "logger.h"
#include "run-as.h"
#include "url-encode.h"
#include "web-man.h"
#include "webapi-bridge.h"

namespace {

constexpr int kArchiverFailed = 117;
constexpr const char* kSettingsKey = "KSTX.UIS.App.PersonalSettings.Instance";

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// What a browser is told a file is: media and PDF keep their type, images
// too unless they are SVG (which carries script), a few text types become
// plain text, and everything else is a download of bytes.
std::string SendType(const std::string& mime) {
  if (Contains(mime, "audio") || Contains(mime, "video") || Contains(mime, "pdf")) return mime;
  if (Contains(mime, "image")) {
    return Contains(mime, "svg+xml") ? "application/octet-stream" : mime;
  }
  for (const char* text : {"text/plain", "text/html", "application/xml", "application/xhtml+xml",
                           "application/x-javascript"}) {
    if (mime == text) return "text/plain";
  }
  return "application/octet-stream";
}

}  // namespace

void WebAPIBridge::WriteDownloadError(const BridgeResponse& response) {
  WriteDownloadError(response.GetErrorCode(), response.GetErrorMessage(), response.GetErrorLine(),
                     response.IsOutputJsonError());
}

void WebAPIBridge::WriteDownloadError(int code, const std::string& message, int line,
                                      bool as_json) {
  if (!as_json) {
    printf("Cache-control: no-store\r\nX-KSTX-WEBAPI-DOWNLOAD-ERROR-CODE: %d\r\n", code);
    printf("Status: 400 Bad Request\r\n\r\n");
  } else {
    Json::Value failure(Json::objectValue);
    failure["success"] = false;
    failure["error"]["code"] = code;
    failure["error"]["errors"]["message"] = message;
    failure["error"]["errors"]["line"] = line;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    printf("Cache-control: no-store\r\nContent-Type: text/plain; charset=\"UTF-8\"\r\n");
    printf("Status: 200 OK\r\n\r\n%s", Json::writeString(writer, failure).c_str());
  }
  fflush(stdout);
}

void WebAPIBridge::PrintDownloadHeader(const std::string& name, bool force_download) {
  const char* disposition = force_download ? "attachment" : "inline";
  printf("X-Download-Options: noopen\r\n");
  if (name.empty()) {
    printf("Content-Disposition: %s\r\n", disposition);
  } else {
    // The plain filename carries the encoded form too: a quote or a line
    // break in a name can never end the header.
    const std::string encoded = UrlEncode(name);
    printf("Content-Disposition: %s; filename=\"%s\"; filename*=utf-8''%s\r\n", disposition,
           encoded.c_str(), encoded.c_str());
  }
  printf("Accept-Ranges: none\r\n");
}

int WebAPIBridge::SendFile(const std::string& name, const std::string& path, bool force_download) {
  std::string type = SendType(HTTPFileOutputer::GetMimeType(name));
  if (force_download || type.empty()) type = "application/octet-stream";
  PrintDownloadHeader(name, force_download);
  IF_RUN_AS(0, 0) {
    signal(SIGPIPE, SIG_IGN);
    if (HTTPFileOutputer::Output(path, type) != 0) {
      LOG_ERROR("fileOutputer: %m\n");
      return -1;
    }
    return 0;
  }
  LOG_ERROR("Fail to switch to root\n");
  return -1;
}

bool WebAPIBridge::ArchiveFolderEmpty(const std::string& path) {
  // Listed through a descriptor opened with no link on the way.
  const int fd = fsb::OpenNoSymlinks(path, O_DIRECTORY | O_RDONLY);
  DIR* dir = fd < 0 ? nullptr : fdopendir(fd);
  if (dir == nullptr) {
    LOG_ERROR("opendir(%s): %s (%d)\n", path.c_str(), strerror(errno), errno);
    if (fd >= 0) close(fd);
    return false;
  }
  bool empty = true;
  while (const dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      empty = false;
      break;
    }
  }
  closedir(dir);
  return empty;
}

int WebAPIBridge::SendArchive(const std::string& name, const std::string& path,
                              const std::string& codepage) {
  IF_RUN_AS(0, 0) {
    if (chdir(path.c_str()) != 0) {
      LOG_ERROR("chdir(%s): %s\n", path.c_str(), strerror(errno));
      return -1;
    }
    tparchive::ArchiveOptions options;
    options.codepage = codepage;
    // The writer needs no special case for an empty folder: it gives a
    // valid archive with no entry.
    const auto writer = tparchive::MakeLibarchiveZipWriter(options);
    if (writer->Start(path) != 0) {
      LOG_ERROR("cannot start the archive of %s: %s\n", path.c_str(), strerror(errno));
      WriteDownloadError(kArchiverFailed, "failed to start archiver", __LINE__, false);
      return -1;
    }
    PrintDownloadHeader(name, true);
    signal(SIGPIPE, SIG_IGN);
    if (HTTPFileOutputer::Output(*writer, "application/octet-stream") != 0) {
      LOG_ERROR("archive of %s not sent: %s\n", path.c_str(), strerror(errno));
      return -1;
    }
    return 0;
  }
  LOG_ERROR("Fail to switch to root\n");
  return -1;
}

std::string WebAPIBridge::ArchiveCodepage(const BridgeResponse& response) const {
  std::string codepage = response.GetArchiveCodepage();
  if (codepage.empty()) {
    Json::Value settings;
    if (WebMan(api_request->GetLoginUserName()).loadUserJsonSettings(settings) == 0) {
      const Json::Value& personal = settings[kSettingsKey];
      if (personal.isObject() && personal["codepage"].isString()) {
        codepage = personal["codepage"].asString();
      }
    }
  }
  return codepage.empty() ? "unicode" : codepage;
}
