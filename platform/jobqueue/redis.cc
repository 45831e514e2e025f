#include "redis.h"

#include <poll.h>

#include <cstring>

#include "logger.h"

namespace tidepool::core::redis {

namespace {

// A queue that cannot be reached must not hold a request up: Push answers
// negative within these and the request falls back to doing the work itself.
constexpr timeval kConnectTimeout = {1, 0};
constexpr timeval kCommandTimeout = {2, 0};

}  // namespace

bool IsError(const Reply& reply, const char* what) {
  if (!reply) return true;
  if (reply->type != REDIS_REPLY_ERROR) return false;
  LOG_ERROR("job queue: %s: %.*s\n", what, static_cast<int>(reply->len), reply->str);
  return true;
}

int Connector::Connect() {
  if (context_) return 0;
  redisContext* context =
      redisConnectWithTimeout(endpoint_.host.c_str(), endpoint_.port, kConnectTimeout);
  if (!context || context->err) {
    LOG_ERROR("cannot reach the job queue at %s:%d: %s\n", endpoint_.host.c_str(), endpoint_.port,
              context ? context->errstr : "out of memory");
    if (context) redisFree(context);
    return -1;
  }
  if (redisSetTimeout(context, kCommandTimeout) != REDIS_OK) {
    redisFree(context);
    return -1;
  }
  context_ = context;
  std::vector<std::vector<std::string>> setup;
  if (endpoint_.has_password) {
    if (endpoint_.user.empty()) {
      setup.push_back({"AUTH", endpoint_.password});
    } else {
      setup.push_back({"AUTH", endpoint_.user, endpoint_.password});
    }
  }
  if (endpoint_.db != 0) setup.push_back({"SELECT", std::to_string(endpoint_.db)});
  for (const auto& command : setup) {
    if (IsError(Raw(command), command[0].c_str())) {
      Close();
      return -1;
    }
  }
  return 0;
}

void Connector::Close() {
  if (context_) redisFree(context_);
  context_ = nullptr;
}

int Connector::fd() const { return context_ ? context_->fd : -1; }

Reply Connector::Raw(const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  std::vector<size_t> lengths;
  for (const auto& arg : args) {
    argv.push_back(arg.data());
    lengths.push_back(arg.size());
  }
  Reply reply(static_cast<redisReply*>(
      redisCommandArgv(context_, static_cast<int>(argv.size()), argv.data(), lengths.data())));
  if (!reply || context_->err) {
    LOG_ERROR("job queue connection lost: %s\n", context_->err ? context_->errstr : "no reply");
    Close();
    return nullptr;
  }
  return reply;
}

Reply Connector::Command(const std::vector<std::string>& args) {
  if (Connect() < 0) return nullptr;
  return Raw(args);
}

int Connector::DiscardPending() {
  if (!context_) return -1;
  for (;;) {
    void* message = nullptr;
    // Messages already read into hiredis's buffer first, then the socket.
    while (redisGetReplyFromReader(context_, &message) == REDIS_OK && message) {
      freeReplyObject(message);
      message = nullptr;
    }
    pollfd p = {context_->fd, POLLIN, 0};
    if (poll(&p, 1, 0) <= 0) return 0;
    // Readable: one read cannot block. EOF or an error means the server
    // went away.
    if (redisBufferRead(context_) != REDIS_OK) {
      Close();
      return -1;
    }
  }
}

int LuaScripts::Load(Connector& connector, size_t index) {
  Reply reply = connector.Command({"SCRIPT", "LOAD", sources_[index]});
  if (IsError(reply, "script load") || reply->type != REDIS_REPLY_STRING) return -1;
  digests_[index].assign(reply->str, reply->len);
  return 0;
}

Reply LuaScripts::Run(Connector& connector, size_t index, const std::vector<std::string>& args) {
  if (digests_[index].empty() && Load(connector, index) < 0) return nullptr;
  std::vector<std::string> command = {"EVALSHA", digests_[index], "0"};
  command.insert(command.end(), args.begin(), args.end());
  Reply reply = connector.Command(command);
  if (reply && reply->type == REDIS_REPLY_ERROR && strncmp(reply->str, "NOSCRIPT", 8) == 0) {
    // The script did not run: loading it and running it again is safe.
    if (Load(connector, index) < 0) return nullptr;
    command[1] = digests_[index];
    reply = connector.Command(command);
  }
  return reply;
}

}  // namespace tidepool::core::redis
