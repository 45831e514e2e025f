#include "event-loop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "logger.h"

namespace driftway {

EventLoop::EventLoop() : epoll_fd_(epoll_create1(EPOLL_CLOEXEC)) {}

EventLoop::~EventLoop() {
  if (epoll_fd_ >= 0) close(epoll_fd_);
}

int EventLoop::Add(int fd, uint32_t events, Handler handler) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) != 0) {
    LOG_ERROR("epoll_ctl(add %d): %s (%d)\n", fd, strerror(errno), errno);
    return -1;
  }
  handlers_[fd] = std::make_shared<Handler>(std::move(handler));
  return 0;
}

int EventLoop::Modify(int fd, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &event) == 0 ? 0 : -1;
}

void EventLoop::Remove(int fd) {
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
  handlers_.erase(fd);
}

int EventLoop::Run() {
  running_ = true;
  epoll_event events[32];
  while (running_) {
    const int n = epoll_wait(epoll_fd_, events, 32, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      LOG_ERROR("epoll_wait: %s (%d)\n", strerror(errno), errno);
      return -1;
    }
    for (int i = 0; i < n && running_; ++i) {
      // A handler earlier in this batch may have removed this fd.
      const auto it = handlers_.find(events[i].data.fd);
      if (it == handlers_.end()) continue;
      const std::shared_ptr<Handler> handler = it->second;
      (*handler)(events[i].events);
    }
  }
  return 0;
}

}  // namespace driftway
