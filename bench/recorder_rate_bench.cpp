// Message rates of the recording path, each against a baseline measured in the same run:
//   sink        a minimal non-blocking TCP server that drains each connection and keeps nothing
//               (the floor any endpoint pays for one connection per message)
//   endpoint    talvex-recorder's endpoint, same sender
//   channel     the agent's channel (encode, connect, send, close) into the endpoint
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <errno.h>

#include <atomic>
#include <vector>
#include <chrono>
#include <string>
#include <thread>

#include "message/recorder_message.h"
#include "recorder_endpoint.h"
#include "transport/agent_interface.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kMessages = 10000;

double seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

sockaddr_in loopback(int port) {
  sockaddr_in a;
  memset(&a, 0, sizeof a);
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

// The agent's pattern: one connection per message.
void sendOne(int port, const std::string& message) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = loopback(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) (void)!send(fd, message.data(), message.size(), 0);
  close(fd);
}

// Accepts and drains connections without blocking, like the endpoint, but keeps nothing.
class Sink {
 public:
  Sink() {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in a = loopback(0);
    bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(listener_, 1024);
    socklen_t length = sizeof a;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &length);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~Sink() {
    stop_ = true;
    thread_.join();
    close(listener_);
  }
  int port() const { return port_; }
  long received() const { return received_; }

 private:
  void run() {
    std::vector<pollfd> watched;
    char buffer[65536];
    while (!stop_) {
      watched.resize(1);
      watched[0] = {listener_, POLLIN, 0};
      for (int c : open_) watched.push_back({c, POLLIN, 0});
      if (poll(watched.data(), watched.size(), 50) <= 0) continue;
      std::vector<int> still;
      for (size_t i = 1; i < watched.size(); ++i) {
        if (watched[i].revents == 0) {
          still.push_back(watched[i].fd);
          continue;
        }
        ssize_t n;
        while ((n = read(watched[i].fd, buffer, sizeof buffer)) > 0) {
        }
        if (n == 0 || errno != EAGAIN) {
          close(watched[i].fd);
          ++received_;
        } else {
          still.push_back(watched[i].fd);
        }
      }
      open_.swap(still);
      if (watched[0].revents) {
        for (int c; (c = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;) open_.push_back(c);
      }
    }
  }

  int listener_ = -1;
  int port_ = 0;
  std::vector<int> open_;
  std::atomic<bool> stop_{false};
  std::atomic<long> received_{0};
  std::thread thread_;
};

const std::string kTypical =
    "<send timestamp_ns_I8=\"17979cfe3d85cd15\" timestamp_I8=\"18bcfe5687b\" ticket_I4=\"5\" socket_I8=\"7\" "
    "pid_I4=\"1092\" data_AS=\"GET / HTTP/1.1\\x0d&#x0a;Host: example\\x0d&#x0a;\\x0d&#x0a;\" length_U4=\"29\"/>\n";

double sinkRate() {
  Sink sink;
  const auto start = Clock::now();
  for (int i = 0; i < kMessages; ++i) sendOne(sink.port(), kTypical);
  while (sink.received() < kMessages) std::this_thread::yield();
  return kMessages / seconds(start);
}

double endpointRate() {
  talvex::RecorderEndpoint endpoint;
  endpoint.start("127.0.0.1", 0, nullptr);
  const auto start = Clock::now();
  for (int i = 0; i < kMessages; ++i) sendOne(endpoint.port(), kTypical);
  endpoint.waitForMessages(kMessages, std::chrono::seconds(60));
  return kMessages / seconds(start);
}

double channelRate() {
  talvex::RecorderEndpoint endpoint;
  endpoint.start("127.0.0.1", 0, nullptr);
  const std::string port = std::to_string(endpoint.port());
  AgentInterface channel("127.0.0.1", port.c_str(), nullptr);
  const char payload[] = "GET / HTTP/1.1\r\nHost: example\r\n\r\n";
  const auto start = Clock::now();
  for (int i = 0; i < kMessages; ++i) {
    RecorderMessage message(RMT_SEND, i);
    message.set(RMA_TIMESTAMP, static_cast<int64_t>(1700000000123LL));
    message.set(RMA_TICKET, i);
    message.setInt64(RMA_SOCKET, 7);
    message.set(RMA_PID, 4242);
    message.set(RMA_DATA, payload, static_cast<int>(sizeof payload - 1));
    message.set(RMA_LENGTH, static_cast<unsigned>(sizeof payload - 1));
    channel.sendAMessage(message);
  }
  endpoint.waitForMessages(kMessages, std::chrono::seconds(60));
  return kMessages / seconds(start);
}

}  // namespace

int main() {
  const double sink = sinkRate();
  const double endpoint = endpointRate();
  const double channel = channelRate();
  printf("one connection per message, %d messages of %zu bytes, 32-bit sender on loopback\n", kMessages,
         kTypical.size());
  printf("  %-30s %10.0f msg/s   (baseline)\n", "minimal TCP sink", sink);
  printf("  %-30s %10.0f msg/s   ratio %.2f\n", "talvex-recorder endpoint", endpoint, endpoint / sink);
  printf("  %-30s %10.0f msg/s   ratio %.2f\n", "agent channel into endpoint", channel, channel / sink);
  return 0;
}
