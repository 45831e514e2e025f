// A small epoll loop: the daemon's control socket, its clients and signals
// are file descriptors with a handler each; folder watches (inotify) and
// timers (timerfd) plug in the same way.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

namespace driftway {

class EventLoop {
 public:
  using Handler = std::function<void(uint32_t events)>;

  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  bool ok() const { return epoll_fd_ >= 0; }
  // `events` are EPOLLIN / EPOLLOUT bits. The loop does not own `fd`.
  int Add(int fd, uint32_t events, Handler handler);
  int Modify(int fd, uint32_t events);
  // Safe from inside a handler, also for the fd being handled.
  void Remove(int fd);

  // Dispatches until Stop(); 0, or -1 when waiting fails.
  int Run();
  void Stop() { running_ = false; }

 private:
  int epoll_fd_;
  bool running_ = false;
  // Shared so that a handler that removes itself stays alive until it returns.
  std::unordered_map<int, std::shared_ptr<Handler>> handlers_;
};

}  // namespace driftway
