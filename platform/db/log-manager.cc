// The log database: records with their arguments, searches, and the two
// rotation rules (by count, by age) applied on every insert.
//
// Who sees what: a filter without user_id sees every record; with one, the
// records of the user's own view (user_view_id) and the records they wrote
// themselves (user_id). The restriction holds for administrators too: the
// caller clears user_id when an administrator is to see everything.
//
// Paging is by OFFSET over the (time, id) index. A keyset would save the
// skip, but callers page by number and read several pages ahead anyway.
// The skip stays cheap because it reads no record: the time index also
// holds every column a filter other than the keyword tests, so a page's ids
// are found in the index alone, and only the page's own records are read.
//
// Keywords match as literal substrings of a record's lower-cased names and
// paths. A trigram index (FTS5, which answers LIKE from it) finds the few
// records of a rare keyword without reading the rest; a common one is
// cheaper found by walking the time index, where a page fills quickly, so
// the search probes the trigram index first and picks the walk when it
// holds more than a few thousand candidates. The trigram index only
// narrows: instr on the stored text decides.
#include "db/log-manager.h"

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <map>
#include <memory>

#include "db/errors.h"
#include "sqlite-handle.h"

namespace db {
namespace {

constexpr const char* kFileName = "log-db.sqlite";

constexpr const char* kSchema1 = R"sql(
CREATE TABLE logs(
  id INTEGER PRIMARY KEY,
  type INTEGER NOT NULL,
  time INTEGER NOT NULL,
  user_id INTEGER NOT NULL,
  user_name TEXT NOT NULL,
  view_id INTEGER NOT NULL,
  share_name TEXT NOT NULL,
  share_type INTEGER NOT NULL,
  target_view_id INTEGER NOT NULL,
  target_share_name TEXT NOT NULL,
  target_share_type INTEGER NOT NULL,
  p_args BLOB NOT NULL,
  s_args BLOB NOT NULL,
  search_text TEXT NOT NULL);
CREATE INDEX logs_by_time ON logs(time, id);
CREATE INDEX logs_by_view ON logs(view_id, time, id);
CREATE INDEX logs_by_user ON logs(user_id, time, id);
CREATE INDEX logs_by_type ON logs(type, time, id);
)sql";

// The time index covers the filter columns; the trigram index follows the
// table through triggers (positions are not kept: instr checks each hit).
constexpr const char* kSchema2 = R"sql(
DROP INDEX logs_by_time;
CREATE INDEX logs_by_time ON logs(time, id, type, view_id, user_id);
CREATE VIRTUAL TABLE logs_text USING fts5(search_text, content='logs', content_rowid='id',
  tokenize='trigram', detail='none', columnsize=0);
INSERT INTO logs_text(logs_text) VALUES('rebuild');
CREATE TRIGGER logs_text_insert AFTER INSERT ON logs BEGIN
  INSERT INTO logs_text(rowid, search_text) VALUES(new.id, new.search_text);
END;
CREATE TRIGGER logs_text_delete AFTER DELETE ON logs BEGIN
  INSERT INTO logs_text(logs_text, rowid, search_text) VALUES('delete', old.id, old.search_text);
END;
)sql";

// A keyword with more trigram hits than this is searched by walking time.
constexpr int kKeywordIndexCap = 5000;

constexpr int kDefaultCount = 1000000;
constexpr int kDefaultSpan = 2592000;  // thirty days

// The process-wide handle and its statements, prepared once: the sync
// service writes a record for every change it versions, and preparing the
// insert and its rotation queries cost more than running them. The
// statements are declared last, so that they are finalized before the
// handle closes, also when the process ends.
struct Kept {
  std::unique_ptr<SQLite::Database> handle;
  std::map<const char*, std::unique_ptr<SQLite::Statement>> statements;
};

Kept& KeptLog() {
  static Kept kept;
  return kept;
}

std::unique_ptr<SQLite::Database>& Handle() { return KeptLog().handle; }

std::map<const char*, std::unique_ptr<SQLite::Statement>>& Statements() {
  return KeptLog().statements;
}

// `sql` is a literal: its address names the statement. Reset, with no
// values bound, for each use.
SQLite::Statement& Prepared(const char* sql) {
  std::unique_ptr<SQLite::Statement>& statement = Statements()[sql];
  if (!statement) {
    statement = std::make_unique<SQLite::Statement>(*Handle(), sql);
  } else {
    statement->reset();
    statement->clearBindings();
  }
  return *statement;
}

// A meta value of the log, or `fallback`.
std::string Meta(const char* key, const std::string& fallback) {
  SQLite::Statement& q = Prepared("SELECT value FROM meta WHERE key = ?");
  q.bind(1, key);
  std::string value = q.executeStep() ? q.getColumn(0).getString() : fallback;
  q.reset();
  return value;
}

// Arguments as "<length>:<bytes>" one after the other, so any byte may
// appear in a value.
std::string Pack(const std::vector<std::string>& values) {
  std::string out;
  for (const auto& v : values) out += std::to_string(v.size()) + ":" + v;
  return out;
}

bool Unpack(const std::string& packed, std::vector<std::string>& out) {
  size_t pos = 0;
  while (pos < packed.size()) {
    size_t colon = packed.find(':', pos);
    if (colon == std::string::npos || colon == pos || colon - pos > 9) return false;
    size_t len = 0;
    for (size_t i = pos; i < colon; ++i) {
      if (packed[i] < '0' || packed[i] > '9') return false;
      len = len * 10 + static_cast<size_t>(packed[i] - '0');
    }
    if (len > packed.size() - colon - 1) return false;
    out.push_back(packed.substr(colon + 1, len));
    pos = colon + 1 + len;
  }
  return true;
}

std::string Lower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

int GetSetting(const char* enabled_key, const char* value_key, int fallback, bool& enabled,
               int& value) {
  if (!Handle()) return kErrInvalid;
  return internal::Guard("log setting", [&]() -> int {
    enabled = Meta(enabled_key, "0") == "1";
    std::string text = Meta(value_key, std::to_string(fallback));
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < 0 || v > INT_MAX) return static_cast<int>(kErrCorrupt);
    value = static_cast<int>(v);
    return static_cast<int>(kOk);
  });
}

int SetSetting(const char* enabled_key, const char* value_key, bool enabled, int value) {
  if (!Handle()) return kErrInvalid;
  if (value < 0) return kErrInvalid;
  return internal::Guard("log setting", [&]() -> int {
    internal::SetMeta(*Handle(), enabled_key, enabled ? "1" : "0");
    internal::SetMeta(*Handle(), value_key, std::to_string(value));
    return static_cast<int>(kOk);
  });
}

// "%keyword%" for the trigram index. Its % and _ stay wildcards, which also
// match themselves, so the pattern finds every literal hit and perhaps a
// few more that instr then drops. (An ESCAPE clause would keep the index
// from being used.)
std::string LikePattern(const std::string& keyword) { return "%" + keyword + "%"; }

// Whether the trigram index narrows the keyword to a few records. It needs
// a run of three characters with no wildcard to say anything.
bool FewKeywordHits(const std::string& keyword) {
  size_t run = 0, longest = 0;
  for (unsigned char c : keyword) {
    if (c == '%' || c == '_') {
      run = 0;
    } else if ((c & 0xC0) != 0x80) {
      longest = std::max(longest, ++run);
    }
  }
  if (longest < 3) return false;
  SQLite::Statement probe(*Handle(),
                          "SELECT count(*) FROM (SELECT rowid FROM logs_text WHERE search_text "
                          "LIKE ? LIMIT ?)");
  probe.bind(1, LikePattern(keyword));
  probe.bind(2, kKeywordIndexCap + 1);
  return probe.executeStep() && probe.getColumn(0).getInt() <= kKeywordIndexCap;
}

// WHERE clause and its values for a filter.
std::string WhereOf(const LogFilter& f, std::vector<std::string>& texts,
                    std::vector<long long>& numbers, std::vector<bool>& is_text) {
  std::string where = " WHERE 1";
  auto number = [&](long long v) {
    numbers.push_back(v);
    is_text.push_back(false);
  };
  if (f.user_id != 0) {
    where += " AND (view_id = ? OR user_id = ?)";
    number(static_cast<long long>(
        f.user_view_id > static_cast<uint64_t>(LLONG_MAX) ? LLONG_MAX : f.user_view_id));
    number(f.user_id);
  }
  if (f.view_id != 0) {
    where += " AND view_id = ?";
    number(static_cast<long long>(f.view_id > static_cast<uint64_t>(LLONG_MAX) ? LLONG_MAX
                                                                               : f.view_id));
  }
  if (f.date_from > 0) {
    where += " AND time >= ?";
    number(f.date_from);
  }
  if (f.date_to > 0) {
    where += " AND time <= ?";
    number(f.date_to);
  }
  if (!f.types.empty()) {
    where += " AND type IN (";
    bool first = true;
    for (int32_t t : f.types) {
      where += first ? "?" : ", ?";
      first = false;
      number(t);
    }
    where += ")";
  }
  if (!f.keyword.empty()) {
    const std::string keyword = Lower(f.keyword);
    if (FewKeywordHits(keyword)) {
      where += " AND id IN (SELECT rowid FROM logs_text WHERE search_text LIKE ?)";
      texts.push_back(LikePattern(keyword));
      is_text.push_back(true);
    }
    // instr, not LIKE: the keyword is literal text, % and _ included.
    where += " AND instr(search_text, ?) > 0";
    texts.push_back(keyword);
    is_text.push_back(true);
  }
  return where;
}

void Bind(SQLite::Statement& q, const std::vector<std::string>& texts,
          const std::vector<long long>& numbers, const std::vector<bool>& is_text) {
  size_t t = 0, n = 0;
  for (size_t i = 0; i < is_text.size(); ++i) {
    if (is_text[i]) {
      q.bind(static_cast<int>(i + 1), texts[t++]);
    } else {
      q.bind(static_cast<int>(i + 1), static_cast<int64_t>(numbers[n++]));
    }
  }
}

bool U32(const SQLite::Column& c, uint32_t& out) {
  long long v = c.getInt64();
  if (v < 0 || v > UINT32_MAX) return false;
  out = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

int LogManager::Initialize(const std::string& /*repo_location*/, const std::string& connect_param,
                           const std::string& backend, bool /*read_only*/) {
  static const std::vector<const char*> migrations = {kSchema1, kSchema2};
  return internal::OpenProcessWide(Handle(), connect_param, backend, kFileName, migrations);
}

void LogManager::Destroy() {
  Statements().clear();
  Handle().reset();
}

bool LogManager::IsInitialized() { return Handle() != nullptr; }

int LogManager::InsertLog(Log& log) {
  if (!Handle()) return kErrInvalid;
  if (log.getTime() == 0) log.setTime(static_cast<uint32_t>(time(nullptr)));
  std::string search =
      log.getUserName() + "\n" + log.getShareName() + "\n" + log.getTargetShareName();
  for (const auto& s : log.getSArg()) search += "\n" + s;
  bool count_on = false, span_on = false;
  int count = kDefaultCount, span = kDefaultSpan;
  int rc = GetLogDelCount(count_on, count);
  if (rc < 0) return rc;
  rc = GetLogDelSpan(span_on, span);
  if (rc < 0) return rc;
  return internal::Guard("insert log", [&]() -> int {
    SQLite::Database& db = *Handle();
    db.exec("SAVEPOINT log");
    try {
      SQLite::Statement& q = Prepared(
          "INSERT INTO logs(type, time, user_id, user_name, view_id, share_name, "
          "share_type, target_view_id, target_share_name, target_share_type, "
          "p_args, s_args, search_text) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
          "?, ?)");
      auto id64 = [](uint64_t v) {
        return static_cast<int64_t>(v > static_cast<uint64_t>(LLONG_MAX) ? LLONG_MAX : v);
      };
      q.bind(1, static_cast<int64_t>(log.getType()));
      q.bind(2, static_cast<int64_t>(log.getTime()));
      q.bind(3, static_cast<int64_t>(log.getUserId()));
      q.bind(4, log.getUserName());
      q.bind(5, id64(log.getViewId()));
      q.bind(6, log.getShareName());
      q.bind(7, static_cast<int64_t>(log.getShareType()));
      q.bind(8, id64(log.getTargetViewId()));
      q.bind(9, log.getTargetShareName());
      q.bind(10, static_cast<int64_t>(log.getTargetShareType()));
      std::string p = Pack(log.getPArg()), s = Pack(log.getSArg());
      q.bind(11, p.data(), static_cast<int>(p.size()));
      q.bind(12, s.data(), static_cast<int>(s.size()));
      q.bind(13, Lower(search));
      q.exec();
      if (span_on) {
        SQLite::Statement& old = Prepared("DELETE FROM logs WHERE time < ?");
        old.bind(1, static_cast<int64_t>(time(nullptr)) - span);
        old.exec();
      }
      if (count_on) {
        // Row ids only grow: their span bounds the number of records, so
        // the exact (slower) trim runs only when it may be needed.
        SQLite::Statement& bounds = Prepared("SELECT ifnull(max(id) - min(id) + 1, 0) FROM logs");
        bounds.executeStep();
        const int64_t span_of_ids = bounds.getColumn(0).getInt64();
        bounds.reset();
        if (span_of_ids > count) {
          SQLite::Statement& trim = Prepared(
              "DELETE FROM logs WHERE id IN (SELECT id FROM logs ORDER BY "
              "time DESC, id DESC LIMIT -1 OFFSET ?)");
          trim.bind(1, count);
          trim.exec();
        }
      }
    } catch (...) {
      db.exec("ROLLBACK TO log");
      db.exec("RELEASE log");
      throw;
    }
    db.exec("RELEASE log");
    return static_cast<int>(kOk);
  });
}

int LogManager::SearchLog(const LogFilter& filter, std::vector<Log>& out) {
  out.clear();
  if (!Handle()) return kErrInvalid;
  if (filter.limit < 0 || filter.offset < 0) return kErrInvalid;
  return internal::Guard("search log", [&]() -> int {
    std::vector<std::string> texts;
    std::vector<long long> numbers;
    std::vector<bool> is_text;
    const char* order = filter.oldest_first ? " ORDER BY time, id" : " ORDER BY time DESC, id DESC";
    std::string sql =
        "SELECT type, time, user_id, user_name, view_id, share_name, share_type, "
        "target_view_id, target_share_name, target_share_type, p_args, s_args FROM logs";
    if (filter.limit > 0 || filter.offset > 0) {
      // The page's ids first, from the index alone; then only its records.
      sql += std::string(" WHERE id IN (SELECT id FROM logs") +
             WhereOf(filter, texts, numbers, is_text) + order + " LIMIT ? OFFSET ?)" + order;
      numbers.push_back(filter.limit > 0 ? filter.limit : -1);
      numbers.push_back(filter.offset);
      is_text.push_back(false);
      is_text.push_back(false);
    } else {
      sql += WhereOf(filter, texts, numbers, is_text) + order;
    }
    SQLite::Statement q(*Handle(), sql);
    Bind(q, texts, numbers, is_text);
    while (q.executeStep()) {
      Log log;
      uint32_t type = 0, time = 0, uid = 0, share_type = 0, target_type = 0;
      long long view = q.getColumn(4).getInt64(), target = q.getColumn(7).getInt64();
      if (!U32(q.getColumn(0), type) || !U32(q.getColumn(1), time) || !U32(q.getColumn(2), uid) ||
          !U32(q.getColumn(6), share_type) || !U32(q.getColumn(9), target_type) || view < 0 ||
          target < 0) {
        return static_cast<int>(kErrCorrupt);
      }
      std::vector<std::string> p, s;
      if (!Unpack(q.getColumn(10).getString(), p) || !Unpack(q.getColumn(11).getString(), s)) {
        return static_cast<int>(kErrCorrupt);
      }
      log.setType(type);
      log.setTime(time);
      log.setUserId(uid);
      log.setUserName(q.getColumn(3).getString());
      log.setViewId(static_cast<uint64_t>(view));
      log.setShareName(q.getColumn(5).getString());
      log.setShareType(share_type);
      log.setTarget(static_cast<uint64_t>(target), q.getColumn(8).getString(), target_type);
      for (const auto& v : p) log.pushArg(v, false);
      for (const auto& v : s) log.pushArg(v, true);
      out.push_back(std::move(log));
    }
    return static_cast<int>(out.size());
  });
}

namespace {

// One row of the columns SearchLogPage selects; false for a row that no
// writer of ours could have stored.
bool ReadPageRow(SQLite::Statement& q, Log& log, int64_t& id) {
  uint32_t type = 0, time = 0, uid = 0, share_type = 0, target_type = 0;
  const long long view = q.getColumn(4).getInt64(), target = q.getColumn(7).getInt64();
  if (!U32(q.getColumn(0), type) || !U32(q.getColumn(1), time) || !U32(q.getColumn(2), uid) ||
      !U32(q.getColumn(6), share_type) || !U32(q.getColumn(9), target_type) || view < 0 ||
      target < 0) {
    return false;
  }
  std::vector<std::string> p, s;
  if (!Unpack(q.getColumn(10).getString(), p) || !Unpack(q.getColumn(11).getString(), s)) {
    return false;
  }
  log.setType(type);
  log.setTime(time);
  log.setUserId(uid);
  log.setUserName(q.getColumn(3).getString());
  log.setViewId(static_cast<uint64_t>(view));
  log.setShareName(q.getColumn(5).getString());
  log.setShareType(share_type);
  log.setTarget(static_cast<uint64_t>(target), q.getColumn(8).getString(), target_type);
  for (const auto& v : p) log.pushArg(v, false);
  for (const auto& v : s) log.pushArg(v, true);
  id = q.getColumn(12).getInt64();
  return true;
}

}  // namespace

int LogManager::SearchLogPage(const LogFilter& filter, LogCursor& cursor, int page_size,
                              std::vector<Log>& out) {
  out.clear();
  if (!Handle()) return kErrInvalid;
  if (page_size <= 0) return kErrInvalid;
  return internal::Guard("search log page", [&]() -> int {
    std::vector<std::string> texts;
    std::vector<long long> numbers;
    std::vector<bool> is_text;
    std::string sql =
        "SELECT type, time, user_id, user_name, view_id, share_name, share_type, "
        "target_view_id, target_share_name, target_share_type, p_args, s_args, id FROM logs" +
        WhereOf(filter, texts, numbers, is_text);
    // The (time, id) key walks the time indexes; an OFFSET would rescan
    // every page before it.
    if (cursor.started) {
      sql += filter.oldest_first ? " AND (time, id) > (?, ?)" : " AND (time, id) < (?, ?)";
      numbers.push_back(cursor.time);
      numbers.push_back(cursor.id);
      is_text.push_back(false);
      is_text.push_back(false);
    }
    sql += filter.oldest_first ? " ORDER BY time, id" : " ORDER BY time DESC, id DESC";
    sql += " LIMIT ?";
    numbers.push_back(page_size);
    is_text.push_back(false);
    SQLite::Statement q(*Handle(), sql);
    Bind(q, texts, numbers, is_text);
    int64_t last_id = 0;
    while (q.executeStep()) {
      Log log;
      if (!ReadPageRow(q, log, last_id)) {
        out.clear();
        return static_cast<int>(kErrCorrupt);
      }
      out.push_back(std::move(log));
    }
    if (!out.empty()) {
      cursor.started = true;
      cursor.time = out.back().getTime();
      cursor.id = last_id;
    }
    return static_cast<int>(out.size());
  });
}

int LogManager::CountLog(const LogFilter& filter, unsigned int& count) {
  count = 0;
  if (!Handle()) return kErrInvalid;
  if (filter.limit < 0 || filter.offset < 0) return kErrInvalid;
  return internal::Guard("count log", [&]() -> int {
    std::vector<std::string> texts;
    std::vector<long long> numbers;
    std::vector<bool> is_text;
    SQLite::Statement q(*Handle(),
                        "SELECT count(*) FROM logs" + WhereOf(filter, texts, numbers, is_text));
    Bind(q, texts, numbers, is_text);
    q.executeStep();
    long long n = q.getColumn(0).getInt64();
    count = n < 0 ? 0 : n > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(n);
    return static_cast<int>(kOk);
  });
}

int LogManager::DeleteLog() {
  if (!Handle()) return kErrInvalid;
  return internal::Guard("delete log", [&]() -> int {
    // Emptied whole, the trigram index is cleared at once rather than
    // record by record through its trigger.
    SQLite::Transaction transaction(*Handle());
    Handle()->exec("DROP TRIGGER logs_text_delete");
    Handle()->exec("DELETE FROM logs");
    Handle()->exec("INSERT INTO logs_text(logs_text) VALUES('delete-all')");
    Handle()->exec(
        "CREATE TRIGGER logs_text_delete AFTER DELETE ON logs BEGIN INSERT INTO "
        "logs_text(logs_text, rowid, search_text) VALUES('delete', old.id, old.search_text); END");
    transaction.commit();
    return static_cast<int>(kOk);
  });
}

int LogManager::GetLogDelCount(bool& enabled, int& count) {
  return GetSetting("del_count_enabled", "del_count", kDefaultCount, enabled, count);
}

int LogManager::SetLogDelCount(bool enabled, int count) {
  return SetSetting("del_count_enabled", "del_count", enabled, count);
}

int LogManager::GetLogDelSpan(bool& enabled, int& span) {
  return GetSetting("del_span_enabled", "del_span", kDefaultSpan, enabled, span);
}

int LogManager::SetLogDelSpan(bool enabled, int span) {
  return SetSetting("del_span_enabled", "del_span", enabled, span);
}

}  // namespace db
