// The log database: process-wide, opened by the request pipeline (and by the
// sync service, which writes most records).
#pragma once

#include <string>
#include <vector>

#include "db/log.h"

namespace db {

class LogManager {
 public:
  // Opens "<connect_param>/log-db.sqlite" for the "sqlite" backend; 0 or negative.
  static int Initialize(const std::string& repo_location, const std::string& connect_param,
                        const std::string& backend, bool read_only);
  static void Destroy();
  static bool IsInitialized();

  // Stores the record with the current time (unless it has one); 0 on success.
  static int InsertLog(Log& log);
  // Newest first unless the filter says otherwise; not negative on success.
  static int SearchLog(const LogFilter& filter, std::vector<Log>& out);
  // Reads a search's records page by page, in SearchLog's order, without
  // holding them all: each page starts after the last record of the one
  // before, so records written meanwhile neither shift nor repeat a page.
  // The filter's limit and offset are ignored. A page holds at most
  // `page_size` records; an empty page ends the search. Not negative on
  // success, and the cursor moves only then.
  struct LogCursor {
    bool started = false;
    uint32_t time = 0;
    int64_t id = 0;
  };
  static int SearchLogPage(const LogFilter& filter, LogCursor& cursor, int page_size,
                           std::vector<Log>& out);
  static int CountLog(const LogFilter& filter, unsigned int& count);
  static int DeleteLog();  // every record
  static int GetLogDelCount(bool& enabled, int& count);
  static int SetLogDelCount(bool enabled, int count);
  static int GetLogDelSpan(bool& enabled, int& span);
  static int SetLogDelSpan(bool enabled, int span);
};

}  // namespace db
