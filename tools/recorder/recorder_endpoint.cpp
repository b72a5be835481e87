#include "recorder_endpoint.h"

#include "pending_message.h"
#include "ring_mapping.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stddef.h>
#include <sys/epoll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace talvex {

namespace {

// A read from a local connection, which may carry descriptors: the first is handed back in
// `passed` (close-on-exec), any other closed at once.
ssize_t receiveLocally(int fd, char* into, size_t size, int* passed) {
  iovec data = {into, size};
  union {
    cmsghdr header;
    char space[CMSG_SPACE(sizeof(int) * 8)];
  } control;
  msghdr message;
  memset(&message, 0, sizeof message);
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.space;
  message.msg_controllen = sizeof control.space;
  const ssize_t n = recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
  if (n < 0) return n;
  for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int descriptor;
      memcpy(&descriptor, CMSG_DATA(c) + i * sizeof(int), sizeof descriptor);
      if (*passed < 0) {
        *passed = descriptor;
      } else {
        close(descriptor);
      }
    }
  }
  return n;
}

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

void RecorderEndpoint::run() {
  // Connections by the order they were accepted: when several have complete messages in the same
  // round, that order is the order in which their peers sent them. Descriptor numbers are reused,
  // so they say nothing about order.
  struct Connection {
    int fd;
    PendingMessage pending;
    bool cutting = false;  // the rest of an over-long message is being skipped
    bool local = false;    // taken on the local socket: it may hand over a shared ring
    uint64_t received = 0;
    RingMapping ring;      // once mapped, the connection itself carries only doorbells
  };
  std::map<uint64_t, Connection> open;
  uint64_t nextOrder = 0;
  size_t pendingBytes = 0;
  size_t rings = 0;  // connections whose messages come through a shared ring
  bool accepting = true;
  bool deliveredSinceIdle = false;
  bool idleAgain = false;  // the idle handler asked to be called again after a moment
  const uint64_t kWake = UINT64_MAX, kListener = UINT64_MAX - 1;

  const int poller = epoll_create1(EPOLL_CLOEXEC);
  if (poller < 0) return;
  auto watch = [&](int fd, uint64_t key) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = key;
    return epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event) == 0;
  };
  watch(wakeRead_, kWake);
  watch(listener_, kListener);
  if (localListener_ >= 0) watch(localListener_, kListener);
  // Held in reserve for the moment descriptors run out: closed, it makes room to take the waiting
  // connection and close it at once, instead of finding the listener ready again and again.
  int spare = ::open("/dev/null", O_RDONLY | O_CLOEXEC);

  // Counted and announced once per round, not per message: a busy endpoint spends its time on
  // the messages, not on waking waiters.
  size_t deliveredThisRound = 0;
  size_t takenThisRound = 0;
  auto deliver = [&](std::string_view message, bool lasting) {
    if (lasting && lastingHandler_) {
      lastingHandler_(message);
    } else if (handler_) {
      handler_(message);
    }
    ++deliveredThisRound;
    deliveredSinceIdle = true;
    if (keep_) {
      std::lock_guard<std::mutex> lock(mutex_);
      messages_.emplace_back(message);
    }
  };
  // A message that came whole in one read is handed over where it lies in the read buffer, one
  // that came in pieces from its connection's own storage, which the rest is read straight into
  // and which is kept from message to message: the endpoint allocates nothing per message. What a
  // long message made that storage grow to is given back, so that one long message does not pin
  // its size for the connection's life.
  auto announce = [&] {
    if (deliveredThisRound == 0) return;
    std::lock_guard<std::mutex> lock(mutex_);
    received_ += deliveredThisRound;
    deliveredThisRound = 0;
    lastArrival_ = std::chrono::steady_clock::now();
    arrived_.notify_all();
  };
  auto cut = [&](Connection& c) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++cut_;
    }
    if (cutHandler_) cutHandler_(c.pending.size());
    pendingBytes -= c.pending.size();
    c.pending.release();
    c.cutting = true;
  };
  // Splits bytes of a connection's stream into messages at their line feeds. `lasting`: the bytes
  // lie in a ring, and stay there until it is settled.
  auto split = [&](Connection& c, const char* at, const char* end, bool lasting) {
    while (at < end) {
      const char* feed = static_cast<const char*>(memchr(at, '\n', static_cast<size_t>(end - at)));
      const char* stop = feed != nullptr ? feed + 1 : end;
      if (feed != nullptr && !c.cutting && c.pending.empty()) {
        deliver(std::string_view(at, static_cast<size_t>(stop - at)), lasting);
        at = stop;
        continue;
      }
      if (!c.cutting) {
        if (c.pending.append(at, static_cast<size_t>(stop - at))) {
          pendingBytes += static_cast<size_t>(stop - at);
        } else {
          cut(c);
        }
      }
      if (feed != nullptr) {
        if (!c.cutting) {
          pendingBytes -= c.pending.size();
          deliver(c.pending.view(), false);
          c.pending.clear(kKeptStorage);
        }
        c.cutting = false;
      } else if (!c.cutting && c.pending.size() > longestMessage_) {
        cut(c);
      }
      at = stop;
    }
    if (c.pending.empty()) c.pending.clear(kKeptStorage);
    // Over the budget for all connections together: the longest unfinished message goes.
    while (pendingBytes > 4 * longestMessage_) {
      auto largest = std::max_element(open.begin(), open.end(), [](const auto& a, const auto& b) {
        return a.second.pending.size() < b.second.pending.size();
      });
      cut(largest->second);
    }
  };
  // What the agent wrote into a connection's ring since it was last read; false when the ring's
  // head cannot be believed.
  auto drainRing = [&](Connection& c) {
    if (!c.ring.mapped()) return true;
    std::string_view first, second;
    if (!c.ring.unread(&first, &second)) return false;
    for (const std::string_view part : {first, second}) split(c, part.data(), part.data() + part.size(), true);
    takenThisRound += first.size() + second.size();
    if (settleHandler_) settleHandler_();
    c.ring.take(first.size() + second.size());
    return true;
  };
  // Reads what came and splits it into messages; returns false at the end of the stream. On a
  // ring's connection the bytes read are doorbells, all read before the ring is, so that one
  // rung after that read is still there to wake the next round.
  auto readFrom = [&](Connection& c) {
    const size_t kReadSize = 65536;
    char chunk[kReadSize];
    size_t taken = 0;
    for (;;) {
      // A peer that writes faster than this reads must not hold the others back for ever.
      if (taken >= kMostPerRound) return drainRing(c);
      // The rest of a long message begun in an earlier read is read where it continues; a short
      // start (the last of many small messages in a read) is cheaper copied once more.
      char* into = chunk;
      if (!c.cutting && c.pending.size() >= kReadSize / 4 && !c.ring.mapped()) {
        into = c.pending.room(kReadSize);
        if (into == nullptr) {
          cut(c);
          into = chunk;
        }
      }
      int passed = -1;
      const ssize_t n = c.local ? receiveLocally(c.fd, into, kReadSize, &passed) : read(c.fd, into, kReadSize);
      // A ring comes with the connection's first byte, once; anything else that carries a
      // descriptor is not an agent.
      if (passed >= 0) {
        if (c.received != 0 || c.ring.mapped()) {
          close(passed);
          return false;
        }
        if (!c.ring.map(passed)) return false;
        ++rings;
        std::lock_guard<std::mutex> lock(mutex_);
        ++sharedRings_;
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
      takenThisRound += static_cast<size_t>(n);
      if (c.ring.mapped()) continue;
      const char* at = into;
      const char* end = into + n;
      if (into != chunk) {
        const char* feed = static_cast<const char*>(memchr(at, '\n', static_cast<size_t>(n)));
        const size_t part = feed != nullptr ? static_cast<size_t>(feed + 1 - at) : static_cast<size_t>(n);
        c.pending.commit(part);
        pendingBytes += part;
        at += part;
        if (feed != nullptr) {
          pendingBytes -= c.pending.size();
          deliver(c.pending.view(), false);
          // What came after the line feed lies past the message in the same storage, which is
          // kept until that has been handled below.
          c.pending.clear(static_cast<size_t>(-1));
        } else if (c.pending.size() > longestMessage_) {
          cut(c);
        }
      }
      split(c, at, end, false);
    }
  };
  auto closeConnection = [&](std::map<uint64_t, Connection>::iterator it) {
    Connection& c = it->second;
    if (c.ring.mapped()) --rings;
    // A message cut short by its peer's end is kept as it stands: better evidence than none.
    if (!c.cutting && !c.pending.empty()) {
      pendingBytes -= c.pending.size();
      deliver(c.pending.view(), false);
    }
    close(c.fd);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      --openConnections_;
      arrived_.notify_all();
    }
    return open.erase(it);
  };

  std::vector<epoll_event> events(256);
  std::vector<uint64_t> ready;
  for (;;) {
    int timeoutMs = -1;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) {
        if (accepting) {
          for (const int fd : {listener_, localListener_}) {
            if (fd >= 0) epoll_ctl(poller, EPOLL_CTL_DEL, fd, nullptr);
          }
          closeListeners();
          accepting = false;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(drainUntil_ -
                                                                                 std::chrono::steady_clock::now());
        if (open.empty() || left.count() <= 0) break;
        timeoutMs = static_cast<int>(left.count());
      }
    }
    int count = epoll_wait(poller, events.data(), static_cast<int>(events.size()), 0);
    // Rings written since they were last read: their writers ring no doorbell while this thread
    // is awake.
    ready.clear();
    if (rings != 0) {
      for (auto& entry : open) {
        if (entry.second.ring.mapped() && entry.second.ring.hasUnread()) ready.push_back(entry.first);
      }
    }
    if (count == 0 && ready.empty()) {
      if ((deliveredSinceIdle || idleAgain) && idleHandler_) {
        const int again = static_cast<int>(idleHandler_().count());
        idleAgain = again >= 0;
        if (idleAgain && (timeoutMs < 0 || again < timeoutMs)) timeoutMs = again;
      }
      deliveredSinceIdle = false;
      // Every ring asks for a doorbell before this thread waits; one written to meanwhile is
      // read at once instead.
      if (rings != 0) {
        for (auto& entry : open) {
          if (entry.second.ring.mapped() && entry.second.ring.askForDoorbell()) ready.push_back(entry.first);
        }
      }
      if (ready.empty()) count = epoll_wait(poller, events.data(), static_cast<int>(events.size()), timeoutMs);
    }
    if (count < 0 && errno != EINTR) break;
    if (count < 0) count = 0;
    if (count == 0 && ready.empty()) continue;
    for (int i = 0; i < count; ++i) {
      const uint64_t key = events[i].data.u64;
      if (key == kWake) {
        char sink[16];
        while (read(wakeRead_, sink, sizeof sink) > 0) {
        }
      } else if (key != kListener) {
        ready.push_back(key);
      }
    }
    // New connections are taken first and in every round, not only in rounds that report the
    // listener: with more connections ready than one wait returns, the listener comes up only
    // every few rounds, and a queue left waiting while a round's reads go on overflows under a
    // connection per message (each connection dropped there is retried by its sender a whole
    // second later). Where nothing waits, this costs one refused accept. A round takes at most a
    // full queue.
    bool tookConnections = false;
    for (const int listener : {listener_, localListener_}) {
      if (!accepting || listener < 0) continue;
      for (int round = 0; round < 4096; ++round) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
          if ((errno == EMFILE || errno == ENFILE) && spare >= 0) {
            close(spare);
            const int refused = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (refused >= 0) close(refused);
            spare = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            std::lock_guard<std::mutex> lock(mutex_);
            ++refused_;
            continue;
          }
          break;
        }
        const uint64_t order = nextOrder++;
        if (!watch(fd, order)) {
          close(fd);
          continue;
        }
        open.emplace(order, Connection{fd, PendingMessage(), false, listener == localListener_, 0, RingMapping()});
        tookConnections = true;
        std::lock_guard<std::mutex> lock(mutex_);
        ++connections_;
        ++openConnections_;
      }
    }
    // Ready connections are read in the order they were accepted; those just taken come up in
    // the next round.
    std::sort(ready.begin(), ready.end());
    ready.erase(std::unique(ready.begin(), ready.end()), ready.end());
    for (const uint64_t key : ready) {
      const auto it = open.find(key);
      if (it != open.end() && !readFrom(it->second)) closeConnection(it);
    }
    // A round that took only a little, on connections it already had, woke this thread for a few
    // small messages. Waiting a moment before the next round lets the next ones gather in their
    // sockets, where they wake nobody: a program sending message after message on its one
    // connection then shares its processor with this thread once a millisecond instead of once a
    // message. Connections made for one message each gather nothing by waiting.
    const bool fewSmall = deliveredThisRound != 0 && takenThisRound < kGatheringBelow && !tookConnections;
    takenThisRound = 0;
    announce();
    if (fewSmall) usleep(kGatheringMicroseconds);
  }
  for (auto it = open.begin(); it != open.end();) it = closeConnection(it);
  announce();
  if (idleHandler_) idleHandler_();
  closeListeners();
  if (spare >= 0) close(spare);
  close(poller);
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
