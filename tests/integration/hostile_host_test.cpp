// Programs that are legal but hard on a preloaded library. Each runs with the agent recording and
// logging everything and again without it: what the program prints and how it ends must be the
// same. Every run is bounded, so that a hang fails the test instead of stalling the suite.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recording_support.h"
#include "test_paths.h"

using namespace talvex_test;
using namespace std::chrono_literals;

namespace {

const std::chrono::seconds kBound = 30s;

ProcessResult plainRun(const std::vector<std::string>& argv) { return runProcess(argv, cleanEnvironment(), kBound); }

// The run under the agent ended as the plain run did: same output, same exit, no hang, no signal.
void expectSameOutcome(const ProcessResult& plain, const ProcessResult& agent) {
  EXPECT_FALSE(agent.timedOut) << "hung under the agent";
  EXPECT_EQ(agent.signal, plain.signal) << agent.err;
  EXPECT_EQ(agent.exitCode, plain.exitCode) << agent.err;
  EXPECT_EQ(agent.out, plain.out);
}

std::vector<std::string> hostile(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv = {kHostileProbePath};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return argv;
}

}  // namespace

class SignalHandlerCalls : public ::testing::TestWithParam<std::string> {};

// A signal that lands while the interrupted thread is inside the agent (holding the registry's,
// the channel's, the counters' or the log's lock) runs a handler that writes or sends.
TEST_P(SignalHandlerCalls, HandlerThatInterruptsTheAgentNeverWaitsForIt) {
  EchoServer echo;
  const auto argv = hostile({"signal-reentry", std::to_string(echo.port()), GetParam()});
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.out, "exchanges 1500, handler ran: yes\n");
  const Recording recorded = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, recorded.run);
  const Recording unplugged = recordRun(argv, {{TALVEX_VAR_UNPLUG_AGENT, ""}}, "", kBound);
  expectSameOutcome(plain, unplugged.run);
}

INSTANTIATE_TEST_SUITE_P(Handlers, SignalHandlerCalls, ::testing::Values("write", "send"));

TEST(HostileHost, ForkWhileAnotherThreadRecordsLeavesTheChildWorking) {
  EchoServer echo;
  const auto argv = hostile({"fork-while-recording", std::to_string(echo.port())});
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.out, "children 40 hung 0 failed 0\n");
  const Recording recorded = recordRun(argv, {}, "", 120s);
  expectSameOutcome(plain, recorded.run);
}

TEST(HostileHost, PointersTheCLibraryRefusesAreNeverRead) {
  EchoServer echo;
  const auto argv = hostile({"bad-pointers", std::to_string(echo.port())});
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.exitCode, 0) << plain.err;
  ASSERT_NE(plain.out.find("connect to 0x10 result=-1 errno=14\n"), std::string::npos) << plain.out;
  ASSERT_NE(plain.out.find("send past the end of the buffer result=-1 errno=14\n"), std::string::npos) << plain.out;
  ASSERT_NE(plain.out.find("recv of length 0 result=0 errno=0\n"), std::string::npos) << plain.out;
  const Recording r = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, r.run);
  // What could be read is recorded, and nothing else: the ten bytes before the unmapped page,
  // and for the message header the two bytes of its first vector and the same ten.
  std::vector<std::string> sent;
  for (const auto* m : r.ofKind("send")) sent.push_back(valueOf(*m, "data"));
  EXPECT_EQ(sent, (std::vector<std::string>{"", "", "", "", "0123456789", "ab0123456789", "echo"})) << r.log;
}

TEST(HostileHost, ReceivedDataNeverGoesPastTheCallersBuffer) {
  const auto argv = hostile({"truncated-datagram"});
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.out, "sendto result=64 errno=0\nrecv MSG_TRUNC result=64 errno=0\nbytes ABCD\n");
  const Recording r = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, r.run);
  const auto received = r.ofKind("receive");
  ASSERT_EQ(received.size(), 1u) << r.log;
  EXPECT_EQ(valueOf(*received[0], "data"), "ABCD");
  EXPECT_EQ(valueOf(*received[0], "length"), "40");
}

TEST(HostileHost, AcceptOfAGonePeerReadsOnlyTheCallersAddressBuffer) {
  const auto argv = hostile({"accept-gone"});
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.out, "accept ok length 16\n");
  const Recording r = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, r.run);
  const auto accepted = r.ofKind("accept");
  ASSERT_EQ(accepted.size(), 1u) << r.log;
  // Four bytes of an address hold its family and port, not a whole address: it has none.
  EXPECT_EQ(valueOf(*accepted[0], "family"), "AF_UNSPEC");
  EXPECT_EQ(valueOf(*accepted[0], "ip"), "<absent>");
}

TEST(HostileHost, ReceiveOfLengthZeroReadsNothing) {
  EchoServer echo;
  const auto argv = hostile({"bad-pointers", std::to_string(echo.port())});
  const Recording r = recordRun(argv, {}, "", kBound);
  ASSERT_EQ(r.run.signal, 0) << r.run.err;
  const auto received = r.ofKind("receive");
  ASSERT_FALSE(received.empty()) << r.log;
  EXPECT_EQ(valueOf(*received.back(), "data"), "");
  EXPECT_EQ(valueOf(*received.back(), "length"), "0");
}

TEST(HostileHost, DaemonThatClosesEverythingFindsNoLogLinesInItsFile) {
  TempDir files;
  const auto argv = hostile({"close-all-then-open", files.file("data.txt")});
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.out, "data file holds 5 bytes: data\n");
  const Recording r = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, r.run);
  // The log goes on, in its own file: the calls made after the descriptors were closed are there.
  EXPECT_EQ(linesContaining(r.log, "]closesocket (OK)").size(), 6u) << r.log;
}

TEST(HostileHost, AgentDescriptorsAreNotInheritedAcrossExec) {
  EchoServer echo;
  const auto argv = hostile({"exec-after-recording", std::to_string(echo.port())});
  // Whatever the test runner itself lets children inherit is there in both runs; the agent's log
  // and channel must not add to it.
  const ProcessResult plain = plainRun(argv);
  ASSERT_NE(plain.out.find("inherited "), std::string::npos) << plain.out;
  const Recording r = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, r.run);
}

TEST(HostileHost, ProcessKilledBySignalKeepsItsLog) {
  const Recording r = recordRun(hostile({"killed-after-calls", "20"}), {}, "", kBound);
  ASSERT_EQ(r.run.signal, SIGKILL);
  EXPECT_EQ(linesContaining(r.log, "]socket (OK)").size(), 20u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "]closesocket (OK)").size(), 20u) << r.log;
}

TEST(HostileHost, SocketClosedInsideTheCLibraryIsNotConfusedWithTheFileThatTakesItsNumber) {
  EchoServer echo;
  TempDir files;
  const std::string path = files.file("content.txt");
  FILE* f = fopen(path.c_str(), "w");
  fputs("file-bytes", f);
  fclose(f);
  const auto argv = hostile({"closed-by-stdio", std::to_string(echo.port()), path});
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.out, "same number yes, read 10\n");
  const Recording r = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, r.run);
  EXPECT_EQ(r.kinds(), (std::vector<std::string>{"connect", "send", "receive"})) << r.log;
  for (const auto* m : r.ofKind("receive")) EXPECT_EQ(valueOf(*m, "data"), "abc");
}

TEST(HostileHost, TypeNamesFromManyThreadsLeaveTheCountersAlone) {
  EchoServer echo;
  const Recording r = recordRun(hostile({"type-names-from-threads", std::to_string(echo.port())}), {}, "", kBound);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  ASSERT_EQ(r.kinds(), (std::vector<std::string>{"connect", "send", "close"})) << r.log;
  // Tickets so far: the process message's, then one for each of the 8,000 closes; a counter that a
  // type name overwrote would be anywhere.
  EXPECT_EQ(valueOf(r.messages[0], "ticket"), hexOf(1 + 8000 + 1));
}

TEST(HostileHost, ConcurrentCloseAndSocketOnOneNumberKeepEveryRecord) {
  EchoServer echo;
  const Recording r = recordRun(hostile({"descriptor-reuse", std::to_string(echo.port())}), {}, "", 120s);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(r.ofKind("connect").size(), 1200u);
  EXPECT_EQ(r.ofKind("send").size(), 1200u);
  EXPECT_EQ(r.ofKind("close").size(), 1200u);
}

TEST(HostileHost, ThreadsThatMeetAtStartUpLoseNoMessageAndCarryThePid) {
  EchoServer echo;
  for (int run = 0; run < 10; ++run) {
    const Recording r = recordRun(hostile({"startup-race", std::to_string(echo.port())}), {}, "", kBound);
    ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
    ASSERT_EQ(r.messages.size(), 24u) << "run " << run;
    const std::string pid = hexOf(r.run.pid);
    for (const auto& m : r.messages) EXPECT_EQ(valueOf(m, "pid"), pid) << "run " << run;
  }
}

class HugePayload : public ::testing::TestWithParam<std::pair<std::string, std::string>> {};

// Payloads whose escaped text would pass 2^32 bytes: the host goes on, the message is dropped
// whole and said so, never sent wrapped to a small size.
TEST_P(HugePayload, MessageTooLargeToEncodeIsDroppedAndLogged) {
  EchoServer echo;
  const auto argv = hostile({"huge-send", std::to_string(echo.port()), GetParam().first, GetParam().second});
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.exitCode, 0);
  if (plain.out == "no memory\n") GTEST_SKIP() << "the probe could not allocate the payload";
  // Errors only: a data line of a gigabyte is not what this test is about.
  const Recording r = recordRun(argv, {{TALVEX_VAR_DEBUG_LVL, "1"}}, "", 120s);
  expectSameOutcome(plain, r.run);
  EXPECT_TRUE(r.ofKind("send").empty()) << r.kinds().size();
  EXPECT_EQ(linesContaining(r.log, "message dropped").size(), 2u) << r.log.substr(0, 4000);
  const Recording unplugged =
      recordRun(argv, {{TALVEX_VAR_UNPLUG_AGENT, ""}, {TALVEX_VAR_DEBUG_LVL, "1"}}, "", 120s);
  expectSameOutcome(plain, unplugged.run);
}

INSTANTIATE_TEST_SUITE_P(Sizes, HugePayload,
                         ::testing::Values(std::make_pair("0x22", "715827883"), std::make_pair("0xff", "1073741824")));

const char* const kSanitizedHostOutput =
    "getaddrinfo result=0 errno=0\nconnect result=0 errno=0\nsend result=4 errno=0\nrecv result=4 errno=0\n"
    "close result=0 errno=0\n";

TEST(HostileHost, ProgramBuiltWithAddressSanitizerRunsUnderTheAgent) {
  EchoServer echo;
  const std::vector<std::string> argv = {kSanitizedHostProbePath, std::to_string(echo.port())};
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.out, kSanitizedHostOutput) << plain.err;
  const Recording r = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, r.run);
  EXPECT_EQ(r.kinds(), (std::vector<std::string>{"addrinfo", "connect", "send", "receive", "close"})) << r.log;
}

TEST(HostileHost, ProgramWithTheAddressSanitizerRuntimeAsALibraryRunsUnderTheAgent) {
  // gcc links the runtime as a library of its own, which the loader places behind the agent; it
  // then insists on coming first unless told not to, the documented way.
  EchoServer echo;
  const std::vector<std::string> argv = {kDynamicAsanHostProbePath, std::to_string(echo.port())};
  const Environment told = {{"ASAN_OPTIONS", "verify_asan_link_order=0"}};
  const ProcessResult plain = runProcess(argv, cleanEnvironment(told), kBound);
  ASSERT_EQ(plain.out, kSanitizedHostOutput) << plain.err;
  // Its interceptors find the next definition with dlsym(RTLD_NEXT): the C library's, not the
  // agent's hook again, which would call the interceptor again until the stack ran out.
  const Recording r = recordRun(argv, told, "", kBound);
  expectSameOutcome(plain, r.run);
  EXPECT_EQ(r.kinds(), (std::vector<std::string>{"addrinfo", "connect", "send", "receive", "close"})) << r.log;
}

TEST(HostileHost, AWrapperPreloadedBehindTheAgentReachesTheCLibrary) {
  EchoServer echo;
  const std::vector<std::string> argv = {kRecordingProbePath, "vectors", std::to_string(echo.port())};
  const Recording r = recordRun(argv, {}, kConnectShimPath, kBound);
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("received abc|defg\n"), std::string::npos) << r.run.out;
  EXPECT_EQ(r.kinds(), (std::vector<std::string>{"connect", "send", "receive", "close"})) << r.log;
  const Recording resolved = recordRun({kRecordingProbePath, "resolve", "127.0.0.1", "80"}, {}, kConnectShimPath, kBound);
  EXPECT_EQ(resolved.run.exitCode, 0) << resolved.run.err;
  EXPECT_EQ(resolved.run.out, "getaddrinfo status=0 entries=1\n");
  EXPECT_EQ(resolved.kinds(), (std::vector<std::string>{"addrinfo"}));
}

TEST(HostileHost, ProgramVariableNamedLikeTheClockIsNeverCalled) {
  const std::vector<std::string> argv = {kClockNameProbePath};
  const ProcessResult plain = plainRun(argv);
  ASSERT_EQ(plain.out, "socket ok, clock variable 4\n");
  const Recording r = recordRun(argv, {}, "", kBound);
  expectSameOutcome(plain, r.run);
}

TEST(HostileHost, RecorderCorePathThatIsAFifoDoesNotBlockStartUp) {
  TempDir files;
  const std::string fifo = files.file("core.fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Recording r = recordRun({kProbePath, "first-close"}, {{kRecorderCoreVariable, fifo}}, "", kBound);
  EXPECT_FALSE(r.run.timedOut) << "start-up waited on the FIFO";
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  // The close went through and start-up completed.
  EXPECT_EQ(r.run.out, "close result=-1 errno=9\nglobalInit 1\n");
}

TEST(HostileHost, EmptyLogDirectoryWritesNoLogAnywhere) {
  const std::vector<std::string> argv = {kProbePath, "first-close"};
  const Recording r = recordRun(argv, {{TALVEX_VAR_DEBUG_DIR, ""}}, "", kBound);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  // Taken as it stands, the empty directory put the log at the root of the file system.
  for (const auto& name : listDirectory("/")) {
    EXPECT_EQ(name.find("_" + std::to_string(r.run.pid) + ".txt"), std::string::npos) << name;
  }
}

TEST(HostileHost, RecorderPortOutOfRangeSendsNothingAndSaysSo) {
  talvex::RecorderEndpoint endpoint;
  endpoint.start("127.0.0.1", 0, nullptr);
  EchoServer echo;
  // 65,536 above a port that listens: cut to 16 bits, it would be that port.
  const Recording r = recordRun({kRecordingProbePath, "nonblock-connect", std::to_string(echo.port())},
                                {{TALVEX_VAR_PORT_NUMBER, std::to_string(endpoint.port() + 65536)}}, "",
                                kBound);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  endpoint.waitForQuiet(300ms, 2s);
  endpoint.stop(1000ms);
  EXPECT_TRUE(endpoint.messages().empty()) << endpoint.messages().size();
  EXPECT_FALSE(linesContaining(r.log, "[ERROR]no usable recorder address: message not sent").empty()) << r.log;
}
