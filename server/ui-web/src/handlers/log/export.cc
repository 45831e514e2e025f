// Log export, in order: check the parameters, read the first page of the
// log (so that a failing search answers before anything is made), make a
// private folder under the system volume's @tmp, write the CSV there page by
// page, hand the file to the response for sending and removal, and log the
// export.
//
// The file is what one pass over the whole table would give: a header line,
// then one line per record in the log's newest-first order, every value
// quoted with inner quotes doubled, an absent column as an empty cell, and
// "Additional" as compact JSON, so that it never holds a line break.
#include "export.h"

#include <fcntl.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <sstream>
#include <vector>

#include "bridge/run-as.h"
#include "db/log-types.h"
#include "fs-beneath.h"
#include "logger.h"
#include "util/webapi-util.h"

namespace {

constexpr const char* kFileName = "export.csv";
constexpr size_t kWriteBuffer = 1 << 18;

// Records read per query: memory stays flat however long the log is.
constexpr int kPageSize = 5000;

// "2024-01-31T10:00:01Z". Records of one day share their date, so gmtime
// runs once a day of records, not once a record.
std::string IsoTime(uint32_t seconds) {
  static uint32_t cached_day = UINT32_MAX;
  static char date[16];
  const uint32_t day = seconds / 86400;
  if (day != cached_day) {
    const time_t t = seconds;
    struct tm tm {};
    if (gmtime_r(&t, &tm) == nullptr || strftime(date, sizeof date, "%Y-%m-%dT", &tm) == 0) {
      return "";
    }
    cached_day = day;
  }
  const uint32_t in_day = seconds % 86400;
  const unsigned h = in_day / 3600, m = in_day / 60 % 60, sec = in_day % 60;
  std::string out(date);
  const char clock[] = {char('0' + h / 10),   char('0' + h % 10),   ':',
                        char('0' + m / 10),   char('0' + m % 10),   ':',
                        char('0' + sec / 10), char('0' + sec % 10), 'Z'};
  out.append(clock, sizeof clock);
  return out;
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string ParentFolder(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

// Stored records come from several writers: a missing argument leaves its
// column out rather than failing the export.
class Args {
 public:
  explicit Args(const std::vector<std::string>& values) : values_(values) {}
  bool Has(size_t n) const { return n >= 1 && n <= values_.size(); }
  std::string operator()(size_t n) const { return Has(n) ? values_[n - 1] : std::string(); }

 private:
  const std::vector<std::string>& values_;
};

void Quote(const std::string& value, std::string& out) {
  out += '"';
  size_t from = 0;
  for (size_t quote; (quote = value.find('"', from)) != std::string::npos; from = quote + 1) {
    out.append(value, from, quote + 1 - from);
    out += '"';
  }
  out.append(value, from, std::string::npos);
  out += '"';
}

}  // namespace

LogExportHandler::LogExportHandler() {
  SetRequiredDatabase(kUserDatabase | kLogDatabase);
  SetAccountOption(3);
  SetRequiredAccessPrivilege(kAccessAdmin);
  SetStatusOption(3);
  SetAllowDemoMode(false);
  SetRequestMethod(kRequestMethodWrite);
  SetAPI("KSTX.Tidepool.Log", "export", 0, 0);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  json_writer_.reset(builder.newStreamWriter());
}

LogExportHandler::~LogExportHandler() = default;

int LogExportHandler::Handle(const RequestAuthentication& auth, BridgeRequest& request,
                             BridgeResponse& response) {
  response.SetType(BridgeResponse::kFile);
  response.SetOutputJsonError(false);
  if (ParseParams(auth, request, response) < 0 || Execute(response) < 0 ||
      FormOutput(response) < 0) {
    return -1;
  }
  InsertExportLog(auth);
  return 0;
}

int LogExportHandler::ParseParams(const RequestAuthentication& auth, BridgeRequest& request,
                                  BridgeResponse& response) {
  const Json::Value& type = request.GetParamRef("type", Json::Value());
  if (!type.isString() || type.asString() != "csv") {
    return RESPONSE_FAIL(response, 401, "type invalid");
  }
  const Json::Value& target = request.GetParamRef("target", Json::Value());
  if (target.isString() && !target.asString().empty()) {
    if (GetDatabaseViewId(auth, response, "@" + target.asString(), filter_.view_id, true) < 0) {
      LOG_ERROR("Failed to get view_id\n");
      return RESPONSE_FAIL(response, 401, "failed to get view id");
    }
  }
  return 0;
}

int LogExportHandler::Execute(BridgeResponse& response) {
  filter_.is_admin = true;
  if (db::LogManager::SearchLogPage(filter_, cursor_, kPageSize, page_) < 0) {
    LOG_ERROR("Failed to search log\n");
    return RESPONSE_FAIL(response, 401, "failed to search log");
  }
  return 0;
}

int LogExportHandler::FormOutput(BridgeResponse& response) {
  const std::string tmp = CreateAndGetSysVolumeTempDirectory();
  IF_RUN_AS(0, 0) {
    std::string folder;
    if (MakePrivateTempFolder(tmp, folder) < 0) {
      return RESPONSE_FAIL(response, 401, "failed to open temp file");
    }
    const std::string path = folder + "/" + kFileName;
    const fsb::UniqueFd dir(fsb::OpenNoSymlinks(folder, O_DIRECTORY | O_RDONLY));
    const int fd = dir.valid() ? openat(dir.get(), kFileName,
                                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)
                               : -1;
    FILE* out = fd < 0 ? nullptr : fdopen(fd, "w");
    if (out == nullptr) {
      LOG_ERROR("open(%s): %s (%d)\n", path.c_str(), strerror(errno), errno);
      if (fd >= 0) close(fd);
      (void)fsb::RemovePathNoSymlinks(folder);
      return RESPONSE_FAIL(response, 401, "failed to open temp file");
    }
    std::vector<char> buffer(kWriteBuffer);
    setvbuf(out, buffer.data(), _IOFBF, buffer.size());
    bool search_failed = false;
    const bool written = OutputAsCSV(out, search_failed);
    const bool closed = fclose(out) == 0;
    if (!written || !closed) {
      // The folder and what it holds, with no link on the way followed.
      (void)fsb::RemovePathNoSymlinks(folder);
      if (search_failed) return RESPONSE_FAIL(response, 401, "failed to search log");
      LOG_ERROR("write(%s): %s (%d)\n", path.c_str(), strerror(errno), errno);
      return RESPONSE_FAIL(response, 401, "failed to output as csv");
    }
    // The file goes first: the folder can only be removed once it is empty.
    response.SetFileResponse(kFileName, path, true, true);
    response.AddAutoRemovePath(folder);
    return 0;
  }
  LOG_ERROR("Failed to run as root\n");
  return RESPONSE_FAIL(response, 401, "failed to open temp file");
}

void LogExportHandler::InsertExportLog(const RequestAuthentication& auth) {
  db::Log log;
  log.setType(db::kLogExport);
  InsertLogs(auth.user, auth.uid, {log});
}

const char* const LogExportHandler::kColumnNames[kColumns] = {
    "Date Time",    "Operator",      "Action",      "Related Path",
    "Related User", "Related Share", "Device Name", "Additional"};

std::string LogExportHandler::GetRelatedPath(const std::string& path, const db::Log& log) {
  if (log.getShareType() == db::kShareTypeShare) return "/" + log.getShareName() + path;
  return "/homes/" + log.getShareName() + "/Tidepool" + path;
}

bool LogExportHandler::ConvertLogToRow(const db::Log& log, Row& row) {
  const uint32_t type = log.getType();
  if (type == db::kLogHidden) return false;
  const Args p(log.getPArg());
  const Args s(log.getSArg());
  row.present = 0;
  row.additional = Json::Value();
  row.Set(kDateTime, IsoTime(log.getTime()));
  row.Set(kOperator, log.getUserName().empty() ? "system" : log.getUserName());
  row.Set(log.getShareType() == db::kShareTypeShare ? kRelatedShare : kRelatedUser,
          log.getShareName());

  auto set = [&](Column column, const Args& args, size_t n) {
    if (args.Has(n)) row.Set(column, args(n));
  };
  auto set_path = [&](Column column, size_t n) {
    if (s.Has(n)) row.Set(column, GetRelatedPath(s(n), log));
  };
  auto set_extra = [&](const char* key, const std::string& value) { row.additional[key] = value; };
  const bool on = p(1) == "1";

  switch (type) {
    case db::kLogServiceStartStop:
      row.Set(kAction, on ? "Start service" : "Stop service");
      break;
    case db::kLogShareEnable:
      row.Set(kAction, on ? "Enable share" : "Disable share");
      set(kRelatedShare, s, 1);
      break;
    case db::kLogClientUnlink:
      row.Set(kAction, "Client unlink");
      set(kRelatedUser, s, 1);
      set(kDevice, s, 2);
      break;
    case db::kLogRestore:
      row.Set(kAction, "Restore version");
      set_path(kRelatedPath, 1);
      break;
    case db::kLogPathPurge:
      row.Set(kAction, "Delete all versions");
      set_path(kRelatedPath, 1);
      break;
    case db::kLogFilterPurge:
      row.Set(kAction, "Delete all versions");
      row.Set(kRelatedPath, GetRelatedPath("/", log));
      if (s.Has(1)) set_extra("filter", s(1));
      break;
    case db::kLogRotateCountSet:
      row.Set(kAction, "Rotate version count");
      set_extra("count", p(1));
      set(kRelatedShare, s, 1);
      break;
    case db::kLogDbVolumeChange:
      row.Set(kAction, "Database volume location");
      set_extra("old", p(1));
      set_extra("new", p(2));
      break;
    case db::kLogDelCountSet:
    case db::kLogDelSpanSet:
      // Both carry their number under "count", the span too.
      row.Set(kAction,
              std::string(type == db::kLogDelCountSet ? "Log rotate count " : "Log rotate span ") +
                  (on ? "enable" : "disable"));
      if (on) set_extra("count", p(2));
      break;
    case db::kLogDeleteAll:
      row.Set(kAction, "Log delete");
      break;
    case db::kLogClientLink:
      row.Set(kAction, "Client link");
      set(kDevice, s, 1);
      break;
    case db::kLogNodeAdd:
    case db::kLogNodeRemove:
    case db::kLogNodeModify:
      row.Set(kAction, type == db::kLogNodeAdd      ? "Add"
                       : type == db::kLogNodeRemove ? "Remove"
                                                    : "Modify");
      set_path(kRelatedPath, 1);
      set(kDevice, s, 2);
      break;
    case db::kLogVersionRotate:
      row.Set(kAction, "Version rotate");
      set_path(kRelatedPath, 1);
      break;
    case db::kLogNodeMove:
      // S1 is the new path, S2 the old one: the same name elsewhere is a move.
      if (BaseName(s(1)) == BaseName(s(2))) {
        row.Set(kAction, "Move");
        set_extra("move_to", GetRelatedPath(ParentFolder(s(1)), log));
      } else {
        row.Set(kAction, "Rename");
        set_extra("old_name", BaseName(s(2)));
        set_extra("new_name", BaseName(s(1)));
      }
      set_path(kRelatedPath, 2);
      set(kDevice, s, 3);
      break;
    case db::kLogNodeCopy:
    case db::kLogRestoreCopy:
      row.Set(kAction, type == db::kLogNodeCopy ? "Copy" : "Restore copy");
      set_path(kRelatedPath, 2);
      if (s.Has(1))
        set_extra(type == db::kLogNodeCopy ? "copy_to" : "restore_to", GetRelatedPath(s(1), log));
      set(kDevice, s, 3);
      break;
    case db::kLogRecycleDelete:
      row.Set(kAction, "Delete from recycle bin");
      set_path(kRelatedPath, 1);
      break;
    case db::kLogRecycleRestore:
      row.Set(kAction, "Restore from recycle bin");
      set_path(kRelatedPath, 1);
      break;
    case db::kLogExport:
      row.Set(kAction, "Export logs");
      break;
    default:
      break;  // a code this module does not know: who, when and where only
  }
  return true;
}

bool LogExportHandler::OutputAsCSV(FILE* out, bool& search_failed) {
  line_.clear();
  for (int i = 0; i < kColumns; ++i) {
    if (i > 0) line_ += ',';
    Quote(kColumnNames[i], line_);
  }
  line_ += '\n';
  if (fwrite(line_.data(), 1, line_.size(), out) != line_.size()) return false;
  for (;;) {
    for (const db::Log& log : page_) {
      if (ConvertLogToRow(log, row_)) WriteRow(out, row_);
    }
    if (ferror(out)) return false;
    if (page_.size() < static_cast<size_t>(kPageSize)) return true;
    if (db::LogManager::SearchLogPage(filter_, cursor_, kPageSize, page_) < 0) {
      LOG_ERROR("Failed to search log\n");
      search_failed = true;
      return false;
    }
  }
}

void LogExportHandler::WriteRow(FILE* out, const Row& row) {
  line_.clear();
  for (int i = 0; i < kColumns - 1; ++i) {
    if (i > 0) line_ += ',';
    if (row.present & (1u << i)) Quote(row.cells[i], line_);
  }
  line_ += ',';
  if (!row.additional.isNull()) {
    std::ostringstream json;
    json_writer_->write(row.additional, &json);
    additional_ = json.str();
    Quote(additional_, line_);
  }
  line_ += '\n';
  fwrite(line_.data(), 1, line_.size(), out);
}
