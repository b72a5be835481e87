// A real conversation: a 32-bit client and server of ours, both preloaded, many request/response
// pairs from several threads at once. The recorder must get every message whole, and each client
// socket's recorded bytes must be exactly what went over it.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recorder_endpoint.h"
#include "recorder_message_parser.h"
#include "test_paths.h"

using namespace talvex_test;
using namespace std::chrono_literals;

// Over the plain channel (a connection per message) and over the persistent one (a connection
// per process, written by every thread of it).
class Conversation : public ::testing::TestWithParam<bool> {};

TEST_P(Conversation, EveryByteOfEverySocketInTicketOrder) {
  const int kThreads = 4;
  const int kPairs = 150;
  talvex::RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  TempDir tmp;
  Environment recording = agentEnvironment({{TALVEX_VAR_PORT_NUMBER, std::to_string(endpoint.port())}});
  if (GetParam()) recording[TALVEX_VAR_PERSISTENT_CHANNEL] = "1";

  BackgroundProcess server({kRecordingProbePath, "serve", tmp.file("port"), std::to_string(kThreads)}, recording);
  const int port = waitForPortFile(tmp.file("port"));
  ASSERT_GT(port, 0);
  const ProcessResult client = runProcess(
      {kRecordingProbePath, "conversation", std::to_string(port), std::to_string(kThreads), std::to_string(kPairs),
       tmp.path()},
      recording);
  ASSERT_EQ(client.exitCode, 0) << client.out << client.err;
  EXPECT_EQ(client.out, "conversation failures=0\n");
  const ProcessResult served = server.wait();
  EXPECT_EQ(served.exitCode, 0) << served.err;
  endpoint.waitForQuiet(500ms, 20s);

  // Per process: tickets unique; per client socket: the bytes of its sends and receives.
  struct Stream {
    std::map<long, std::string> sent, received;  // by ticket
  };
  std::map<long, std::set<long>> ticketsByPid;
  std::map<long, std::map<long, Stream>> streams;  // pid -> socket -> stream
  size_t count = 0;
  for (const std::string& text : endpoint.messages()) {
    talvex::ParsedMessage m;
    std::string error;
    ASSERT_TRUE(talvex::parseRecorderMessage(text, &m, &error)) << error << ": " << text.substr(0, 200);
    ++count;
    const auto* ticket = m.find("ticket");
    ASSERT_NE(ticket, nullptr) << text;
    const auto* pid = m.find("pid");
    if (pid == nullptr) continue;  // notices carry no pid; their tickets are checked with the rest
    EXPECT_TRUE(ticketsByPid[pid->integer].insert(ticket->integer).second) << "ticket used twice: " << text;
    if (m.kind != "send" && m.kind != "receive") continue;
    Stream& stream = streams[pid->integer][m.find("socket")->integer];
    auto& side = m.kind == "send" ? stream.sent : stream.received;
    side[ticket->integer] = m.find("data") != nullptr ? m.find("data")->bytes : "";
  }
  EXPECT_GT(count, static_cast<size_t>(kThreads * kPairs * 2));

  // The client's sockets, one per thread, carry exactly what the client wrote down.
  ASSERT_EQ(streams.count(client.pid), 1u);
  const auto& clientStreams = streams[client.pid];
  EXPECT_EQ(clientStreams.size(), static_cast<size_t>(kThreads));
  for (const auto& entry : clientStreams) {
    std::string sent, received;
    for (const auto& piece : entry.second.sent) sent += piece.second;
    for (const auto& piece : entry.second.received) received += piece.second;
    const std::string socket = std::to_string(entry.first);
    EXPECT_TRUE(sent == readFile(tmp.file("sent-" + socket))) << "socket " << socket;
    EXPECT_TRUE(received == readFile(tmp.file("recv-" + socket))) << "socket " << socket;
    EXPECT_EQ(entry.second.sent.size(), static_cast<size_t>(kPairs));
  }
  // The server's accepted sockets are unknown to the agent: nothing of theirs is recorded.
  EXPECT_EQ(streams.count(served.pid), 0u);
  // The persistent channel: one connection for the client, one for the server.
  if (GetParam()) EXPECT_EQ(endpoint.connectionCount(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Channels, Conversation, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "PersistentChannel" : "ConnectionPerMessage";
                         });
