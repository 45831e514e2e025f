// The timing parts of the watching benchmark, run inside its sandbox while
// the daemon watches alice's home:
//
//   bench_watch_probe files DIR COUNT FOLDERS MIN MAX SEED UID ORDER
//       COUNT files of MIN..MAX bytes in DIR/dK/fN, owned by UID (group 100)
//       like the folders. ORDER "tree": folder after folder, each made just
//       before its files, as cp -r writes; "spread": all folders first, then
//       file N into folder N % FOLDERS, so that every folder keeps changing.
//   bench_watch_probe latency URL SID DB HOME FIRST COUNT GAP_MS UID
//       COUNT single changes N = FIRST.. in HOME/lat/dK (K = N % 10), one
//       every GAP_MS (0: each after the previous one is visible): an even N
//       writes a new file cN.txt, an odd N new content into cN.txt, which
//       `latency` run with GAP_MS -1 makes beforehand. Prints one line per change,
//       "SECONDS new|rewrite", SECONDS from its close until list_version
//       shows its content; "missed ..." for one not seen within a minute.
//   bench_watch_probe wait-version URL SID DB PATH HASH TIMEOUT_S
//       Waits until list_version of PATH shows a version with HASH; prints
//       the wall-clock time of that answer and the versions listed.
//   bench_watch_probe wait-count DB PREFIX COUNT TIMEOUT_S
//       Waits until the view database holds COUNT live nodes under the
//       folder PREFIX; prints the wall-clock time it did.
//
// A change is looked for in the view database first (read-only, every
// 20 ms: no process started, nothing the daemon competes with), and only
// once it is there asked of the web API: one request of ~50 ms per change
// instead of one per look, which on two cores would slow the very passes
// being timed. The time taken is the API's answer showing the version.
#include <curl/curl.h>
#include <fcntl.h>
#include <json/json.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kLook = std::chrono::milliseconds(20);

[[noreturn]] void Die(const std::string& what) {
  fprintf(stderr, "bench_watch_probe: %s\n", what.c_str());
  exit(1);
}

double WallNow() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string Sha256Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr) != 1) {
    Die("SHA-256 failed");
  }
  std::string hex;
  char two[3];
  for (unsigned int i = 0; i < size; ++i) {
    snprintf(two, sizeof two, "%02x", digest[i]);
    hex += two;
  }
  return hex;
}

// Writes BYTES as the whole of PATH and closes it; the moment of the close.
Clock::time_point WriteFile(const std::string& path, const std::string& bytes, uid_t uid) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) Die("cannot write " + path + ": " + strerror(errno));
  if (fchown(fd, uid, 100) != 0 ||
      write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    Die("cannot write " + path + ": " + strerror(errno));
  }
  if (close(fd) != 0) Die("cannot close " + path);
  return Clock::now();
}

void MakeFolder(const std::string& path, uid_t uid) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) Die("cannot make " + path);
  if (chown(path.c_str(), uid, 100) != 0) Die("cannot chown " + path);
}

// The view database, read-only: the daemon's passes write it meanwhile.
class ViewDb {
 public:
  explicit ViewDb(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
      Die("cannot open " + path);
    }
    sqlite3_busy_timeout(db_, 1000);
    Prepare(&has_version_,
            "SELECT 1 FROM nodes n JOIN versions v ON v.node_id = n.node_id "
            "WHERE n.path = ?1 AND n.removed = 0 AND v.hash = ?2 LIMIT 1");
    // A range on the path index: LIKE would read every row.
    Prepare(&count_below_,
            "SELECT count(*) FROM nodes WHERE path > ?1 || '/' AND path < ?1 || '0' "
            "AND removed = 0");
  }
  ~ViewDb() {
    sqlite3_finalize(has_version_);
    sqlite3_finalize(count_below_);
    sqlite3_close(db_);
  }
  ViewDb(const ViewDb&) = delete;
  ViewDb& operator=(const ViewDb&) = delete;

  bool HasVersion(const std::string& path, const std::string& hash) {
    sqlite3_reset(has_version_);
    sqlite3_bind_text(has_version_, 1, path.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(has_version_, 2, hash.c_str(), -1, SQLITE_TRANSIENT);
    return sqlite3_step(has_version_) == SQLITE_ROW;
  }
  int64_t CountBelow(const std::string& folder) {
    sqlite3_reset(count_below_);
    sqlite3_bind_text(count_below_, 1, folder.c_str(), -1, SQLITE_TRANSIENT);
    return sqlite3_step(count_below_) == SQLITE_ROW ? sqlite3_column_int64(count_below_, 0) : -1;
  }

 private:
  void Prepare(sqlite3_stmt** statement, const char* sql) {
    if (sqlite3_prepare_v2(db_, sql, -1, statement, nullptr) != SQLITE_OK) {
      Die(std::string("cannot prepare a query: ") + sqlite3_errmsg(db_));
    }
  }
  sqlite3* db_ = nullptr;
  sqlite3_stmt* has_version_ = nullptr;
  sqlite3_stmt* count_below_ = nullptr;
};

// list_version of alice's home over one kept-alive connection.
class Api {
 public:
  Api(std::string url, const std::string& sid) : url_(std::move(url)), cookie_("id=" + sid) {
    curl_ = curl_easy_init();
    if (curl_ == nullptr) Die("curl_easy_init failed");
    curl_easy_setopt(curl_, CURLOPT_COOKIE, cookie_.c_str());
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &Api::Collect);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &body_);
  }
  ~Api() { curl_easy_cleanup(curl_); }
  Api(const Api&) = delete;
  Api& operator=(const Api&) = delete;

  // The hashes list_version shows for PATH, newest first; empty for a path
  // it does not know (yet).
  std::vector<std::string> Hashes(const std::string& path) {
    char* escaped = curl_easy_escape(curl_, Json::valueToQuotedString(path.c_str()).c_str(), 0);
    const std::string url = url_ +
                            "?api=KSTX.Tidepool.Node&method=list_version&version=1"
                            "&target=%22mine%22&path=" +
                            escaped;
    curl_free(escaped);
    body_.clear();
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    if (curl_easy_perform(curl_) != CURLE_OK) Die("list_version of " + path + " failed");
    Json::Value answer;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(body_.data(), body_.data() + body_.size(), &answer, &errors)) {
      Die("list_version answered no JSON: " + body_.substr(0, 200));
    }
    std::vector<std::string> hashes;
    if (!answer["success"].asBool()) return hashes;
    for (const Json::Value& item : answer["data"]["items"])
      hashes.push_back(item["hash"].asString());
    return hashes;
  }

 private:
  static size_t Collect(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
  }
  std::string url_;
  std::string cookie_;
  std::string body_;
  CURL* curl_ = nullptr;
};

bool Contains(const std::vector<std::string>& hashes, const std::string& hash) {
  for (const std::string& h : hashes) {
    if (h == hash) return true;
  }
  return false;
}

// Until the API shows HASH for PATH or DEADLINE passes: the moment it did,
// and the versions it listed then (0 when it never did).
std::pair<Clock::time_point, size_t> WaitVisible(ViewDb& db, Api& api, const std::string& path,
                                                 const std::string& hash,
                                                 Clock::time_point deadline) {
  while (Clock::now() < deadline) {
    if (db.HasVersion(path, hash)) {
      const std::vector<std::string> hashes = api.Hashes(path);
      if (Contains(hashes, hash)) return {Clock::now(), hashes.size()};
    }
    std::this_thread::sleep_for(kLook);
  }
  return {deadline, 0};
}

int Files(char** argv) {
  const std::string dir = argv[0];
  const long count = atol(argv[1]), folders = atol(argv[2]);
  const size_t low = strtoul(argv[3], nullptr, 10), high = strtoul(argv[4], nullptr, 10);
  std::mt19937_64 rng(strtoull(argv[5], nullptr, 10));
  const uid_t uid = static_cast<uid_t>(atol(argv[6]));
  const std::string order = argv[7];
  if (count < 0 || folders <= 0 || low > high || (order != "tree" && order != "spread")) {
    Die("bad files arguments");
  }
  const bool spread = order == "spread";
  const long per_folder = (count + folders - 1) / folders;
  MakeFolder(dir, uid);
  for (long k = 0; spread && k < folders && k < count; ++k) {
    MakeFolder(dir + "/d" + std::to_string(k), uid);
  }
  std::string bytes;
  for (long n = 0; n < count; ++n) {
    const long k = spread ? n % folders : n / per_folder;
    if (!spread && n % per_folder == 0) MakeFolder(dir + "/d" + std::to_string(k), uid);
    bytes.resize(low + rng() % (high - low + 1));
    for (size_t i = 0; i < bytes.size(); i += 8) {
      const uint64_t word = rng();
      memcpy(bytes.data() + i, &word, std::min<size_t>(8, bytes.size() - i));
    }
    WriteFile(dir + "/d" + std::to_string(k) + "/f" + std::to_string(n), bytes, uid);
  }
  return 0;
}

int Latency(char** argv) {
  Api api(argv[0], argv[1]);
  ViewDb db(argv[2]);
  const std::string home = argv[3];
  const long first = atol(argv[4]), count = atol(argv[5]), gap_ms = atol(argv[6]);
  const uid_t uid = static_cast<uid_t>(atol(argv[7]));
  const auto path_of = [first](long i) {
    const long n = first + i;
    return "/lat/d" + std::to_string(n % 10) + "/c" + std::to_string(n) + ".txt";
  };
  MakeFolder(home + "/lat", uid);
  for (int k = 0; k < 10; ++k) MakeFolder(home + "/lat/d" + std::to_string(k), uid);
  if (gap_ms < 0) {
    // The files that odd changes give new content.
    for (long i = 0; i < count; ++i) {
      if ((first + i) % 2 == 1) WriteFile(home + path_of(i), "first content\n", uid);
    }
    return 0;
  }
  struct Change {
    std::string path, hash;
    Clock::time_point closed;
    double seconds = -1;
    size_t versions = 0;
  };
  std::vector<Change> changes(count);
  std::random_device random;
  const auto start = Clock::now();
  long next = 0;    // the next change to write
  long oldest = 0;  // the oldest one not yet seen or missed
  while (oldest < count) {
    const auto now = Clock::now();
    const bool writable =
        gap_ms == 0 ? next == oldest : now >= start + std::chrono::milliseconds(gap_ms * next);
    if (next < count && writable) {
      Change& c = changes[next];
      c.path = path_of(next);
      const std::string bytes =
          "change " + std::to_string(next) + " " + std::to_string(random()) + "\n";
      c.hash = Sha256Hex(bytes);
      c.closed = WriteFile(home + c.path, bytes, uid);
      ++next;
    }
    // Changes are looked for in the order they were made; one seen lets
    // the next ones be looked for at once, since a pass takes along every
    // changed folder of its view.
    while (oldest < next) {
      Change& c = changes[oldest];
      if (Clock::now() > c.closed + std::chrono::seconds(60)) {
        ++oldest;
        continue;
      }
      if (!db.HasVersion(c.path, c.hash)) break;
      const std::vector<std::string> hashes = api.Hashes(c.path);
      if (!Contains(hashes, c.hash)) break;
      c.seconds = Seconds(Clock::now() - c.closed);
      c.versions = hashes.size();
      ++oldest;
    }
    std::this_thread::sleep_for(kLook);
  }
  long missed = 0, doubled = 0;
  for (long n = 0; n < count; ++n) {
    const Change& c = changes[n];
    const bool fresh = (first + n) % 2 == 0;
    const char* kind = fresh ? "new" : "rewrite";
    if (c.seconds < 0) {
      printf("missed %s %s\n", kind, c.path.c_str());
      ++missed;
      continue;
    }
    printf("%.3f %s\n", c.seconds, kind);
    // A new file has one version, a rewritten one its first and this one;
    // more is a change versioned twice.
    const size_t want = fresh ? 1 : 2;
    if (api.Hashes(c.path).size() != want) ++doubled;
  }
  fprintf(stderr, "  %ld changes in %.1f s, %ld missed, %ld with more versions than changes\n",
          count, Seconds(Clock::now() - start), missed, doubled);
  return 0;
}

int WaitVersion(char** argv) {
  Api api(argv[0], argv[1]);
  ViewDb db(argv[2]);
  const auto deadline = Clock::now() + std::chrono::seconds(atol(argv[5]));
  const auto [when, versions] = WaitVisible(db, api, argv[3], argv[4], deadline);
  if (versions == 0) Die(std::string("no version of ") + argv[3] + " with its content");
  printf("%.3f %zu\n", WallNow() - Seconds(Clock::now() - when), versions);
  return 0;
}

int WaitCount(char** argv) {
  ViewDb db(argv[0]);
  const int64_t want = atoll(argv[2]);
  const auto deadline = Clock::now() + std::chrono::seconds(atol(argv[3]));
  int64_t have = 0;
  while ((have = db.CountBelow(argv[1])) < want) {
    if (Clock::now() > deadline) {
      Die("only " + std::to_string(have) + " of " + std::to_string(want) + " nodes under " +
          argv[1]);
    }
    std::this_thread::sleep_for(kLook);
  }
  printf("%.3f\n", WallNow());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  curl_global_init(CURL_GLOBAL_DEFAULT);
  if (what == "files" && argc == 10) return Files(argv + 2);
  if (what == "latency" && argc == 10) return Latency(argv + 2);
  if (what == "wait-version" && argc == 8) return WaitVersion(argv + 2);
  if (what == "wait-count" && argc == 6) return WaitCount(argv + 2);
  fprintf(stderr,
          "usage: bench_watch_probe files DIR COUNT FOLDERS MIN MAX SEED UID tree|spread\n"
          "       bench_watch_probe latency URL SID DB HOME FIRST COUNT GAP_MS UID\n"
          "       bench_watch_probe wait-version URL SID DB PATH HASH TIMEOUT_S\n"
          "       bench_watch_probe wait-count DB PREFIX COUNT TIMEOUT_S\n");
  return 2;
}
