// The endpoint's thread: one epoll loop that takes connections, reads them in the order they were
// taken, drains the rings agents share, and hands the bytes to the framing.
#include "recorder_endpoint.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "descriptor_receiving.h"
#include "message_framing.h"
#include "ring_mapping.h"

namespace talvex {

class RecorderEndpoint::Loop : public MessageFraming::Sink {
 public:
  explicit Loop(RecorderEndpoint& endpoint) : endpoint_(endpoint), framing_(*this) {
    framing_.setLongestMessage(endpoint.longestMessage_);
  }
  ~Loop() {
    if (spare_ >= 0) close(spare_);
    if (poller_ >= 0) close(poller_);
  }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  void run();

  void onMessage(std::string_view message, bool lasting) override;
  void onCut(size_t bytesDropped) override;

 private:
  struct Connection {
    int fd;
    bool local;  // taken on the local socket: it may hand over a shared ring
    MessageFraming::Stream stream;
    uint64_t received = 0;
    RingMapping ring;  // once mapped, the connection itself carries only doorbells
  };
  using Connections = std::map<uint64_t, Connection>;

  static const uint64_t kWake = UINT64_MAX;
  static const uint64_t kListener = UINT64_MAX - 1;
  static const size_t kReadSize = 65536;

  bool watch(int fd, uint64_t key);
  // Whether to go on: false once a stop asked for has drained, or its time is up. Sets how long
  // the next wait may last.
  bool stillRunning(int* timeoutMs);
  // Waits for something to do, at most `timeoutMs` (-1: no limit), and gathers the connections
  // to read this round. Returns the count of events, or -1 when waiting failed for good.
  int gatherReady(int timeoutMs);
  void acceptWaiting();
  bool readFrom(Connection& c);
  bool drainRing(Connection& c);
  Connections::iterator closeConnection(Connections::iterator it);
  // Counted and announced once per round, not per message: a busy endpoint spends its time on
  // the messages, not on waking waiters.
  void announce();

  RecorderEndpoint& endpoint_;
  MessageFraming framing_;
  int poller_ = -1;
  // Held in reserve for the moment descriptors run out: closed, it makes room to take the waiting
  // connection and close it at once, instead of finding the listener ready again and again.
  int spare_ = -1;
  // Connections by the order they were accepted: when several have complete messages in the same
  // round, that order is the order in which their peers sent them. Descriptor numbers are reused,
  // so they say nothing about order.
  Connections open_;
  uint64_t nextOrder_ = 0;
  size_t rings_ = 0;  // connections whose messages come through a shared ring
  bool accepting_ = true;
  bool deliveredSinceIdle_ = false;
  bool idleAgain_ = false;  // the idle handler asked to be called again after a moment
  bool tookConnections_ = false;
  size_t deliveredThisRound_ = 0;
  size_t takenThisRound_ = 0;
  std::vector<epoll_event> events_ = std::vector<epoll_event>(256);
  std::vector<uint64_t> ready_;
};

void RecorderEndpoint::run() { Loop(*this).run(); }

void RecorderEndpoint::Loop::onMessage(std::string_view message, bool lasting) {
  if (lasting && endpoint_.lastingHandler_) {
    endpoint_.lastingHandler_(message);
  } else if (endpoint_.handler_) {
    endpoint_.handler_(message);
  }
  ++deliveredThisRound_;
  deliveredSinceIdle_ = true;
  if (endpoint_.keep_) {
    std::lock_guard<std::mutex> lock(endpoint_.mutex_);
    endpoint_.messages_.emplace_back(message);
  }
}

void RecorderEndpoint::Loop::onCut(size_t bytesDropped) {
  {
    std::lock_guard<std::mutex> lock(endpoint_.mutex_);
    ++endpoint_.cut_;
  }
  if (endpoint_.cutHandler_) endpoint_.cutHandler_(bytesDropped);
}

void RecorderEndpoint::Loop::announce() {
  if (deliveredThisRound_ == 0) return;
  std::lock_guard<std::mutex> lock(endpoint_.mutex_);
  endpoint_.received_ += deliveredThisRound_;
  deliveredThisRound_ = 0;
  endpoint_.lastArrival_ = std::chrono::steady_clock::now();
  endpoint_.arrived_.notify_all();
}

bool RecorderEndpoint::Loop::watch(int fd, uint64_t key) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.u64 = key;
  return epoll_ctl(poller_, EPOLL_CTL_ADD, fd, &event) == 0;
}

// What the agent wrote into a connection's ring since it was last read; false when the ring's
// head cannot be believed.
bool RecorderEndpoint::Loop::drainRing(Connection& c) {
  if (!c.ring.mapped()) return true;
  std::string_view first, second;
  if (!c.ring.unread(&first, &second)) return false;
  for (const std::string_view part : {first, second}) framing_.split(c.stream, part.data(), part.data() + part.size(), true);
  takenThisRound_ += first.size() + second.size();
  if (endpoint_.settleHandler_) endpoint_.settleHandler_();
  c.ring.take(first.size() + second.size());
  return true;
}

// Reads what came and splits it into messages; returns false at the end of the stream. On a
// ring's connection the bytes read are doorbells, all read before the ring is, so that one rung
// after that read is still there to wake the next round.
bool RecorderEndpoint::Loop::readFrom(Connection& c) {
  char chunk[kReadSize];
  size_t taken = 0;
  for (;;) {
    // A peer that writes faster than this reads must not hold the others back for ever.
    if (taken >= kMostPerRound) return drainRing(c);
    char* into = c.ring.mapped() ? nullptr : framing_.roomToReadInto(c.stream, kReadSize);
    if (into == nullptr) into = chunk;
    int passed = -1;
    const ssize_t n = c.local ? receiveWithDescriptor(c.fd, into, kReadSize, &passed) : read(c.fd, into, kReadSize);
    // A ring comes with the connection's first byte, once; anything else that carries a
    // descriptor is not an agent.
    if (passed >= 0) {
      if (c.received != 0 || c.ring.mapped()) {
        close(passed);
        return false;
      }
      if (!c.ring.map(passed)) return false;
      ++rings_;
      std::lock_guard<std::mutex> lock(endpoint_.mutex_);
      ++endpoint_.sharedRings_;
    }
    if (n == 0) {
      drainRing(c);
      return false;
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno == EAGAIN && drainRing(c);
    }
    c.received += static_cast<uint64_t>(n);
    taken += static_cast<size_t>(n);
    takenThisRound_ += static_cast<size_t>(n);
    if (c.ring.mapped()) continue;
    const char* at = into != chunk ? framing_.takeReadInto(c.stream, into, static_cast<size_t>(n)) : into;
    framing_.split(c.stream, at, into + n, false);
  }
}

RecorderEndpoint::Loop::Connections::iterator RecorderEndpoint::Loop::closeConnection(Connections::iterator it) {
  Connection& c = it->second;
  if (c.ring.mapped()) --rings_;
  framing_.remove(it->first);
  close(c.fd);
  {
    std::lock_guard<std::mutex> lock(endpoint_.mutex_);
    --endpoint_.openConnections_;
    endpoint_.arrived_.notify_all();
  }
  return open_.erase(it);
}

bool RecorderEndpoint::Loop::stillRunning(int* timeoutMs) {
  *timeoutMs = -1;
  std::lock_guard<std::mutex> lock(endpoint_.mutex_);
  if (!endpoint_.stopping_) return true;
  if (accepting_) {
    for (const int fd : {endpoint_.listener_, endpoint_.localListener_}) {
      if (fd >= 0) epoll_ctl(poller_, EPOLL_CTL_DEL, fd, nullptr);
    }
    endpoint_.closeListeners();
    accepting_ = false;
  }
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(endpoint_.drainUntil_ - std::chrono::steady_clock::now());
  if (open_.empty() || left.count() <= 0) return false;
  *timeoutMs = static_cast<int>(left.count());
  return true;
}

int RecorderEndpoint::Loop::gatherReady(int timeoutMs) {
  int count = epoll_wait(poller_, events_.data(), static_cast<int>(events_.size()), 0);
  // Rings written since they were last read: their writers ring no doorbell while this thread
  // is awake.
  ready_.clear();
  if (rings_ != 0) {
    for (auto& entry : open_) {
      if (entry.second.ring.mapped() && entry.second.ring.hasUnread()) ready_.push_back(entry.first);
    }
  }
  if (count == 0 && ready_.empty()) {
    if ((deliveredSinceIdle_ || idleAgain_) && endpoint_.idleHandler_) {
      const int again = static_cast<int>(endpoint_.idleHandler_().count());
      idleAgain_ = again >= 0;
      if (idleAgain_ && (timeoutMs < 0 || again < timeoutMs)) timeoutMs = again;
    }
    deliveredSinceIdle_ = false;
    // Every ring asks for a doorbell before this thread waits; one written to meanwhile is read
    // at once instead.
    if (rings_ != 0) {
      for (auto& entry : open_) {
        if (entry.second.ring.mapped() && entry.second.ring.askForDoorbell()) ready_.push_back(entry.first);
      }
    }
    if (ready_.empty()) count = epoll_wait(poller_, events_.data(), static_cast<int>(events_.size()), timeoutMs);
  }
  if (count < 0) return errno == EINTR ? 0 : -1;
  for (int i = 0; i < count; ++i) {
    const uint64_t key = events_[i].data.u64;
    if (key == kWake) {
      char sink[16];
      while (read(endpoint_.wakeRead_, sink, sizeof sink) > 0) {
      }
    } else if (key != kListener) {
      ready_.push_back(key);
    }
  }
  return count;
}

// New connections are taken first and in every round, not only in rounds that report the
// listener: with more connections ready than one wait returns, the listener comes up only every
// few rounds, and a queue left waiting while a round's reads go on overflows under a connection
// per message (each connection dropped there is retried by its sender a whole second later).
// Where nothing waits, this costs one refused accept. A round takes at most a full queue.
void RecorderEndpoint::Loop::acceptWaiting() {
  tookConnections_ = false;
  for (const int listener : {endpoint_.listener_, endpoint_.localListener_}) {
    if (!accepting_ || listener < 0) continue;
    for (int round = 0; round < 4096; ++round) {
      const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if ((errno == EMFILE || errno == ENFILE) && spare_ >= 0) {
          close(spare_);
          const int refused = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
          if (refused >= 0) close(refused);
          spare_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
          std::lock_guard<std::mutex> lock(endpoint_.mutex_);
          ++endpoint_.refused_;
          continue;
        }
        break;
      }
      const uint64_t order = nextOrder_++;
      if (!watch(fd, order)) {
        close(fd);
        continue;
      }
      Connection& c = open_.emplace(order, Connection{fd, listener == endpoint_.localListener_, {}, 0, RingMapping()})
                          .first->second;
      framing_.add(order, &c.stream);
      tookConnections_ = true;
      std::lock_guard<std::mutex> lock(endpoint_.mutex_);
      ++endpoint_.connections_;
      ++endpoint_.openConnections_;
    }
  }
}

void RecorderEndpoint::Loop::run() {
  poller_ = epoll_create1(EPOLL_CLOEXEC);
  if (poller_ < 0) return;
  watch(endpoint_.wakeRead_, kWake);
  watch(endpoint_.listener_, kListener);
  if (endpoint_.localListener_ >= 0) watch(endpoint_.localListener_, kListener);
  spare_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  for (;;) {
    int timeoutMs = -1;
    if (!stillRunning(&timeoutMs)) break;
    const int count = gatherReady(timeoutMs);
    if (count < 0) break;
    if (count == 0 && ready_.empty()) continue;
    acceptWaiting();
    // Ready connections are read in the order they were accepted; those just taken come up in
    // the next round.
    std::sort(ready_.begin(), ready_.end());
    ready_.erase(std::unique(ready_.begin(), ready_.end()), ready_.end());
    for (const uint64_t key : ready_) {
      const auto it = open_.find(key);
      if (it != open_.end() && !readFrom(it->second)) closeConnection(it);
    }
    // A round that took only a little, on connections it already had, woke this thread for a few
    // small messages. Waiting a moment before the next round lets the next ones gather in their
    // sockets, where they wake nobody: a program sending message after message on its one
    // connection then shares its processor with this thread once a millisecond instead of once a
    // message. Connections made for one message each gather nothing by waiting.
    const bool fewSmall = deliveredThisRound_ != 0 && takenThisRound_ < kGatheringBelow && !tookConnections_;
    takenThisRound_ = 0;
    announce();
    if (fewSmall) usleep(kGatheringMicroseconds);
  }
  for (auto it = open_.begin(); it != open_.end();) it = closeConnection(it);
  announce();
  if (endpoint_.idleHandler_) endpoint_.idleHandler_();
  endpoint_.closeListeners();
}

}  // namespace talvex
