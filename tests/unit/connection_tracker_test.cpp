// The one model of connections every output of talvex-record reads.
#include "connection_tracker.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <string>

#include "recorder_message_parser.h"

using talvex::ConnectionTracker;
using talvex::ConnectState;
using talvex::ParsedMessage;

namespace {

ParsedMessage parsed(const std::string& text) {
  ParsedMessage m;
  EXPECT_TRUE(talvex::parseRecorderMessage(text + "\n", &m, nullptr)) << text;
  return m;
}

const char* kConnectInProgress =
    "<connect localport_I4=\"9c40\" pid_I4=\"64\" ticket_I4=\"1\" socket_I8=\"5\" cookie_I8=\"77\" family_AS=\"AF_INET\" "
    "ip_AS=\"127.0.0.1\" port_I4=\"50\" error_I4=\"73\"/>";

}  // namespace

TEST(ConnectionTracker, AConnectInProgressEndsAsTheOutcomeMessageSays) {
  ConnectionTracker tracker;
  ConnectionTracker::Seen seen = tracker.observe(parsed(kConnectInProgress));
  ASSERT_NE(seen.connection, nullptr);
  EXPECT_TRUE(seen.opening);
  EXPECT_EQ(seen.connection->state, ConnectState::kConnecting);
  EXPECT_EQ(seen.connection->ends.remotePort, 80);
  EXPECT_EQ(seen.connection->ends.localPort, 40000);
  // No local address named: the outputs that draw one put a stand-in.
  EXPECT_EQ(seen.connection->ends.localIp, "");
  EXPECT_EQ(talvex::localIpOf(seen.connection->ends), "127.0.0.1");
  seen = tracker.observe(parsed("<connectoutcome pid_I4=\"64\" ticket_I4=\"2\" socket_I8=\"5\" error_I4=\"6f\"/>"));
  ASSERT_NE(seen.connection, nullptr);
  EXPECT_TRUE(seen.settled);
  EXPECT_FALSE(seen.opening);
  EXPECT_EQ(seen.connection->state, ConnectState::kFailed);
  EXPECT_EQ(seen.connection->error, ECONNREFUSED);
  EXPECT_EQ(talvex::failureText(*seen.connection), "ECONNREFUSED: Connection refused");
}

TEST(ConnectionTracker, ASecondConnectSettlesTheFirstAndOpensNothing) {
  ConnectionTracker tracker;
  const uint64_t id = tracker.observe(parsed(kConnectInProgress)).connection->id;
  // EALREADY: still under way.
  ConnectionTracker::Seen seen = tracker.observe(parsed(
      "<connect pid_I4=\"64\" ticket_I4=\"2\" socket_I8=\"5\" family_AS=\"AF_INET\" ip_AS=\"127.0.0.1\" port_I4=\"50\" "
      "error_I4=\"72\"/>"));
  EXPECT_FALSE(seen.opening);
  EXPECT_FALSE(seen.settled);
  EXPECT_EQ(seen.connection->id, id);
  // EISCONN: connected.
  seen = tracker.observe(parsed(
      "<connect pid_I4=\"64\" ticket_I4=\"3\" socket_I8=\"5\" family_AS=\"AF_INET\" ip_AS=\"127.0.0.1\" port_I4=\"50\" "
      "error_I4=\"6a\"/>"));
  EXPECT_FALSE(seen.opening);
  EXPECT_TRUE(seen.settled);
  EXPECT_EQ(seen.connection->id, id);
  EXPECT_EQ(seen.connection->state, ConnectState::kConnected);
}

TEST(ConnectionTracker, TheFirstTransferOrACloseSettlesAConnectInProgress) {
  ConnectionTracker tracker;
  tracker.observe(parsed(kConnectInProgress));
  // Nothing yet to read: still under way.
  ConnectionTracker::Seen seen =
      tracker.observe(parsed("<receive pid_I4=\"64\" ticket_I4=\"2\" socket_I8=\"5\" length_I4=\"ffffffff\" error_I4=\"b\"/>"));
  EXPECT_FALSE(seen.settled);
  seen = tracker.observe(parsed("<send pid_I4=\"64\" ticket_I4=\"3\" socket_I8=\"5\" length_U4=\"1\" error_I4=\"6e\"/>"));
  EXPECT_TRUE(seen.settled);
  EXPECT_EQ(seen.connection->state, ConnectState::kFailed);
  EXPECT_EQ(seen.connection->error, ETIMEDOUT);

  ConnectionTracker closedFirst;
  closedFirst.observe(parsed(kConnectInProgress));
  seen = closedFirst.observe(parsed("<close pid_I4=\"64\" ticket_I4=\"2\" socket_I8=\"5\"/>"));
  EXPECT_TRUE(seen.settled);
  EXPECT_TRUE(seen.closing);
  EXPECT_EQ(seen.connection->state, ConnectState::kFailed);
  EXPECT_EQ(talvex::failureText(*seen.connection), "closed before it connected");
}

TEST(ConnectionTracker, CopiesOfASocketAreOneConnectionUntilTheLastCloses) {
  ConnectionTracker tracker;
  const uint64_t id = tracker.observe(parsed(kConnectInProgress)).connection->id;
  // A copy in another process, adopted with the same cookie.
  ConnectionTracker::Seen seen = tracker.observe(parsed(
      "<accept pid_I4=\"65\" ticket_I4=\"1\" socket_I8=\"5\" info_AS=\"ADOPTED\" cookie_I8=\"77\" family_AS=\"AF_INET\" "
      "ip_AS=\"127.0.0.1\" port_I4=\"50\"/>"));
  EXPECT_FALSE(seen.opening);
  EXPECT_EQ(seen.connection->id, id);
  EXPECT_EQ(seen.pid, 0x65);
  seen = tracker.observe(parsed("<send pid_I4=\"65\" ticket_I4=\"2\" socket_I8=\"5\" data_AS=\"x\" length_U4=\"1\"/>"));
  EXPECT_EQ(seen.connection->id, id);
  EXPECT_TRUE(seen.settled);  // its first transfer: connected
  seen = tracker.observe(parsed("<close pid_I4=\"64\" ticket_I4=\"3\" socket_I8=\"5\"/>"));
  EXPECT_FALSE(seen.closing);
  EXPECT_EQ(seen.connection->id, id);
  seen = tracker.observe(parsed("<close pid_I4=\"65\" ticket_I4=\"3\" socket_I8=\"5\"/>"));
  EXPECT_TRUE(seen.closing);
  EXPECT_EQ(seen.connection->id, id);
  // The number is free again: a new connect is a new connection.
  seen = tracker.observe(parsed(kConnectInProgress));
  EXPECT_TRUE(seen.opening);
  EXPECT_NE(seen.connection->id, id);
}

TEST(ConnectionTracker, TrafficOfAnUnknownSocketIsAConnectionOfItsOwn) {
  ConnectionTracker tracker;
  ConnectionTracker::Seen seen =
      tracker.observe(parsed("<send pid_I4=\"64\" ticket_I4=\"1\" socket_I8=\"9\" data_AS=\"x\" length_U4=\"1\"/>"));
  ASSERT_NE(seen.connection, nullptr);
  EXPECT_TRUE(seen.opening);
  EXPECT_EQ(seen.connection->opening, "");
  EXPECT_EQ(seen.connection->state, ConnectState::kOpen);
  // A message of no connection is shown and names the last process.
  seen = tracker.observe(parsed("<addrinfo ticket_I4=\"2\" name_AS=\"h\"/>"));
  EXPECT_EQ(seen.connection, nullptr);
  EXPECT_TRUE(seen.shown);
  EXPECT_EQ(seen.pid, 0x64);
}
