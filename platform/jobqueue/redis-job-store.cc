// The job queue on a Redis server. Every change that touches more than one
// key is one Lua script, which Redis runs atomically, so a job is never
// half-queued and two workers never claim the same job.
//
// Keys, all under "tidepool:jobs:" (ids are 12-digit zero-padded decimals, so
// that equal due times order by id):
//   next-id        counter of ids
//   job:<id>       hash: name payload user uid state due created tries
//                  max_tries last_error (state 0 waiting, 1 running, 2 failed;
//                  for a failed job, due is when it gave up)
//   waiting        sorted set of waiting ids by due time
//   waiting-key    hash "<length of name>:<name><payload>" -> id of the
//                  waiting job: what makes a second push answer 4
//   running        set of running ids
//   failed         sorted set of failed ids by the time they gave up
//   all            sorted set of every id by creation time (List)
//   count:name     hash name -> waiting + running jobs of that name
//   count:job      hash "<length>:<name><payload>" -> the same per job
//   count:payload  hash payload -> the same per payload
//   bell           channel: a message per push, for idle workers
#include <poll.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "logger.h"
#include "redis.h"
#include "stores.h"

namespace tidepool::core::job_queue {

namespace {

constexpr const char* kPrefix = "tidepool:jobs:";
constexpr const char* kBell = "tidepool:jobs:bell";

// Shared by every script.
constexpr const char* kPrelude = R"lua(
local P = 'tidepool:jobs:'
local FIELDS = {'name', 'payload', 'user', 'uid', 'state', 'due', 'created', 'tries',
                'max_tries', 'last_error'}
local function twin_key(name, payload) return #name .. ':' .. name .. payload end
local function add_count(hash, field, by)
  if redis.call('HINCRBY', P .. hash, field, by) <= 0 then redis.call('HDEL', P .. hash, field) end
end
local function count(name, payload, by)
  add_count('count:name', name, by)
  add_count('count:job', twin_key(name, payload), by)
  add_count('count:payload', payload, by)
end
-- Takes a waiting or running job out of the live sets and the counts.
local function unqueue(id, state, name, payload)
  if state == '0' then
    redis.call('ZREM', P .. 'waiting', id)
    local k = twin_key(name, payload)
    if redis.call('HGET', P .. 'waiting-key', k) == id then redis.call('HDEL', P .. 'waiting-key', k) end
    count(name, payload, -1)
  elseif state == '1' then
    redis.call('SREM', P .. 'running', id)
    count(name, payload, -1)
  end
end
local function forget(id)
  redis.call('DEL', P .. 'job:' .. id)
  redis.call('ZREM', P .. 'all', id)
  redis.call('ZREM', P .. 'failed', id)
end
local function record(id)
  local values = redis.call('HMGET', P .. 'job:' .. id, unpack(FIELDS))
  table.insert(values, 1, id)
  return values
end
)lua";

// ARGV: name payload user uid due created max_tries
constexpr const char* kPush = R"lua(
local name, payload = ARGV[1], ARGV[2]
local k = twin_key(name, payload)
if redis.call('HEXISTS', P .. 'waiting-key', k) == 1 then return 4 end
local id = string.format('%012d', redis.call('INCR', P .. 'next-id'))
redis.call('HSET', P .. 'job:' .. id, 'name', name, 'payload', payload, 'user', ARGV[3],
           'uid', ARGV[4], 'state', '0', 'due', ARGV[5], 'created', ARGV[6], 'tries', '0',
           'max_tries', ARGV[7], 'last_error', '')
redis.call('ZADD', P .. 'waiting', ARGV[5], id)
redis.call('HSET', P .. 'waiting-key', k, id)
redis.call('ZADD', P .. 'all', ARGV[6], id)
count(name, payload, 1)
redis.call('PUBLISH', P .. 'bell', id)
return 0
)lua";

// ARGV: now. The claimed job's record, or an empty array.
constexpr const char* kClaim = R"lua(
while true do
  local ids = redis.call('ZRANGEBYSCORE', P .. 'waiting', '-inf', ARGV[1], 'LIMIT', 0, 1)
  if #ids == 0 then return {} end
  local id = ids[1]
  local jk = P .. 'job:' .. id
  local f = redis.call('HMGET', jk, 'name', 'payload')
  redis.call('ZREM', P .. 'waiting', id)
  if f[1] and f[2] then
    redis.call('HDEL', P .. 'waiting-key', twin_key(f[1], f[2]))
    redis.call('SADD', P .. 'running', id)
    redis.call('HSET', jk, 'state', '1')
    redis.call('HINCRBY', jk, 'tries', 1)
    return record(id)
  end
  -- An id without its record cannot run: it leaves the queue.
  forget(id)
end
)lua";

// ARGV: id. Finish and Drop.
constexpr const char* kRemove = R"lua(
local id = ARGV[1]
local f = redis.call('HMGET', P .. 'job:' .. id, 'state', 'name', 'payload')
if f[1] and f[2] and f[3] then unqueue(id, f[1], f[2], f[3]) end
forget(id)
return 0
)lua";

// ARGV: id error retry_at now. 1 runs again, 0 gave up.
constexpr const char* kFail = R"lua(
local id, err, retry_at, now = ARGV[1], ARGV[2], ARGV[3], ARGV[4]
local jk = P .. 'job:' .. id
local f = redis.call('HMGET', jk, 'state', 'name', 'payload', 'tries', 'max_tries')
if not (f[1] and f[2] and f[3]) then return 0 end
local state, name, payload = f[1], f[2], f[3]
if (tonumber(f[4]) or 0) < (tonumber(f[5]) or 0) then
  local k = twin_key(name, payload)
  local twin = redis.call('HGET', P .. 'waiting-key', k)
  if twin and twin ~= id then
    unqueue(id, state, name, payload)
    forget(id)
    return 1
  end
  if state == '1' then
    redis.call('SREM', P .. 'running', id)
  elseif state ~= '0' then
    redis.call('ZREM', P .. 'failed', id)
    count(name, payload, 1)
  end
  redis.call('ZADD', P .. 'waiting', retry_at, id)
  redis.call('HSET', P .. 'waiting-key', k, id)
  redis.call('HSET', jk, 'state', '0', 'due', retry_at, 'last_error', err)
  return 1
end
unqueue(id, state, name, payload)
redis.call('HSET', jk, 'state', '2', 'due', now, 'last_error', err)
redis.call('ZADD', P .. 'failed', now, id)
return 0
)lua";

constexpr const char* kStoppedWhileRunning = "the worker stopped while it ran";

// ARGV: prune_before now error. The number of running jobs that wait again; one
// whose tries are spent fails instead (it may be what stopped the worker).
constexpr const char* kReset = R"lua(
for _, id in ipairs(redis.call('ZRANGEBYSCORE', P .. 'failed', '-inf', '(' .. ARGV[1])) do
  forget(id)
end
local n = 0
for _, id in ipairs(redis.call('SMEMBERS', P .. 'running')) do
  local jk = P .. 'job:' .. id
  local f = redis.call('HMGET', jk, 'name', 'payload', 'due', 'tries', 'max_tries')
  redis.call('SREM', P .. 'running', id)
  if f[1] and f[2] and (tonumber(f[4]) or 0) >= (tonumber(f[5]) or 0) then
    count(f[1], f[2], -1)
    redis.call('HSET', jk, 'state', '2', 'due', ARGV[2], 'last_error', ARGV[3])
    redis.call('ZADD', P .. 'failed', ARGV[2], id)
  elseif f[1] and f[2] then
    local k = twin_key(f[1], f[2])
    if redis.call('HEXISTS', P .. 'waiting-key', k) == 1 then
      count(f[1], f[2], -1)
      forget(id)
    else
      redis.call('HSET', P .. 'waiting-key', k, id)
      redis.call('ZADD', P .. 'waiting', tonumber(f[3]) or 0, id)
      redis.call('HSET', jk, 'state', '0')
    end
    n = n + 1
  else
    forget(id)
  end
end
if n > 0 then redis.call('PUBLISH', P .. 'bell', 'reset') end
return n
)lua";

// Every record, oldest first.
constexpr const char* kList = R"lua(
local out = {}
for _, id in ipairs(redis.call('ZRANGE', P .. 'all', 0, -1)) do
  local r = record(id)
  if r[2] then out[#out + 1] = r end
end
return out
)lua";

enum Script : size_t {
  kPushScript,
  kClaimScript,
  kRemoveScript,
  kFailScript,
  kResetScript,
  kListScript
};

std::vector<std::string> Sources() {
  std::vector<std::string> sources;
  for (const char* body : {kPush, kClaim, kRemove, kFail, kReset, kList}) {
    sources.push_back(std::string(kPrelude) + body);
  }
  return sources;
}

std::string IdText(int64_t id) {
  char text[32];
  snprintf(text, sizeof text, "%012lld", static_cast<long long>(id));
  return text;
}

std::string Text(const redisReply* reply) {
  if (!reply || reply->type != REDIS_REPLY_STRING) return "";
  return std::string(reply->str, reply->len);
}

bool Number(const redisReply* reply, int64_t min, int64_t max, int64_t& out) {
  if (reply && reply->type == REDIS_REPLY_INTEGER) {
    out = reply->integer;
    return out >= min && out <= max;
  }
  const std::string text = Text(reply);
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  // Scores come back as "1700000000" or, for large ones, in exponent form.
  const double value = strtod(text.c_str(), &end);
  if (errno != 0 || *end != '\0' || value < static_cast<double>(min) ||
      value > static_cast<double>(max)) {
    return false;
  }
  out = static_cast<int64_t>(value);
  return true;
}

// A record as the scripts return it; false when the stored data is damaged.
bool ParseRecord(const redisReply* reply, JobRecord& out) {
  if (!reply || reply->type != REDIS_REPLY_ARRAY || reply->elements != 11) return false;
  auto** e = reply->element;
  int64_t id, uid, state, due, created, tries, max_tries;
  constexpr int64_t kMax = INT64_C(1) << 52;
  if (!Number(e[0], 1, kMax, id) || e[1]->type != REDIS_REPLY_STRING ||
      e[2]->type != REDIS_REPLY_STRING || !Number(e[4], 0, UINT32_MAX, uid) ||
      !Number(e[5], 0, 2, state) || !Number(e[6], -kMax, kMax, due) ||
      !Number(e[7], -kMax, kMax, created) || !Number(e[8], 0, INT32_MAX, tries) ||
      !Number(e[9], 0, INT32_MAX, max_tries)) {
    return false;
  }
  out.id = id;
  out.name = Text(e[1]);
  out.payload = Text(e[2]);
  out.user = Text(e[3]);
  out.uid = static_cast<uint32_t>(uid);
  out.state = static_cast<JobState>(state);
  out.due = due;
  out.created = created;
  out.tries = static_cast<int>(tries);
  out.max_tries = static_cast<int>(max_tries);
  out.last_error = Text(e[10]);
  return true;
}

class RedisJobStore final : public JobStore {
 public:
  explicit RedisJobStore(const RedisLocation& location)
      : connector_(location), scripts_(Sources()), subscriber_(location) {}

  int Open() { return connector_.Connect(); }

  int Push(const NewJob& job) override {
    auto reply = scripts_.Run(
        connector_, kPushScript,
        {job.name, job.payload, job.user, std::to_string(job.uid), std::to_string(job.due),
         std::to_string(time(nullptr)), std::to_string(job.max_tries)});
    if (redis::IsError(reply, "push") || reply->type != REDIS_REPLY_INTEGER) return -1;
    return reply->integer == 4 ? 4 : 0;
  }

  int Count(const std::optional<std::string>& name, const std::optional<std::string>& payload,
            long long& count) override {
    const std::string prefix = kPrefix;
    redis::Reply reply;
    if (name && payload) {
      reply = connector_.Command(
          {"HGET", prefix + "count:job", std::to_string(name->size()) + ":" + *name + *payload});
    } else if (name) {
      reply = connector_.Command({"HGET", prefix + "count:name", *name});
    } else if (payload) {
      reply = connector_.Command({"HGET", prefix + "count:payload", *payload});
    } else {
      reply = connector_.Command({"HVALS", prefix + "count:name"});
    }
    if (redis::IsError(reply, "count")) return -1;
    int64_t value = 0;
    if (reply->type == REDIS_REPLY_ARRAY) {
      long long total = 0;
      for (size_t i = 0; i < reply->elements; ++i) {
        if (!Number(reply->element[i], 0, INT64_MAX / 2, value)) return -1;
        total += value;
      }
      count = total;
      return 0;
    }
    if (reply->type == REDIS_REPLY_NIL) {
      count = 0;
      return 0;
    }
    if (!Number(reply.get(), 0, INT64_MAX, value)) return -1;
    count = value;
    return 0;
  }

  int Claim(int64_t now, JobRecord& out) override {
    auto reply = scripts_.Run(connector_, kClaimScript, {std::to_string(now)});
    if (redis::IsError(reply, "claim") || reply->type != REDIS_REPLY_ARRAY) return -1;
    if (reply->elements == 0) return 0;
    if (!ParseRecord(reply.get(), out)) {
      LOG_ERROR("job queue: a claimed job's record is damaged\n");
      return -1;
    }
    return 1;
  }

  int Finish(int64_t id) override { return Remove(id, "finish"); }
  int Drop(int64_t id) override { return Remove(id, "drop"); }

  int Fail(int64_t id, const std::string& error, int64_t retry_at) override {
    auto reply =
        scripts_.Run(connector_, kFailScript,
                     {IdText(id), error, std::to_string(retry_at), std::to_string(time(nullptr))});
    if (redis::IsError(reply, "fail") || reply->type != REDIS_REPLY_INTEGER) return -1;
    return reply->integer == 1 ? 1 : 0;
  }

  int ResetRunning() override {
    auto reply = scripts_.Run(connector_, kResetScript,
                              {std::to_string(time(nullptr) - kFailedJobLifetime),
                               std::to_string(time(nullptr)), kStoppedWhileRunning});
    if (redis::IsError(reply, "reset") || reply->type != REDIS_REPLY_INTEGER) return -1;
    return static_cast<int>(reply->integer);
  }

  int List(std::vector<JobRecord>& out) override {
    auto reply = scripts_.Run(connector_, kListScript, {});
    if (redis::IsError(reply, "list") || reply->type != REDIS_REPLY_ARRAY) return -1;
    std::vector<JobRecord> jobs;
    for (size_t i = 0; i < reply->elements; ++i) {
      JobRecord record;
      // A damaged record is left out rather than failing the whole list.
      if (ParseRecord(reply->element[i], record)) jobs.push_back(std::move(record));
    }
    out.swap(jobs);
    return 0;
  }

  int NextDue(int64_t& due) override {
    auto reply =
        connector_.Command({"ZRANGE", std::string(kPrefix) + "waiting", "0", "0", "WITHSCORES"});
    if (redis::IsError(reply, "next due") || reply->type != REDIS_REPLY_ARRAY) return -1;
    if (reply->elements < 2) return 0;
    if (!Number(reply->element[1], INT64_MIN / 2, INT64_MAX / 2, due)) return -1;
    return 1;
  }

  // A second connection, subscribed to the bell. When the server goes away
  // its socket turns readable (EOF); AckWake then closes it, and the next
  // WakeFd subscribes again.
  int WakeFd() override {
    if (subscriber_.connected()) return subscriber_.fd();
    if (subscriber_.Connect() < 0) return -1;
    auto reply = subscriber_.Command({"SUBSCRIBE", kBell});
    if (redis::IsError(reply, "subscribe")) {
      subscriber_.Close();
      return -1;
    }
    return subscriber_.fd();
  }

  void AckWake() override { (void)subscriber_.DiscardPending(); }

 private:
  int Remove(int64_t id, const char* what) {
    auto reply = scripts_.Run(connector_, kRemoveScript, {IdText(id)});
    if (redis::IsError(reply, what)) return -1;
    return 0;
  }

  redis::Connector connector_;
  redis::LuaScripts scripts_;
  redis::Connector subscriber_;
};

}  // namespace

int OpenRedisJobStore(const RedisLocation& location, std::unique_ptr<JobStore>& out) {
  auto store = std::make_unique<RedisJobStore>(location);
  if (store->Open() < 0) return -1;
  out = std::move(store);
  return 0;
}

}  // namespace tidepool::core::job_queue
