// KSTX.Tidepool.Log export: the log as a table a person can read, answered
// as the download "export.csv", after which the export itself is logged.
#pragma once

#include <json/value.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/request-handler.h"
#include "db/log-manager.h"

namespace Json {
class StreamWriter;
}

class LogExportHandler : public RequestHandler {
 public:
  LogExportHandler();
  ~LogExportHandler() override;
  int Handle(const RequestAuthentication& auth, BridgeRequest& request,
             BridgeResponse& response) override;

  // The columns of the file, in order.
  static constexpr int kColumns = 8;
  static const char* const kColumnNames[kColumns];
  enum Column { kDateTime, kOperator, kAction, kRelatedPath, kRelatedUser, kRelatedShare, kDevice };

  // One record as a row: the text columns that apply, and "Additional" as
  // an object (null when the record has none). Kept between records so that
  // its strings keep their room.
  struct Row {
    std::string cells[kColumns - 1];
    unsigned present = 0;  // bit per column of `cells`
    Json::Value additional;

    void Set(Column c, std::string_view value) {
      cells[c].assign(value.data(), value.size());
      present |= 1u << c;
    }
  };
  // Fills `row` for one record; false for a record the file leaves out.
  static bool ConvertLogToRow(const db::Log& log, Row& row);
  // Where `path` of the record's view lies as the user knows it.
  static std::string GetRelatedPath(const std::string& path, const db::Log& log);

 private:
  int ParseParams(const RequestAuthentication& auth, BridgeRequest& request,
                  BridgeResponse& response);
  int Execute(BridgeResponse& response);
  int FormOutput(BridgeResponse& response);
  void InsertExportLog(const RequestAuthentication& auth);

  // Writes the header line, then every record page by page; false on a
  // failed search (`search_failed`) or write.
  bool OutputAsCSV(FILE* out, bool& search_failed);
  void WriteRow(FILE* out, const Row& row);

  db::LogFilter filter_;
  db::LogManager::LogCursor cursor_;
  std::vector<db::Log> page_;  // the page read last, not yet written
  std::unique_ptr<Json::StreamWriter> json_writer_;
  std::string line_;
  std::string additional_;
  Row row_;
};
