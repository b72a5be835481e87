// talvex-recorder as a user runs it: a separate process, stopped by a signal.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "base/variable_names.h"
#include "local_recorder.h"
#include "json_lines_check.h"
#include "process_runner.h"
#include "recorder_message_parser.h"
#include "system_tools.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

bool sendRaw(int port, const std::string& bytes) {
  const int fd = connectToLoopback(port);
  bool ok = fd >= 0;
  size_t sent = 0;
  while (ok && sent < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, 0);
    ok = n > 0;
    sent += ok ? static_cast<size_t>(n) : 0;
  }
  close(fd);
  return ok;
}

class TalvexRecorder : public ::testing::Test {
 protected:
  void start(std::vector<std::string> options, std::vector<std::string> prefix = {}) {
    std::vector<std::string> argv = prefix;
    for (const std::string& word : {std::string(kRecorderPath), std::string("--listen"), std::string("127.0.0.1:0"),
                                    std::string("--port-file"), tmp.file("port")}) {
      argv.push_back(word);
    }
    argv.insert(argv.end(), options.begin(), options.end());
    recorder.reset(new BackgroundProcess(argv, cleanEnvironment()));
    port = waitForPortFile(tmp.file("port"));
    ASSERT_GT(port, 0);
  }

  ProcessResult stop(int signalNumber = SIGTERM) {
    recorder->signal(signalNumber);
    return recorder->wait();
  }

  TempDir tmp;
  std::unique_ptr<BackgroundProcess> recorder;
  int port = 0;
};

}  // namespace

TEST_F(TalvexRecorder, RecordsAPreloadedProgramAsJsonLines) {
  start({"--format", "jsonl", "--output", tmp.file("out.jsonl")});
  const ProcessResult probe =
      runProcess({kProbePath, "channel", "select", "end"},
                 agentEnvironment({{TALVEX_VAR_PORT_NUMBER, std::to_string(port)}}));
  ASSERT_EQ(probe.exitCode, 0) << probe.err;
  EXPECT_TRUE(waitForFileLines(tmp.file("out.jsonl"), 3));
  const ProcessResult r = stop();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "talvex-recorder: listening on 127.0.0.1 port " + std::to_string(port) +
                       "\ntalvex-recorder: 3 messages received, 0 malformed\n");
  const auto lines = splitLines(readFile(tmp.file("out.jsonl")));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].rfind("{\"kind\":\"process\",\"timestamp\":0,\"ticket\":1,\"working_directory\":", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find(",\"archi\":\"LINUX\"}"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(",\"name\":\"select\""), std::string::npos) << lines[1];
  EXPECT_EQ(lines[2], "{\"kind\":\"exit\"}");
  expectValidJsonLines(tmp.file("out.jsonl"), false);
}

// With --socket, agents that name it take the local socket (the TCP port they are given here
// refuses connections, so whatever arrives came that way).
TEST_F(TalvexRecorder, TakesAgentsOnALocalSocket) {
  const std::string name = localSocketName("recorder-test");
  start({"--socket", name, "--output", tmp.file("out.raw")});
  EchoServer echo;
  const ProcessResult probe = runProcess(
      {kRecordingProbePath, "loop", std::to_string(echo.port()), "10"},
      agentEnvironment({{TALVEX_VAR_PORT_NUMBER, std::to_string(closedLoopbackPort())},
                        {TALVEX_VAR_PERSISTENT_CHANNEL, "1"},
                        {TALVEX_VAR_RECORDER_SOCKET, name}}));
  ASSERT_EQ(probe.exitCode, 0) << probe.err;
  EXPECT_TRUE(waitForFileLines(tmp.file("out.raw"), 23));
  const ProcessResult r = stop();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "talvex-recorder: listening on 127.0.0.1 port " + std::to_string(port) +
                       "\ntalvex-recorder: listening on local socket " + name +
                       "\ntalvex-recorder: 23 messages received, 0 malformed\n");
  EXPECT_EQ(splitLines(readFile(tmp.file("out.raw"))).size(), 23u);
}

TEST_F(TalvexRecorder, RawOutputIsTheExactBytes) {
  start({"--output", tmp.file("out.raw")});
  const std::string a = "<exit/>\n", b = "<send data_AS=\"\\x00&#x0a;\" length_U4=\"2\"/>\n";
  ASSERT_TRUE(sendRaw(port, a));
  ASSERT_TRUE(sendRaw(port, b));
  EXPECT_TRUE(waitForFileContent(tmp.file("out.raw"), a + b));
  const ProcessResult r = stop(SIGINT);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(readFile(tmp.file("out.raw")), a + b);
}

TEST_F(TalvexRecorder, SurvivesMalformedTruncatedAndSilentPeers) {
  start({"--format", "jsonl", "--output", tmp.file("out.jsonl")});
  ASSERT_TRUE(sendRaw(port, "garbage"));
  ASSERT_TRUE(sendRaw(port, "<send data_AS=\"abc"));
  ASSERT_TRUE(sendRaw(port, ""));
  ASSERT_TRUE(sendRaw(port, std::string(100000, '\xff')));
  ASSERT_TRUE(sendRaw(port, "<exit/>\n"));
  EXPECT_TRUE(waitForFileLines(tmp.file("out.jsonl"), 4));
  const ProcessResult r = stop();
  EXPECT_EQ(r.exitCode, 0);
  // A peer that sends nothing sends no message.
  EXPECT_NE(r.err.find("4 messages received, 3 malformed"), std::string::npos) << r.err;
  const auto lines = splitLines(readFile(tmp.file("out.jsonl")));
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "{\"kind\":\"malformed\",\"reason\":\"expected '<' at byte 0\",\"raw_b64\":\"Z2FyYmFnZQ==\"}");
  EXPECT_EQ(lines[1].rfind("{\"kind\":\"malformed\",\"reason\":\"value of data is not closed at byte 18\"", 0), 0u);
  EXPECT_EQ(lines[2].rfind("{\"kind\":\"malformed\",\"reason\":\"expected '<' at byte 0\",\"raw_b64\":\"////", 0), 0u);
  EXPECT_EQ(lines[3], "{\"kind\":\"exit\"}");
}

TEST_F(TalvexRecorder, ManyShortConnectionsAllArriveAndCountStops) {
  start({"--count", "2000", "--output", tmp.file("out.raw")});
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    const std::string message = "<notrecorded ticket_I4=\"" + std::to_string(i) + "\"/>\n";
    expected += message;
    ASSERT_TRUE(sendRaw(port, message));
  }
  const ProcessResult r = recorder->wait();
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(readFile(tmp.file("out.raw")), expected);
}

TEST_F(TalvexRecorder, KeepsWhatAPeerStillSendingHadSentAtStop) {
  start({"--output", tmp.file("out.raw")});
  const int fd = connectToLoopback(port);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(send(fd, "<exit", 5, 0), 5);
  usleep(200000);
  const ProcessResult r = stop();
  close(fd);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(readFile(tmp.file("out.raw")), "<exit");
}

TEST(TalvexRecorderUsage, HelpAndErrors) {
  ProcessResult r = runProcess({kRecorderPath, "--help"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out.rfind("usage: talvex-recorder [options]\n", 0), 0u);
  r = runProcess({kRecorderPath, "--bogus"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err, "talvex-recorder: unknown option --bogus\nTry 'talvex-recorder --help' for more information.\n");
  r = runProcess({kRecorderPath, "--listen", "nowhere"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err.rfind("talvex-recorder: expected ADDR:PORT, got nowhere\n", 0), 0u);
  r = runProcess({kRecorderPath, "--format", "xml"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  r = runProcess({kRecorderPath, "--count", "-3"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  r = runProcess({kRecorderPath, "--listen", "not.an.address:5"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err.rfind("talvex-recorder: cannot resolve not.an.address: ", 0), 0u) << r.err;
  TempDir tmp;
  r = runProcess({kRecorderPath, "--output", tmp.file("no/such/dir/out")}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.err.find("cannot write"), std::string::npos);
}

TEST(TalvexRecorderUsage, PortInUseIsReported) {
  EchoServer busy;
  const ProcessResult r =
      runProcess({kRecorderPath, "--listen", "127.0.0.1:" + std::to_string(busy.port())}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.err.find("Address already in use"), std::string::npos) << r.err;
}

namespace {

// The recorder's own CPU time so far, in clock ticks.
long cpuTicks(int pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t afterName = stat.rfind(')');
  if (afterName == std::string::npos) return -1;
  std::vector<std::string> fields;
  size_t at = afterName + 2;
  while (at < stat.size()) {
    const size_t space = stat.find(' ', at);
    fields.push_back(stat.substr(at, space - at));
    if (space == std::string::npos) break;
    at = space + 1;
  }
  // utime and stime are fields 14 and 15 of the whole line, 12 and 13 after the name.
  return fields.size() > 12 ? atol(fields[11].c_str()) + atol(fields[12].c_str()) : -1;
}

long peakMemoryKiB(int pid) {
  for (const auto& line : splitLines(readFile("/proc/" + std::to_string(pid) + "/status"))) {
    if (line.rfind("VmHWM:", 0) == 0) return atol(line.c_str() + 6);
  }
  return -1;
}

}  // namespace

TEST_F(TalvexRecorder, ALineOf400MegabytesIsCutAndReportedAndTheRecorderGoesOn) {
  start({"--output", tmp.file("out.raw")});
  const int fd = connectToLoopback(port);
  ASSERT_GE(fd, 0);
  const std::string chunk(1 << 20, 'x');
  for (int i = 0; i < 400; ++i) {
    size_t sent = 0;
    while (sent < chunk.size()) {
      const ssize_t n = send(fd, chunk.data() + sent, chunk.size() - sent, MSG_NOSIGNAL);
      ASSERT_GT(n, 0) << "the recorder stopped reading after " << i << " MiB";
      sent += static_cast<size_t>(n);
    }
  }
  ASSERT_EQ(send(fd, "\n<exit/>\n", 9, MSG_NOSIGNAL), 9);
  close(fd);
  ASSERT_TRUE(sendRaw(port, "<exit/>\n"));
  EXPECT_TRUE(waitForFileContent(tmp.file("out.raw"), "<exit/>\n<exit/>\n"));
  // Held no more than the limit's worth, whatever the line's length.
  const long peak = peakMemoryKiB(recorder->pid());
  const ProcessResult r = stop();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("talvex-recorder: a message longer than 67108864 bytes was cut"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("2 messages received, 0 malformed, 1 cut for their length"), std::string::npos) << r.err;
  EXPECT_EQ(readFile(tmp.file("out.raw")), "<exit/>\n<exit/>\n");
  EXPECT_GT(peak, 0);
  EXPECT_LT(peak, 400 * 1024);
}

TEST_F(TalvexRecorder, AThousandIdleConnectionsHoldUpNoOne) {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 4096));
  setrlimit(RLIMIT_NOFILE, &limit);
  TALVEX_REQUIRE_PROGRAM("/usr/bin/prlimit");
  start({"--output", tmp.file("out.raw")}, {"/usr/bin/prlimit", "--nofile=4096:4096"});
  std::vector<int> idle;
  for (int i = 0; i < 1000; ++i) {
    const int fd = connectToLoopback(port);
    ASSERT_GE(fd, 0) << i;
    idle.push_back(fd);
  }
  ASSERT_TRUE(sendRaw(port, "<exit/>\n"));
  EXPECT_TRUE(waitForFileContent(tmp.file("out.raw"), "<exit/>\n"));
  for (int fd : idle) close(fd);
  const ProcessResult r = stop();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("1 messages received, 0 malformed\n"), std::string::npos) << r.err;
}

TEST_F(TalvexRecorder, RunningOutOfDescriptorsNeitherSpinsNorStopsIt) {
  // Room for a dozen connections; sixty arrive and stay.
  TALVEX_REQUIRE_PROGRAM("/usr/bin/prlimit");
  start({"--output", tmp.file("out.raw")}, {"/usr/bin/prlimit", "--nofile=24:24"});
  std::vector<int> peers;
  for (int i = 0; i < 60; ++i) peers.push_back(connectToLoopback(port));
  usleep(200000);
  const long before = cpuTicks(recorder->pid());
  usleep(1000000);
  const long after = cpuTicks(recorder->pid());
  ASSERT_GE(before, 0);
  // A busy loop would burn the whole second (100 ticks).
  EXPECT_LT(after - before, 20);
  for (int fd : peers) {
    if (fd >= 0) close(fd);
  }
  // Once the recorder has closed its ends of them, a connection finds a descriptor again.
  const std::string descriptors = "/proc/" + std::to_string(recorder->pid()) + "/fd";
  EXPECT_TRUE(waitUntil([&] { return listDirectory(descriptors).size() <= 20; }));
  ASSERT_TRUE(sendRaw(port, "<exit/>\n"));
  EXPECT_TRUE(waitForFileContent(tmp.file("out.raw"), "<exit/>\n"));
  const ProcessResult r = stop();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("connections refused when descriptors ran out"), std::string::npos) << r.err;
}
