#include "scripted_socks_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace talvex_test {

ScriptedSocksServer::ScriptedSocksServer(const std::string& address, const SocksScript& script) : script_(script) {
  sockaddr_storage storage;
  memset(&storage, 0, sizeof storage);
  socklen_t length;
  if (address.find(':') != std::string::npos) {
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    v6->sin6_family = AF_INET6;
    inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr);
    length = sizeof *v6;
  } else {
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    v4->sin_family = AF_INET;
    inet_pton(AF_INET, address.c_str(), &v4->sin_addr);
    length = sizeof *v4;
  }
  listener_ = socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  bind(listener_, reinterpret_cast<sockaddr*>(&storage), length);
  listen(listener_, 4);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&storage), &length);
  port_ = ntohs(storage.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port
                                              : reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
  if (pipe2(wake_, O_CLOEXEC) == 0) thread_ = std::thread([this] { serve(); });
}

ScriptedSocksServer::~ScriptedSocksServer() {
  if (wake_[1] >= 0) (void)!write(wake_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  close(listener_);
  close(wake_[0]);
  close(wake_[1]);
}

std::string ScriptedSocksServer::received() {
  if (wake_[1] >= 0) (void)!write(wake_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  return received_;
}

void ScriptedSocksServer::serve() {
  // Every wait also watches the wake pipe, so that the test can always end the server.
  auto wait = [this](int fd) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    return poll(fds, 2, 30000) > 0 && fds[0].revents != 0;
  };
  if (!wait(listener_)) return;
  const int client = accept(listener_, nullptr, nullptr);
  if (client < 0) return;
  if (script_.closeAtOnce) {
    close(client);
    return;
  }
  auto readSome = [&](size_t n) {
    std::string got;
    while (got.size() < n && wait(client)) {
      char chunk[64];
      const ssize_t r = read(client, chunk, std::min(sizeof chunk, n - got.size()));
      if (r <= 0) break;
      got.append(chunk, static_cast<size_t>(r));
    }
    received_ += got;
    return got;
  };
  readSome(3);
  if (script_.neverAnswer) {
    wait(client);  // until the client gives up and closes, or the test ends
    close(client);
    return;
  }
  auto reply = [&](const std::string& bytes) {
    // MSG_NOSIGNAL: a client that gave up and closed must not end the test with SIGPIPE.
    if (!script_.inPieces) {
      (void)!send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      return;
    }
    for (char byte : bytes) {
      (void)!send(client, &byte, 1, MSG_NOSIGNAL);
      usleep(100 * 1000);
    }
  };
  if (script_.methodDelayMs > 0) usleep(static_cast<useconds_t>(script_.methodDelayMs) * 1000);
  reply(script_.methodReply);
  // Request: 4 bytes of head, then 4 or 16 of address and 2 of port.
  const std::string head = readSome(4);
  if (head.size() == 4) readSome(head[3] == 4 ? 18 : 6);
  if (script_.replyDelayMs > 0) usleep(static_cast<useconds_t>(script_.replyDelayMs) * 1000);
  reply(script_.requestReply);
  char chunk[4096];
  while (wait(client)) {
    const ssize_t r = read(client, chunk, sizeof chunk);
    if (r <= 0) break;
    received_.append(chunk, static_cast<size_t>(r));
    (void)!write(client, chunk, static_cast<size_t>(r));
  }
  close(client);
}

}  // namespace talvex_test
