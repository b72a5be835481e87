#include "recorder_endpoint.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "process_runner.h"

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
