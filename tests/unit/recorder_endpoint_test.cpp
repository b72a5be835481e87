#include "recorder_endpoint.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <fcntl.h>
#include <poll.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "local_recorder.h"
#include "process_runner.h"
#include "transport/shared_ring_layout.h"

using talvex::RecorderEndpoint;
using namespace std::chrono_literals;

namespace {

int connectTo(int port) {
  const int fd = talvex_test::connectToLoopback(port);
  EXPECT_GE(fd, 0);
  return fd;
}

void sendMessage(int port, const std::string& text) {
  const int fd = connectTo(port);
  EXPECT_EQ(send(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  close(fd);
}

}  // namespace

TEST(RecorderEndpoint, OneMessagePerConnectionInArrivalOrder) {
  RecorderEndpoint endpoint;
  std::string error;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, &error)) << error;
  ASSERT_GT(endpoint.port(), 0);
  for (int i = 0; i < 50; ++i) sendMessage(endpoint.port(), "<exit n_I4=\"" + std::to_string(i) + "\"/>\n");
  ASSERT_EQ(endpoint.waitForMessages(50, 10s), 50u);
  const auto messages = endpoint.messages();
  for (int i = 0; i < 50; ++i) EXPECT_EQ(messages[i], "<exit n_I4=\"" + std::to_string(i) + "\"/>\n");
  EXPECT_EQ(endpoint.connectionCount(), 50u);
}

TEST(RecorderEndpoint, MessageSentInPiecesIsKeptWhole) {
  RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  const int fd = connectTo(endpoint.port());
  const std::string big(3 * 1024 * 1024, 'q');
  size_t sent = 0;
  while (sent < big.size()) sent += static_cast<size_t>(send(fd, big.data() + sent, big.size() - sent, 0));
  close(fd);
  ASSERT_EQ(endpoint.waitForMessages(1, 10s), 1u);
  EXPECT_EQ(endpoint.messages()[0], big);
}

TEST(RecorderEndpoint, SilentPeerDoesNotHoldUpOthers) {
  RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  const int silent = connectTo(endpoint.port());
  sendMessage(endpoint.port(), "after");
  ASSERT_EQ(endpoint.waitForMessages(1, 10s), 1u);
  EXPECT_EQ(endpoint.messages()[0], "after");
  close(silent);
  // A peer that connects and sends nothing sends no message.
  endpoint.stop(1000ms);
  EXPECT_EQ(endpoint.messages(), std::vector<std::string>{"after"});
  EXPECT_EQ(endpoint.connectionCount(), 2u);
}

TEST(RecorderEndpoint, StopKeepsWhatAnOpenPeerSent) {
  RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  const int fd = connectTo(endpoint.port());
  ASSERT_EQ(send(fd, "partial", 7, 0), 7);
  usleep(100000);
  endpoint.stop(200ms);
  close(fd);
  ASSERT_EQ(endpoint.messages().size(), 1u);
  EXPECT_EQ(endpoint.messages()[0], "partial");
}

TEST(RecorderEndpoint, RejectsWhatIsNotAnAddress) {
  RecorderEndpoint endpoint;
  std::string error;
  EXPECT_FALSE(endpoint.start("not-an-address", 0, &error));
  EXPECT_NE(error.find("not-an-address"), std::string::npos);
}

TEST(RecorderEndpoint, ListensOnIpv6Loopback) {
  RecorderEndpoint endpoint;
  std::string error;
  ASSERT_TRUE(endpoint.start("::1", 0, &error)) << error;
  EXPECT_GT(endpoint.port(), 0);
}

TEST(RecorderEndpoint, ManyMessagesOnOneConnectionArriveOneByOneWhereverThePiecesBreak) {
  RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  const int fd = connectTo(endpoint.port());
  std::string all;
  for (int i = 0; i < 300; ++i) all += "<send data_AS=\"" + std::string(static_cast<size_t>(i % 97), 'x') + "\"/>\n";
  // Pieces of every size, cutting messages anywhere.
  for (size_t at = 0, piece = 1; at < all.size(); at += piece, piece = piece % 251 + 7) {
    const std::string part = all.substr(at, piece);
    ASSERT_EQ(send(fd, part.data(), part.size(), MSG_NOSIGNAL), static_cast<ssize_t>(part.size()));
  }
  ASSERT_EQ(endpoint.waitForMessages(300, 10s), 300u);
  close(fd);
  const auto messages = endpoint.messages();
  std::string joined;
  for (const auto& m : messages) {
    EXPECT_EQ(m.find('\n'), m.size() - 1);
    joined += m;
  }
  EXPECT_EQ(joined, all);
  EXPECT_EQ(endpoint.connectionCount(), 1u);
}

// Messages longer than a read, their rest read where they continue, with short ones after them
// in the same reads and a message left unfinished when the peer closes: every one whole, in order.
TEST(RecorderEndpoint, LongMessagesAndShortOnesAfterThemInTheSameReadsArriveWhole) {
  RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  const int fd = connectTo(endpoint.port());
  std::vector<std::string> sent;
  for (int i = 0; i < 40; ++i) {
    const size_t length = i % 4 == 0 ? 150000 + static_cast<size_t>(i) * 977 : static_cast<size_t>(i) * 13;
    std::string message = "<send data_AS=\"";
    for (size_t k = 0; k < length; ++k) message.push_back(static_cast<char>('a' + (k + static_cast<size_t>(i)) % 26));
    sent.push_back(message + "\"/>\n");
  }
  sent.push_back("<send data_AS=\"cut by the close");
  std::string all;
  for (const auto& m : sent) all += m;
  for (size_t at = 0, piece = 70001; at < all.size(); at += piece, piece = piece * 7 % 180001 + 1) {
    const std::string part = all.substr(at, piece);
    ASSERT_EQ(send(fd, part.data(), part.size(), MSG_NOSIGNAL), static_cast<ssize_t>(part.size()));
  }
  ASSERT_EQ(endpoint.waitForMessages(40, 10s), 40u);
  close(fd);
  ASSERT_EQ(endpoint.waitForMessages(41, 10s), 41u);
  EXPECT_TRUE(endpoint.messages() == sent);
  EXPECT_EQ(endpoint.cutCount(), 0u);
}

TEST(RecorderEndpoint, AMessageOverTheLimitIsCutAndTheNextOneStillArrives) {
  RecorderEndpoint endpoint;
  endpoint.setLongestMessage(1000);
  size_t dropped = 0;
  endpoint.setCutHandler([&](size_t bytes) { dropped = bytes; });
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  const int fd = connectTo(endpoint.port());
  const std::string huge(200000, 'h');
  ASSERT_EQ(send(fd, huge.data(), huge.size(), MSG_NOSIGNAL), static_cast<ssize_t>(huge.size()));
  ASSERT_EQ(send(fd, "tail\n<exit/>\n", 13, MSG_NOSIGNAL), 13);
  ASSERT_EQ(endpoint.waitForMessages(1, 10s), 1u);
  close(fd);
  EXPECT_EQ(endpoint.messages(), std::vector<std::string>{"<exit/>\n"});
  EXPECT_EQ(endpoint.cutCount(), 1u);
  EXPECT_GT(dropped, 1000u);
}

TEST(RecorderEndpoint, UnfinishedMessagesTogetherStayWithinTheirBudget) {
  RecorderEndpoint endpoint;
  endpoint.setLongestMessage(10000);
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  // Six peers each 9,000 bytes into a message: within the limit each, over four times it together.
  std::vector<int> peers;
  const std::string part(9000, 'p');
  for (int i = 0; i < 6; ++i) {
    peers.push_back(connectTo(endpoint.port()));
    ASSERT_EQ(send(peers.back(), part.data(), part.size(), MSG_NOSIGNAL), static_cast<ssize_t>(part.size()));
    usleep(20000);
  }
  for (int i = 0; i < 200 && endpoint.cutCount() < 2; ++i) usleep(10000);
  EXPECT_EQ(endpoint.cutCount(), 2u);
  for (int fd : peers) {
    ASSERT_EQ(send(fd, "\n", 1, MSG_NOSIGNAL), 1);
    close(fd);
  }
  // The four that were not cut are delivered whole.
  ASSERT_EQ(endpoint.waitForMessages(4, 10s), 4u);
  for (const auto& m : endpoint.messages()) EXPECT_EQ(m, part + "\n");
}

namespace {

// A connection to a local stream socket named as listenLocally takes it.
int connectLocally(const std::string& name) {
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, name.data(), name.size());
  const bool abstract = name[0] == '@';
  if (abstract) address.sun_path[0] = '\0';
  const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (abstract ? 0 : 1));
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), length), 0) << name << ": " << strerror(errno);
  return fd;
}

}  // namespace

// A local socket beside the TCP port: messages from both arrive as one stream, in order of their
// connections; a socket file is gone once the endpoint stops, an abstract name leaves nothing.
TEST(RecorderEndpoint, TakesMessagesOnALocalSocketToo) {
  talvex_test::TempDir tmp;
  const std::string abstractName = talvex_test::localSocketName("endpoint-test");
  // A socket file an endpoint that did not stop cleanly left behind.
  {
    sockaddr_un stale = {};
    stale.sun_family = AF_UNIX;
    snprintf(stale.sun_path, sizeof stale.sun_path, "%s", tmp.file("recorder.sock").c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&stale), sizeof stale), 0);
    close(fd);
  }
  for (const std::string& name : {tmp.file("recorder.sock"), abstractName}) {
    RecorderEndpoint endpoint;
    std::string error;
    ASSERT_TRUE(endpoint.listenLocally(name, &error)) << error;
    ASSERT_TRUE(endpoint.start("127.0.0.1", 0, &error)) << error;
    const int local = connectLocally(name);
    const std::string first = "<exit n_I4=\"1\"/>\n<exit n_I4=\"2\"/>\n";
    ASSERT_EQ(send(local, first.data(), first.size(), 0), static_cast<ssize_t>(first.size()));
    ASSERT_EQ(endpoint.waitForMessages(2, 10s), 2u);
    sendMessage(endpoint.port(), "<exit n_I4=\"3\"/>\n");
    ASSERT_EQ(endpoint.waitForMessages(3, 10s), 3u);
    close(local);
    endpoint.stop();
    EXPECT_EQ(endpoint.messages(), (std::vector<std::string>{"<exit n_I4=\"1\"/>\n", "<exit n_I4=\"2\"/>\n",
                                                             "<exit n_I4=\"3\"/>\n"}));
    EXPECT_EQ(endpoint.connectionCount(), 2u);
    if (name[0] != '@') EXPECT_EQ(access(name.c_str(), F_OK), -1) << name;
  }
}

TEST(RecorderEndpoint, ALocalSocketNameThatCannotBeIsRefused) {
  RecorderEndpoint endpoint;
  std::string error;
  EXPECT_FALSE(endpoint.listenLocally(std::string(200, 'x'), &error));
  EXPECT_EQ(error, "not a socket name: " + std::string(200, 'x'));
  EXPECT_FALSE(endpoint.listenLocally("", &error));
  EXPECT_FALSE(endpoint.listenLocally("/nonexistent/dir/recorder.sock", &error));
  EXPECT_EQ(error, "cannot listen on /nonexistent/dir/recorder.sock: No such file or directory");
  // A file that is not a socket is not the endpoint's to remove.
  talvex_test::TempDir tmp;
  ASSERT_TRUE(talvex_test::writeFile(tmp.file("notes"), "keep me"));
  EXPECT_FALSE(endpoint.listenLocally(tmp.file("notes"), &error));
  EXPECT_EQ(error, "cannot listen on " + tmp.file("notes") + ": Address already in use");
  EXPECT_EQ(talvex_test::readFile(tmp.file("notes")), "keep me");
}

// An idle handler that asks to be called again is, after the time it asked for, with nothing
// arriving meanwhile; one that does not ask is not.
TEST(RecorderEndpoint, AnIdleHandlerIsCalledAgainWhenItAsks) {
  // Before the endpoint: its handler is called once more when it stops, in its destructor.
  std::mutex mutex;
  std::vector<std::chrono::steady_clock::time_point> calls;
  RecorderEndpoint endpoint;
  endpoint.setIdleHandler([&] {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(std::chrono::steady_clock::now());
    return calls.size() == 1 ? std::chrono::milliseconds(50) : std::chrono::milliseconds(-1);
  });
  std::string error;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, &error)) << error;
  sendMessage(endpoint.port(), "<exit/>\n");
  ASSERT_EQ(endpoint.waitForMessages(1, 10s), 1u);
  // Bounded: the second call is due 50 ms after the first; a third must never come.
  for (int i = 0; i < 200; ++i) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (calls.size() >= 2) break;
    }
    usleep(10000);
  }
  usleep(200000);
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_GE(calls[1] - calls[0], std::chrono::milliseconds(50));
}

namespace {

// A ring as an agent shares it, written the way the agent writes it.
class TestRing {
 public:
  TestRing(uint64_t capacity, bool sealed, uint64_t magic = shared_ring::kMagic) : capacity_(capacity) {
    memory_ = static_cast<int>(syscall(SYS_memfd_create, "test-ring", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    EXPECT_GE(memory_, 0);
    EXPECT_EQ(ftruncate(memory_, static_cast<off_t>(shared_ring::kHeaderBytes + capacity)), 0);
    if (sealed) EXPECT_EQ(fcntl(memory_, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
    base_ = static_cast<char*>(
        mmap(nullptr, shared_ring::kHeaderBytes + capacity, PROT_READ | PROT_WRITE, MAP_SHARED, memory_, 0));
    *counter(shared_ring::kMagicAt) = magic;
    *counter(shared_ring::kCapacityAt) = capacity;
    *counter(shared_ring::kAsleepAt) = 1;
  }
  ~TestRing() {
    munmap(base_, shared_ring::kHeaderBytes + capacity_);
    if (memory_ >= 0) close(memory_);
  }
  // Hands the ring's descriptor over on `fd` with the offer byte.
  bool offer(int fd) { return sendDescriptor(fd, memory_); }
  static bool sendDescriptor(int fd, int descriptor) {
    char byte = shared_ring::kOfferByte;
    iovec data = {&byte, 1};
    char space[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    cmsghdr* rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(rights), &descriptor, sizeof descriptor);
    return sendmsg(fd, &message, MSG_NOSIGNAL) == 1;
  }
  // Writes `text`, waiting (a bounded time) for the recorder to take what fills the ring, and
  // rings the doorbell on `fd` when the recorder asked for one.
  bool write(int fd, const std::string& text) {
    size_t done = 0;
    for (int waits = 0; done < text.size() && waits < 100000;) {
      const uint64_t used = head_ - __atomic_load_n(counter(shared_ring::kTailAt), __ATOMIC_ACQUIRE);
      if (used == capacity_) {
        usleep(100);
        ++waits;
        continue;
      }
      const size_t n = std::min<size_t>(capacity_ - used, text.size() - done);
      for (size_t k = 0; k < n; ++k) base_[shared_ring::kHeaderBytes + (head_ + k) % capacity_] = text[done + k];
      head_ += n;
      done += n;
      __atomic_store_n(counter(shared_ring::kHeadAt), head_, __ATOMIC_SEQ_CST);
      if (__atomic_exchange_n(counter(shared_ring::kAsleepAt), 0, __ATOMIC_SEQ_CST) != 0 &&
          send(fd, "", 1, MSG_NOSIGNAL) != 1) {
        return false;
      }
    }
    return done == text.size();
  }
  void setHead(uint64_t head) { __atomic_store_n(counter(shared_ring::kHeadAt), head, __ATOMIC_SEQ_CST); }

 private:
  shared_ring::Word* counter(size_t at) { return shared_ring::wordAt(base_, at); }

  uint64_t capacity_;
  int memory_ = -1;
  char* base_ = nullptr;
  uint64_t head_ = 0;
};

// `count` messages written through `ring` on `local`: every few a longer one than the ring holds,
// the others of many lengths, wrapping round its end. Returns them.
std::vector<std::string> writeVariedMessages(TestRing& ring, int local, int count) {
  std::vector<std::string> sent;
  for (int i = 0; i < count; ++i) {
    const size_t length = i % 50 == 7 ? 150000 : static_cast<size_t>(i) * 37 % 3000;
    const std::string data(length, static_cast<char>('a' + i % 26));
    sent.push_back("<send n_I4=\"" + std::to_string(i) + "\" data_AS=\"" + data + "\"/>\n");
    if (!ring.write(local, sent.back())) {
      ADD_FAILURE() << "message " << i << " could not be written";
      break;
    }
  }
  return sent;
}

}  // namespace

// Messages through a ring the peer shares: longer ones than the ring holds come in pieces as
// the endpoint takes them, others wrap round its end; all arrive whole and in order.
TEST(RecorderEndpoint, MessagesThroughASharedRingArriveWholeAndInOrder) {
  talvex_test::LocalRecorder recorder(talvex_test::localSocketName("ring-endpoint-test"));
  ASSERT_TRUE(recorder.listening());
  RecorderEndpoint& endpoint = recorder.endpoint();
  const int local = connectLocally(recorder.name());
  TestRing ring(shared_ring::kSmallestCapacity, true);
  ASSERT_TRUE(ring.offer(local));
  const std::vector<std::string> sent = writeVariedMessages(ring, local, 200);
  ASSERT_EQ(endpoint.waitForMessages(sent.size(), 10s), sent.size());
  close(local);
  endpoint.stop(1000ms);
  EXPECT_TRUE(endpoint.messages() == sent);
  EXPECT_EQ(endpoint.sharedRingCount(), 1u);
  EXPECT_EQ(endpoint.cutCount(), 0u);
}

// With a lasting handler, a message that lies whole in the ring goes there and stays as it was
// until the next settle, which comes before the ring's bytes go back to the writer; a message
// that reached the endpoint in pieces goes to the plain handler. Between them, every message in
// order.
TEST(RecorderEndpoint, MessagesLyingInARingStayUntilSettled) {
  const std::string name = talvex_test::localSocketName("ring-lasting-test");
  RecorderEndpoint endpoint;
  std::vector<std::string> arrived;
  std::vector<std::pair<std::string_view, std::string>> unsettled;
  size_t lasting = 0, settles = 0, changed = 0;
  endpoint.setHandler([&](std::string_view message) { arrived.emplace_back(message); });
  endpoint.setLastingHandler(
      [&](std::string_view message) {
        arrived.emplace_back(message);
        unsettled.emplace_back(message, std::string(message));
        ++lasting;
      },
      [&] {
        for (const auto& view : unsettled) changed += view.first != view.second;
        unsettled.clear();
        ++settles;
      });
  endpoint.keepMessages(false);
  ASSERT_TRUE(endpoint.listenLocally(name, nullptr));
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  const int local = connectLocally(name);
  TestRing ring(shared_ring::kSmallestCapacity, true);
  ASSERT_TRUE(ring.offer(local));
  const std::vector<std::string> sent = writeVariedMessages(ring, local, 300);
  ASSERT_EQ(endpoint.waitForMessages(sent.size(), 10s), sent.size());
  close(local);
  endpoint.stop(1000ms);
  EXPECT_TRUE(arrived == sent);
  EXPECT_GT(lasting, 0u);
  EXPECT_LT(lasting, sent.size());
  EXPECT_GT(settles, 0u);
  EXPECT_EQ(changed, 0u);
}

// What is not a ring as an agent makes it ends the connection, with nothing delivered from it:
// a memfd that could still shrink under the endpoint's reads, a plain file, a wrong header, a
// ring offered after the first byte, a second one; a head beyond the ring's size ends it too.
TEST(RecorderEndpoint, WhatIsNotARingEndsItsConnection) {
  const std::string name = talvex_test::localSocketName("ring-refusal-test");
  talvex_test::TempDir tmp;
  ASSERT_TRUE(talvex_test::writeFile(tmp.file("plain"), std::string(shared_ring::kHeaderBytes + (64u << 10), '\0')));
  enum Case { kUnsealed, kPlainFile, kBadMagic, kAfterTheFirstByte, kSecondRing, kHeadBeyond };
  for (const Case which : {kUnsealed, kPlainFile, kBadMagic, kAfterTheFirstByte, kSecondRing, kHeadBeyond}) {
    talvex_test::LocalRecorder recorder(name);
    ASSERT_TRUE(recorder.listening());
    RecorderEndpoint& endpoint = recorder.endpoint();
    const int local = connectLocally(name);
    TestRing good(shared_ring::kSmallestCapacity, true);
    TestRing unsealed(shared_ring::kSmallestCapacity, false);
    TestRing badMagic(shared_ring::kSmallestCapacity, true, 42);
    const int plain = open(tmp.file("plain").c_str(), O_RDWR | O_CLOEXEC);
    size_t expected = 0;
    // A ring that works, and the message it carried.
    auto ringWithAMessage = [&] {
      ASSERT_TRUE(good.offer(local));
      ASSERT_TRUE(good.write(local, "<exit/>\n"));
      ASSERT_EQ(endpoint.waitForMessages(1, 10s), 1u);
      expected = 1;
    };
    switch (which) {
      case kUnsealed: ASSERT_TRUE(unsealed.offer(local)); break;
      case kPlainFile: ASSERT_TRUE(TestRing::sendDescriptor(local, plain)); break;
      case kBadMagic: ASSERT_TRUE(badMagic.offer(local)); break;
      case kAfterTheFirstByte:
        ASSERT_EQ(send(local, "<exit/>\n", 8, MSG_NOSIGNAL), 8);
        ASSERT_EQ(endpoint.waitForMessages(1, 10s), 1u);
        expected = 1;
        ASSERT_TRUE(good.offer(local));
        break;
      case kSecondRing:
        ringWithAMessage();
        ASSERT_TRUE(good.offer(local));
        break;
      case kHeadBeyond:
        ringWithAMessage();
        good.setHead(8 + shared_ring::kSmallestCapacity + 1);
        ASSERT_EQ(send(local, "", 1, MSG_NOSIGNAL), 1);
        break;
    }
    // The endpoint closes its end: a read sees it, within a bound.
    pollfd hangup = {local, POLLIN, 0};
    EXPECT_EQ(poll(&hangup, 1, 10000), 1) << which;
    char byte;
    EXPECT_EQ(recv(local, &byte, 1, MSG_DONTWAIT), 0) << which;
    close(local);
    close(plain);
    endpoint.stop(1000ms);
    EXPECT_EQ(endpoint.messages().size(), expected) << which;
    EXPECT_EQ(endpoint.sharedRingCount(), which >= kSecondRing ? 1u : 0u) << which;
  }
}
