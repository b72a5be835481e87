// A TCP endpoint that takes one recorder message per connection: everything a peer sends until
// it closes is one message. Messages are kept in the order their connections ended, which is the
// order the agent sent them, since it sends one at a time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace talvex {

class RecorderEndpoint {
 public:
  using MessageHandler = std::function<void(const std::string&)>;

  RecorderEndpoint() = default;
  ~RecorderEndpoint();
  RecorderEndpoint(const RecorderEndpoint&) = delete;
  RecorderEndpoint& operator=(const RecorderEndpoint&) = delete;

  // Listens on address:port (port 0: the system chooses). Returns false with `error` filled in.
  bool start(const std::string& address, int port, std::string* error);
  int port() const { return port_; }

  // Called on the endpoint's thread for each completed message, before it is stored.
  void setHandler(MessageHandler handler) { handler_ = std::move(handler); }
  // Whether messages are kept for messages() (the default); a caller that handles each one as it
  // comes need not keep them all in memory.
  void keepMessages(bool keep) { keep_ = keep; }

  // Stops accepting; connections still open are read to their end for up to `drain`.
  void stop(std::chrono::milliseconds drain = std::chrono::milliseconds(0));

  std::vector<std::string> messages() const;
  size_t connectionCount() const;
  // Waits until at least `count` messages arrived or `timeout` passed; returns the count reached.
  size_t waitForMessages(size_t count, std::chrono::milliseconds timeout) const;
  // Waits until no message arrived for `quiet`, bounded by `timeout`.
  void waitForQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const;

 private:
  void run();

  int listener_ = -1;
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
  int port_ = 0;
  std::thread thread_;
  MessageHandler handler_;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<std::string> messages_;
  size_t received_ = 0;
  bool keep_ = true;
  size_t connections_ = 0;
  std::chrono::steady_clock::time_point lastArrival_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point drainUntil_{};
  bool stopping_ = false;
};

}  // namespace talvex
