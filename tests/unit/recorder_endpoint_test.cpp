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
  for (int i = 0; i < 50; ++i) sendMessage(endpoint.port(), "<exit/>\n" + std::to_string(i));
  ASSERT_EQ(endpoint.waitForMessages(50, 10s), 50u);
  const auto messages = endpoint.messages();
  for (int i = 0; i < 50; ++i) EXPECT_EQ(messages[i], "<exit/>\n" + std::to_string(i));
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
  // A peer that connects and sends nothing is an empty message, not a lost connection.
  ASSERT_EQ(endpoint.waitForMessages(2, 10s), 2u);
  EXPECT_EQ(endpoint.messages()[1], "");
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
