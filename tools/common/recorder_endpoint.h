// A TCP endpoint for recorder messages. Every message ends with a line feed (the encoding escapes
// any inside a value), so a connection may carry one message, as the agent's plain channel sends
// them, or many, as its persistent channel does; what a peer sends before closing without a line
// feed is one (truncated) message. Messages are delivered as their line feeds arrive, in the order
// their peers sent them. Memory is bounded whatever peers send: a message longer than the limit
// is cut (dropped up to its line feed) and counted, and when all unfinished messages together
// exceed four times the limit the longest is cut.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace talvex {

class RecorderEndpoint {
 public:
  // The message is valid for the call only.
  using MessageHandler = std::function<void(std::string_view)>;

  RecorderEndpoint() = default;
  ~RecorderEndpoint();
  RecorderEndpoint(const RecorderEndpoint&) = delete;
  RecorderEndpoint& operator=(const RecorderEndpoint&) = delete;

  // Listens on address:port (port 0: the system chooses). Returns false with `error` filled in.
  bool start(const std::string& address, int port, std::string* error);
  // Before start: listens on a local (Unix) stream socket as well, whose name is a path, or
  // '@' and a name in the abstract namespace. False with `error` filled in.
  bool listenLocally(const std::string& name, std::string* error);
  int port() const { return port_; }

  // Called on the endpoint's thread for each completed message, before it is stored.
  void setHandler(MessageHandler handler) { handler_ = std::move(handler); }
  // Takes the messages that lie whole in a ring an agent shares, in place of the handler above:
  // each stays valid until `settle` is next called, which happens before its bytes go back to the
  // agent, so that a writer may keep a view of it until then instead of a copy.
  void setLastingHandler(MessageHandler lasting, std::function<void()> settle) {
    lastingHandler_ = std::move(lasting);
    settleHandler_ = std::move(settle);
  }
  // Whether messages are kept for messages() (the default); a caller that handles each one as it
  // comes need not keep them all in memory.
  void keepMessages(bool keep) { keep_ = keep; }
  // Called on the endpoint's thread when it has nothing to read after delivering messages (a
  // writer flushes its output then), and once more when it stops. It returns how long from now it
  // wants to be called again if nothing arrives meanwhile (a writer that holds a partial block back
  // for a moment), or a negative duration for not at all.
  using IdleHandler = std::function<std::chrono::milliseconds()>;
  void setIdleHandler(IdleHandler handler) { idleHandler_ = std::move(handler); }
  // Called with the bytes dropped when a message is cut.
  void setCutHandler(std::function<void(size_t)> handler) { cutHandler_ = std::move(handler); }
  // The longest message kept whole (default 64 MiB).
  void setLongestMessage(size_t bytes) { longestMessage_ = bytes; }

  // Stops accepting; connections still open are read to their end for up to `drain`.
  void stop(std::chrono::milliseconds drain = std::chrono::milliseconds(0));

  std::vector<std::string> messages() const;
  size_t connectionCount() const;
  // Connections whose messages came through a ring their agent shared.
  size_t sharedRingCount() const;
  // Messages cut for their length; connections refused because descriptors ran out.
  size_t cutCount() const;
  size_t refusedCount() const;
  // Waits until at least `count` messages arrived or `timeout` passed; returns the count reached.
  size_t waitForMessages(size_t count, std::chrono::milliseconds timeout) const;
  // Waits until no message arrived for `quiet`, bounded by `timeout`.
  void waitForQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const;
  // The same, but returns as soon as no connection is open and none is waiting to be taken.
  void waitForClosedOrQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const;

 private:
  // The endpoint's thread (recorder_endpoint_loop.cpp).
  class Loop;
  void run();
  // Whether a connection waits in a listener's queue.
  bool listenerReady() const;
  void closeListeners();

  int listener_ = -1;
  int localListener_ = -1;
  std::string localPath_;  // a path to unlink when the endpoint stops
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
  int port_ = 0;
  std::thread thread_;
  static const size_t kMostPerRound = 64u << 20;
  // Rounds that take less than this are followed by a pause of this long.
  static const size_t kGatheringBelow = 64u << 10;
  static const unsigned kGatheringMicroseconds = 1000;

  MessageHandler handler_;
  MessageHandler lastingHandler_;
  std::function<void()> settleHandler_;
  IdleHandler idleHandler_;
  std::function<void(size_t)> cutHandler_;
  size_t longestMessage_ = 64u << 20;
  size_t cut_ = 0;
  size_t refused_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<std::string> messages_;
  size_t received_ = 0;
  bool keep_ = true;
  size_t connections_ = 0;
  size_t sharedRings_ = 0;
  size_t openConnections_ = 0;  // taken and not yet closed
  std::chrono::steady_clock::time_point lastArrival_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point drainUntil_{};
  bool stopping_ = false;
};

}  // namespace talvex
