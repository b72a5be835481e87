#include "recorder_endpoint.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

namespace talvex {

namespace {

bool setNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL, 0);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

RecorderEndpoint::~RecorderEndpoint() {
  stop();
  // A local listener made for an endpoint that never started.
  closeListeners();
}

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
  // A deep queue: a connection the kernel cannot queue waits a whole second for its retry.
  if (listen(listener_, 4096) != 0) return fail("listen");
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

bool RecorderEndpoint::listenLocally(const std::string& name, std::string* error) {
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (name.empty() || name.size() >= sizeof address.sun_path) {
    if (error) *error = "not a socket name: " + name;
    return false;
  }
  memcpy(address.sun_path, name.data(), name.size());
  const bool abstract = name[0] == '@';
  if (abstract) address.sun_path[0] = '\0';
  const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (abstract ? 0 : 1));
  // A socket file left by an endpoint that did not stop cleanly is in the way of a new one; any
  // other file is not the endpoint's to remove.
  struct stat existing;
  if (!abstract && lstat(name.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) unlink(name.c_str());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 4096) != 0) {
    if (error) *error = "cannot listen on " + name + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return false;
  }
  localListener_ = fd;
  if (!abstract) localPath_ = name;
  return true;
}

void RecorderEndpoint::closeListeners() {
  if (listener_ >= 0) close(listener_);
  listener_ = -1;
  if (localListener_ >= 0) close(localListener_);
  localListener_ = -1;
  if (!localPath_.empty()) unlink(localPath_.c_str());
  localPath_.clear();
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

std::vector<std::string> RecorderEndpoint::messages() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return messages_;
}

size_t RecorderEndpoint::cutCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return cut_;
}

size_t RecorderEndpoint::refusedCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return refused_;
}

size_t RecorderEndpoint::sharedRingCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sharedRings_;
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

void RecorderEndpoint::waitForClosedOrQuiet(std::chrono::milliseconds quiet,
                                            std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    const auto now = std::chrono::steady_clock::now();
    if (openConnections_ == 0 && !listenerReady()) return;
    if (now >= deadline || now - lastArrival_ >= quiet) return;
    arrived_.wait_until(lock, std::min(deadline, std::min(lastArrival_ + quiet, now + std::chrono::milliseconds(5))));
  }
}

bool RecorderEndpoint::listenerReady() const {
  pollfd both[2] = {{listener_, POLLIN, 0}, {localListener_, POLLIN, 0}};
  return poll(both, 2, 0) > 0;
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
