// A bounded HTTP load: N GET requests over C keep-alive connections to a
// server on this machine, reporting latency percentiles and throughput.
//
// usage: http-load HOST PORT PATH REQUESTS CONCURRENCY [COOKIE]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int Connect(const char* host, int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, host, &address.sin_addr);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

// Reads one response (headers with Content-Length, or chunked). False when
// the connection broke or the status is not 200.
bool ReadResponse(int fd, std::string& buffer) {
  size_t header_end;
  while ((header_end = buffer.find("\r\n\r\n")) == std::string::npos) {
    char chunk[16384];
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n <= 0) return false;
    buffer.append(chunk, n);
  }
  const std::string headers = buffer.substr(0, header_end);
  const bool ok = headers.compare(0, 12, "HTTP/1.1 200") == 0;
  size_t body_start = header_end + 4;
  auto pos = headers.find("Content-Length:");
  if (pos == std::string::npos) pos = headers.find("content-length:");
  if (pos != std::string::npos) {
    const size_t length = strtoul(headers.c_str() + pos + 15, nullptr, 10);
    while (buffer.size() < body_start + length) {
      char chunk[16384];
      ssize_t n = read(fd, chunk, sizeof chunk);
      if (n <= 0) return false;
      buffer.append(chunk, n);
    }
    buffer.erase(0, body_start + length);
    return ok;
  }
  // Chunked: read until the terminating chunk.
  while (buffer.find("\r\n0\r\n\r\n", body_start - 2) == std::string::npos) {
    char chunk[16384];
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n <= 0) return false;
    buffer.append(chunk, n);
  }
  buffer.erase(0, buffer.find("\r\n0\r\n\r\n", body_start - 2) + 7);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) {
    fprintf(stderr, "usage: %s HOST PORT PATH REQUESTS CONCURRENCY [COOKIE]\n", argv[0]);
    return 2;
  }
  const char* host = argv[1];
  const int port = atoi(argv[2]);
  const std::string path = argv[3];
  const int requests = atoi(argv[4]);
  const int concurrency = std::max(1, atoi(argv[5]));
  const std::string cookie = argc > 6 ? argv[6] : "";
  std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\n";
  if (!cookie.empty()) request += "Cookie: " + cookie + "\r\n";
  request += "\r\n";

  std::atomic<int> next{0};
  std::atomic<int> failures{0};
  std::vector<std::vector<double>> latencies(concurrency);
  const auto start = Clock::now();
  std::vector<std::thread> workers;
  for (int w = 0; w < concurrency; ++w) {
    workers.emplace_back([&, w] {
      int fd = Connect(host, port);
      std::string buffer;
      while (next.fetch_add(1) < requests) {
        const auto t0 = Clock::now();
        bool ok = fd >= 0 &&
                  write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size());
        ok = ok && ReadResponse(fd, buffer);
        if (!ok) {
          ++failures;
          if (fd >= 0) close(fd);
          fd = Connect(host, port);
          buffer.clear();
          continue;
        }
        latencies[w].push_back(
            std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
      }
      if (fd >= 0) close(fd);
    });
  }
  for (auto& t : workers) t.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> all;
  for (auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
  std::sort(all.begin(), all.end());
  auto pct = [&](double p) {
    return all.empty() ? 0.0 : all[std::min(all.size() - 1, static_cast<size_t>(p * all.size()))];
  };
  printf("requests=%zu failures=%d p50_ms=%.2f p99_ms=%.2f rps=%.0f\n", all.size(), failures.load(),
         pct(0.50), pct(0.99), all.size() / seconds);
  return failures.load() == 0 ? 0 : 1;
}
