#include "recorder_endpoint.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace talvex {

namespace {

bool setNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL, 0);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

RecorderEndpoint::~RecorderEndpoint() { stop(); }

bool RecorderEndpoint::start(const std::string& address, int port, std::string* error) {
  auto fail = [&](const std::string& what) {
    if (error) *error = what + ": " + strerror(errno);
    if (listener_ >= 0) close(listener_);
    listener_ = -1;
    return false;
  };
  sockaddr_storage storage;
  memset(&storage, 0, sizeof storage);
  socklen_t length = 0;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
  if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<uint16_t>(port));
    length = sizeof *v4;
  } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(port));
    length = sizeof *v6;
  } else {
    if (error) *error = "not an IPv4 or IPv6 address: " + address;
    return false;
  }
  listener_ = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0) return fail("socket");
  const int one = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&storage), length) != 0) return fail("bind " + address);
  if (listen(listener_, 512) != 0) return fail("listen");
  if (!setNonBlocking(listener_)) return fail("fcntl");
  socklen_t boundLength = sizeof storage;
  getsockname(listener_, reinterpret_cast<sockaddr*>(&storage), &boundLength);
  port_ = ntohs(storage.ss_family == AF_INET ? v4->sin_port : v6->sin6_port);
  int wake[2];
  if (pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) return fail("pipe");
  wakeRead_ = wake[0];
  wakeWrite_ = wake[1];
  thread_ = std::thread([this] { run(); });
  return true;
}

void RecorderEndpoint::stop(std::chrono::milliseconds drain) {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    drainUntil_ = std::chrono::steady_clock::now() + drain;
  }
  const char byte = 0;
  (void)!write(wakeWrite_, &byte, 1);
  thread_.join();
  close(wakeRead_);
  close(wakeWrite_);
  wakeRead_ = wakeWrite_ = -1;
}

void RecorderEndpoint::run() {
  // Open connections in the order they were accepted: when several end in the same poll round,
  // that order is the order in which the peer sent them. Descriptor numbers are reused, so they
  // say nothing about order.
  struct Connection {
    int fd;
    std::string data;
    bool done;
  };
  std::vector<Connection> open;
  bool accepting = true;
  auto deliver = [&](std::string message) {
    if (handler_) handler_(message);
    std::lock_guard<std::mutex> lock(mutex_);
    ++received_;
    if (keep_) messages_.push_back(std::move(message));
    lastArrival_ = std::chrono::steady_clock::now();
    arrived_.notify_all();
  };
  for (;;) {
    std::vector<pollfd> watched;
    watched.push_back({wakeRead_, POLLIN, 0});
    watched.push_back({accepting ? listener_ : -1, POLLIN, 0});
    for (const Connection& c : open) watched.push_back({c.fd, POLLIN, 0});
    int timeoutMs = -1;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) {
        if (accepting) {
          close(listener_);
          listener_ = -1;
          accepting = false;
          continue;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(drainUntil_ -
                                                                                 std::chrono::steady_clock::now());
        if (open.empty() || left.count() <= 0) break;
        timeoutMs = static_cast<int>(left.count());
      }
    }
    const int ready = poll(watched.data(), watched.size(), timeoutMs);
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    if (watched[0].revents) {
      char sink[16];
      while (read(wakeRead_, sink, sizeof sink) > 0) {
      }
    }
    // Connections first, then new ones: a new connection cannot have ended before an older one.
    for (size_t i = 0; i < open.size(); ++i) {
      if (watched[i + 2].revents == 0) continue;
      Connection& c = open[i];
      char chunk[65536];
      for (;;) {
        const ssize_t n = read(c.fd, chunk, sizeof chunk);
        if (n > 0) {
          c.data.append(chunk, static_cast<size_t>(n));
          continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR)) c.done = true;
        break;
      }
    }
    for (Connection& c : open) {
      if (!c.done) continue;
      close(c.fd);
      deliver(std::move(c.data));
    }
    open.erase(std::remove_if(open.begin(), open.end(), [](const Connection& c) { return c.done; }), open.end());
    if (accepting && watched[1].revents) {
      for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) break;
        open.push_back({fd, std::string(), false});
        std::lock_guard<std::mutex> lock(mutex_);
        ++connections_;
      }
    }
  }
  // What is still open when the endpoint stops is kept as it stands: a truncated message is
  // better evidence than none.
  for (Connection& c : open) {
    close(c.fd);
    if (!c.data.empty()) deliver(std::move(c.data));
  }
  if (listener_ >= 0) close(listener_);
  listener_ = -1;
}

std::vector<std::string> RecorderEndpoint::messages() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return messages_;
}

size_t RecorderEndpoint::connectionCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return connections_;
}

size_t RecorderEndpoint::waitForMessages(size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  arrived_.wait_for(lock, timeout, [&] { return received_ >= count; });
  return received_;
}

void RecorderEndpoint::waitForQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline || now - lastArrival_ >= quiet) return;
    arrived_.wait_until(lock, std::min(deadline, lastArrival_ + quiet));
  }
}

}  // namespace talvex
