// TALVEX_SOCKET_AGENT_PERSISTENT_CHANNEL: one connection per process carries every message, each
// the same line the plain channel would send; a fork, a failure or a recorder that stops reading
// costs the host a bounded delay and never a hang.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/variable_names.h"
#include "local_recorder.h"
#include "process_runner.h"
#include "recorder_endpoint.h"
#include "recorder_message_parser.h"
#include "recording_support.h"
#include "system_tools.h"
#include "test_paths.h"

using namespace talvex_test;
using namespace std::chrono_literals;

namespace {

const char* const kPersistent = TALVEX_VAR_PERSISTENT_CHANNEL;

Environment persistentTo(int port, const TempDir& logs, const Environment& extra = {}) {
  Environment environment = agentEnvironment({{TALVEX_VAR_PORT_NUMBER, std::to_string(port)},
                                              {kPersistent, "1"},
                                              {TALVEX_VAR_DEBUG_LVL, "1"},
                                              {TALVEX_VAR_DEBUG_DIR, logs.path()}});
  for (const auto& entry : extra) environment[entry.first] = entry.second;
  return environment;
}

std::string logOf(const TempDir& logs) {
  std::string all;
  for (const auto& file : listDirectory(logs.path())) all += readFile(logs.file(file));
  return all;
}

std::vector<talvex::ParsedMessage> parsedOrFail(const std::vector<std::string>& raw) {
  std::vector<talvex::ParsedMessage> out;
  for (const auto& text : raw) {
    talvex::ParsedMessage m;
    std::string error;
    EXPECT_TRUE(talvex::parseRecorderMessage(text, &m, &error)) << error << ": " << text.substr(0, 200);
    out.push_back(m);
  }
  return out;
}

// A recorder that takes connections and never reads from them, with the smallest buffers.
class DeafRecorder {
 public:
  DeafRecorder() {
    listener_ = listenOnLoopback(&port_, 1024);
    thread_ = std::thread([this] {
      for (int i = 0; i < 1000; ++i) {
        const int fd = accept(listener_, nullptr, nullptr);
        if (fd < 0) return;
        accepted_.push_back(fd);
      }
    });
  }
  ~DeafRecorder() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    for (int fd : accepted_) close(fd);
    close(listener_);
  }
  int port() const { return port_; }

 private:
  int listener_ = -1;
  int port_ = 0;
  std::vector<int> accepted_;
  std::thread thread_;
};

}  // namespace

TEST(PersistentChannel, OneConnectionCarriesEveryMessageInOrderAsThePlainChannelWouldSendIt) {
  EchoServer echo;
  talvex::RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  TempDir logs;
  const ProcessResult r = runProcess({kRecordingProbePath, "loop", std::to_string(echo.port()), "300"},
                                     persistentTo(endpoint.port(), logs));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  endpoint.waitForQuiet(300ms, 10s);
  const auto raw = endpoint.messages();
  // process, connect, 300 sends and receives, the close.
  ASSERT_EQ(raw.size(), 1u + 1u + 600u + 1u);
  EXPECT_EQ(endpoint.connectionCount(), 1u);
  const auto messages = parsedOrFail(raw);
  EXPECT_EQ(messages[0].kind, "process");
  for (size_t i = 1; i < messages.size(); ++i) {
    EXPECT_EQ(raw[i].back(), '\n');
    EXPECT_LT(messages[i - 1].find("ticket")->integer, messages[i].find("ticket")->integer) << raw[i];
  }
  EXPECT_EQ(logOf(logs).find("message dropped"), std::string::npos);
}

TEST(PersistentChannel, WithoutTheVariableEachMessageHasAConnectionOfItsOwn) {
  EchoServer echo;
  talvex::RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  const ProcessResult r = runProcess({kRecordingProbePath, "loop", std::to_string(echo.port()), "20"},
                                     agentEnvironment({{TALVEX_VAR_PORT_NUMBER, std::to_string(endpoint.port())}}));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  endpoint.waitForQuiet(300ms, 10s);
  EXPECT_EQ(endpoint.messages().size(), 43u);
  EXPECT_EQ(endpoint.connectionCount(), 43u);
}

TEST(PersistentChannel, AChildAfterForkWritesOnAConnectionOfItsOwn) {
  EchoServer echo;
  talvex::RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  TempDir logs;
  const ProcessResult r =
      runProcess({kHostileProbePath, "fork-children", std::to_string(echo.port())},
                 persistentTo(endpoint.port(), logs, {{TALVEX_VAR_FOLLOW_FORKS, "1"}}));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  endpoint.waitForQuiet(300ms, 10s);
  const auto messages = parsedOrFail(endpoint.messages());
  // The parent and its three children, each on its own connection, each announced first.
  EXPECT_EQ(endpoint.connectionCount(), 4u);
  std::set<std::string> announced;
  size_t connects = 0;
  for (const auto& m : messages) {
    const auto* pid = m.find("pid");
    if (m.kind == "process") announced.insert(pid->raw);
    if (m.kind == "connect") ++connects;
    if (pid != nullptr && m.kind != "process") EXPECT_EQ(announced.count(pid->raw), 1u) << m.kind;
  }
  EXPECT_EQ(announced.size(), 4u);
  EXPECT_EQ(connects, 4u);
}

// TALVEX_SOCKET_AGENT_RECORDER_SOCKET: the channel takes the named local socket when it can (here
// the TCP port names nothing that listens, so whatever arrives came that way), in every process
// of a forking program; when the socket takes no connection, the recorder's TCP port stands in.
TEST(PersistentChannel, ANamedLocalSocketCarriesTheChannelAndTcpStandsInForIt) {
  EchoServer echo;
  const std::string name = localSocketName("channel-test");
  const Environment local = {{TALVEX_VAR_RECORDER_SOCKET, name}, {TALVEX_VAR_FOLLOW_FORKS, "1"}};
  {
    LocalRecorder recorder(name);
    ASSERT_TRUE(recorder.listening());
    talvex::RecorderEndpoint& endpoint = recorder.endpoint();
    TempDir logs;
    const ProcessResult r = runProcess({kHostileProbePath, "fork-children", std::to_string(echo.port())},
                                       persistentTo(closedLoopbackPort(), logs, local));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    endpoint.waitForQuiet(300ms, 10s);
    EXPECT_EQ(endpoint.connectionCount(), 4u);
    std::set<std::string> announced;
    for (const auto& m : parsedOrFail(endpoint.messages())) {
      if (m.kind == "process") announced.insert(m.find("pid")->raw);
    }
    EXPECT_EQ(announced.size(), 4u);
    EXPECT_EQ(logOf(logs).find("message dropped"), std::string::npos) << logOf(logs);
  }
  // The name is gone with its endpoint.
  talvex::RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  TempDir logs;
  const ProcessResult r = runProcess({kRecordingProbePath, "loop", std::to_string(echo.port()), "20"},
                                     persistentTo(endpoint.port(), logs, local));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  endpoint.waitForQuiet(300ms, 10s);
  EXPECT_EQ(endpoint.messages().size(), 43u);
  EXPECT_EQ(endpoint.connectionCount(), 1u);
  EXPECT_EQ(linesContaining(logOf(logs), "recorder socket"),
            (std::vector<std::string>{"[ERROR]the recorder socket took no connection (111 WSAECONNREFUSED : Connection "
                                      "refused): the channel uses TCP"}));
}

// TALVEX_SOCKET_AGENT_SHARED_RING: on the local socket the messages go through a ring the agent
// shares with the recorder, in every process of a forking program (each child its own ring on
// its own connection), and a message larger than the ring goes in pieces as the recorder takes
// them.
TEST(PersistentChannel, ASharedRingCarriesEveryProcesssMessagesWhole) {
  EchoServer echo;
  LocalRecorder recorder(localSocketName("ring-channel-test"));
  ASSERT_TRUE(recorder.listening());
  talvex::RecorderEndpoint& endpoint = recorder.endpoint();
  TempDir logs;
  const Environment ring = {{TALVEX_VAR_RECORDER_SOCKET, recorder.name()},
                            {TALVEX_VAR_SHARED_RING, "1"},
                            {TALVEX_VAR_FOLLOW_FORKS, "1"}};
  ProcessResult r = runProcess({kHostileProbePath, "fork-children", std::to_string(echo.port())},
                               persistentTo(closedLoopbackPort(), logs, ring));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  endpoint.waitForQuiet(300ms, 10s);
  std::set<std::string> announced;
  for (const auto& m : parsedOrFail(endpoint.messages())) {
    if (m.kind == "process") announced.insert(m.find("pid")->raw);
  }
  EXPECT_EQ(announced.size(), 4u);
  EXPECT_EQ(endpoint.sharedRingCount(), 4u);
  // Six megabytes each way: messages of eighteen, through a ring of four.
  const size_t kSize = 6000000;
  const size_t before = endpoint.messages().size();
  r = runProcess({kRecordingProbePath, "bytes", std::to_string(echo.port()), std::to_string(kSize)},
                 persistentTo(closedLoopbackPort(), logs, ring));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  endpoint.waitForQuiet(300ms, 10s);
  std::string payload;
  for (size_t i = 0; i < kSize; ++i) payload.push_back(static_cast<char>(i % 256));
  // The send is one message; the echo comes back in as many receives as it took.
  std::string sent, received;
  const auto all = endpoint.messages();
  for (const auto& m : parsedOrFail(std::vector<std::string>(all.begin() + static_cast<long>(before), all.end()))) {
    const auto* data = m.find("data");
    if (data == nullptr) continue;
    if (m.kind == "send") sent += data->bytes;
    if (m.kind == "receive") received += data->bytes;
  }
  EXPECT_EQ(sent.size(), kSize);
  EXPECT_TRUE(sent == payload);
  EXPECT_TRUE(received == payload) << received.size();
  EXPECT_EQ(endpoint.sharedRingCount(), 5u);
  EXPECT_EQ(logOf(logs).find("message dropped"), std::string::npos) << logOf(logs);
  EXPECT_EQ(logOf(logs).find("no shared ring"), std::string::npos) << logOf(logs);
}

// Large payloads in vectors, read by the agent from the program's own vectors as it writes each
// message into the ring: every byte each way, each message's data as long as its call's result.
TEST(PersistentChannel, ASharedRingCarriesLargeVectorsWhole) {
  EchoServer echo;
  LocalRecorder recorder(localSocketName("ring-vectors-test"));
  ASSERT_TRUE(recorder.listening());
  talvex::RecorderEndpoint& endpoint = recorder.endpoint();
  TempDir logs;
  const ProcessResult r =
      runProcess({kRecordingProbePath, "big-vectors", std::to_string(echo.port())},
                 persistentTo(closedLoopbackPort(), logs,
                              {{TALVEX_VAR_RECORDER_SOCKET, recorder.name()},
                               {TALVEX_VAR_SHARED_RING, "1"}}));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("same 1\n"), std::string::npos) << r.out;
  endpoint.waitForQuiet(300ms, 10s);
  std::string payload;
  for (size_t i = 0; i < 100000; ++i) payload.push_back(static_cast<char>(i * 13));
  std::string sent, received;
  size_t sends = 0;
  for (const auto& m : parsedOrFail(endpoint.messages())) {
    const auto* data = m.find("data");
    if (data == nullptr) continue;
    ASSERT_NE(m.find("length"), nullptr) << m.kind;
    EXPECT_EQ(static_cast<int64_t>(data->bytes.size()), m.find("length")->integer) << m.kind;
    if (m.kind == "send") {
      sent += data->bytes;
      ++sends;
    }
    if (m.kind == "receive") received += data->bytes;
  }
  EXPECT_EQ(sends, 2u);
  EXPECT_TRUE(sent == payload + payload) << sent.size();
  EXPECT_TRUE(received == payload + payload) << received.size();
  EXPECT_EQ(endpoint.sharedRingCount(), 1u);
  EXPECT_EQ(logOf(logs).find("message dropped"), std::string::npos) << logOf(logs);
}

TEST(PersistentChannel, ARestartedRecorderReceivesWhatFollows) {
  EchoServer echo;
  TempDir logs;
  auto first = std::make_unique<talvex::RecorderEndpoint>();
  ASSERT_TRUE(first->start("127.0.0.1", 0, nullptr));
  const int port = first->port();
  BackgroundProcess probe({kRecordingProbePath, "paced", std::to_string(echo.port()), "80", "25"},
                          persistentTo(port, logs));
  ASSERT_GE(first->waitForMessages(10, 10000ms), 10u);
  first->stop();
  const size_t before = first->messages().size();
  first.reset();
  // Down for a moment, then back on the same port.
  usleep(200000);
  talvex::RecorderEndpoint second;
  ASSERT_TRUE(second.start("127.0.0.1", port, nullptr));
  const ProcessResult r = probe.wait(std::chrono::seconds(30));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out.substr(r.out.size() - 9), "paced 80\n");
  second.waitForQuiet(300ms, 10s);
  const auto after = parsedOrFail(second.messages());
  // The last exchanges and the close reach the new recorder; what was sent while no recorder was
  // there is dropped and said so.
  ASSERT_GE(after.size(), 10u);
  EXPECT_EQ(after.back().kind, "close");
  EXPECT_GT(before + after.size(), 20u);
  EXPECT_NE(logOf(logs).find("message dropped"), std::string::npos);
}

TEST(PersistentChannel, ARecorderThatStopsReadingDelaysTheHostOnlyABoundedTime) {
  EchoServer echo;
  DeafRecorder deaf;
  TempDir logs;
  // About ten megabytes of messages against a recorder that reads none of them: without a bound
  // on each write, the program would wait for ever on its first full buffer.
  const auto started = std::chrono::steady_clock::now();
  const ProcessResult r = runProcess({kRecordingProbePath, "loop", std::to_string(echo.port()), "20000"},
                                     persistentTo(deaf.port(), logs), std::chrono::seconds(60));
  const auto took = std::chrono::steady_clock::now() - started;
  ASSERT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_LT(took, std::chrono::seconds(45));
  EXPECT_NE(logOf(logs).find("message dropped: the recorder took no more within the time allowed"), std::string::npos);
}

// A recorder that takes the ring and then reads nothing: the host waits for room only within the
// channel's time budget, and goes on.
TEST(PersistentChannel, ARecorderThatStopsTakingFromItsRingDelaysTheHostOnlyABoundedTime) {
  EchoServer echo;
  const std::string name = localSocketName("deaf-ring-test");
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, name.data() + 1, name.size() - 1);
  const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(listen(listener, 16), 0);
  TempDir logs;
  const auto started = std::chrono::steady_clock::now();
  const ProcessResult r = runProcess({kRecordingProbePath, "bytes", std::to_string(echo.port()), "6000000"},
                                     persistentTo(closedLoopbackPort(), logs,
                                                  {{TALVEX_VAR_RECORDER_SOCKET, name},
                                                   {TALVEX_VAR_SHARED_RING, "1"}}),
                                     std::chrono::seconds(60));
  const auto took = std::chrono::steady_clock::now() - started;
  close(listener);
  ASSERT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("same 1\n"), std::string::npos) << r.out;
  EXPECT_LT(took, std::chrono::seconds(30));
  EXPECT_NE(logOf(logs).find("message dropped: the recorder took no more within the time allowed (110 "),
            std::string::npos)
      << logOf(logs);
}

TEST(PersistentChannel, ANumberTheHostTookOverIsNeverWrittenTo) {
  EchoServer echo;
  talvex::RecorderEndpoint endpoint;
  ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr));
  TempDir logs;
  const ProcessResult r = runProcess({kHostileProbePath, "channel-number-taken", std::to_string(echo.port())},
                                     persistentTo(endpoint.port(), logs));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("channel found 1\n"), std::string::npos) << r.out;
  // Not one byte of a message went into the host's socket...
  EXPECT_NE(r.out.find("leaked 0\n"), std::string::npos) << r.out;
  endpoint.waitForQuiet(300ms, 10s);
  // ...and the messages after it went on a new connection of the agent's own.
  EXPECT_EQ(endpoint.connectionCount(), 2u);
  size_t twos = 0;
  for (const auto& m : endpoint.messages()) twos += m.find("data_AS=\"two\"") != std::string::npos;
  EXPECT_EQ(twos, 2u);
}

// The reason for the channel: with a recorder on an address that is not loopback, every message
// on a connection of its own leaves a local port in TIME_WAIT for a minute, and eight busy
// senders run out of ports. Here in a network namespace of the test's own, with the recorder on
// an address of a veth pair: 8 processes x 15,000 messages, none lost.
TEST(PersistentChannel, EightSendersToARecorderOffLoopbackLoseNothing) {
  TALVEX_REQUIRE_NETWORK_NAMESPACES();
  TempDir tmp;
  std::string agentVariables;
  for (const auto& entry : agentEnvironment({{kPersistent, "1"}})) {
    if (entry.first.rfind("TALVEX_", 0) == 0 || entry.first == "LD_PRELOAD") {
      agentVariables += entry.first + "='" + entry.second + "' ";
    }
  }
  const std::string script =
      "ip link set lo up && ip link add talvex0 type veth peer name talvex1 && "
      "ip addr add 10.200.0.1/24 dev talvex0 && ip addr add 10.200.0.2/24 dev talvex1 && "
      "ip link set talvex0 up && ip link set talvex1 up || exit 3\n" +
      std::string(kRecorderPath) + " --listen 10.200.0.1:0 --port-file " + tmp.file("port") + " --output " +
      tmp.file("out.raw") + " --count 120008 2>" + tmp.file("recorder.err") + " & R=$!\n" +
      "i=0; while [ ! -s " + tmp.file("port") + " ] && [ $i -lt 100 ]; do sleep 0.05; i=$((i+1)); done\n" +
      "for n in 1 2 3 4 5 6 7 8; do env " + agentVariables +
      TALVEX_VAR_IP_ADDRESS "=10.200.0.1 " TALVEX_VAR_PORT_NUMBER "=$(cat " + tmp.file("port") + ") " +
      kProbePath + " selects 15000 >/dev/null & done\n" + "wait $R\n";
  const ProcessResult r = runProcess({"/usr/bin/unshare", "--net", "/bin/sh", "-c", script}, cleanEnvironment(),
                                     std::chrono::seconds(120));
  ASSERT_FALSE(r.timedOut) << readFile(tmp.file("recorder.err"));
  ASSERT_EQ(r.exitCode, 0) << r.err << readFile(tmp.file("recorder.err"));
  // Eight process messages and 120,000 notices, every one whole.
  EXPECT_NE(readFile(tmp.file("recorder.err")).find("120008 messages received, 0 malformed\n"), std::string::npos)
      << readFile(tmp.file("recorder.err"));
  EXPECT_EQ(splitLines(readFile(tmp.file("out.raw"))).size(), 120008u);
}
