// The recorder channel as a preloaded host drives it, with a real endpoint on loopback.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recorder_endpoint.h"
#include "recorder_message_parser.h"
#include "test_paths.h"

using namespace talvex_test;
using namespace std::chrono_literals;

namespace {

const char* const kFixedTime = "1700000000123456789";
const char* const kFixedTimeHex = "17979cfe3d85cd15";

class RecorderChannel : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(endpoint.start("127.0.0.1", 0, nullptr)); }

  Environment recording(Environment extra = {}) {
    extra.emplace(TALVEX_VAR_PORT_NUMBER, std::to_string(endpoint.port()));
    return agentEnvironment(extra);
  }

  Environment withClock(Environment extra = {}) {
    extra[kRecorderCoreVariable] = kRecorderCoreStandinPath;
    extra["TALVEX_STANDIN_FIXED_TIME"] = kFixedTime;
    return recording(extra);
  }

  ProcessResult channel(const std::vector<std::string>& steps, const Environment& environment) {
    std::vector<std::string> argv = {kProbePath, "channel"};
    argv.insert(argv.end(), steps.begin(), steps.end());
    return runProcess(argv, environment);
  }

  // Everything the endpoint got once the sender has gone quiet.
  std::vector<std::string> received(size_t expected) {
    endpoint.waitForMessages(expected, 10s);
    endpoint.waitForQuiet(300ms, 5s);
    return endpoint.messages();
  }

  static std::string currentDirectory() {
    char* cwd = get_current_dir_name();
    std::string text = cwd;
    free(cwd);
    return text;
  }

  static std::string hex(int value) {
    char text[16];
    snprintf(text, sizeof text, "%x", value);
    return text;
  }

  talvex::RecorderEndpoint endpoint;
};

}  // namespace

TEST_F(RecorderChannel, FirstRecordedCallMakesTwoConnectionsProcessFirst) {
  const ProcessResult r = channel({"select"}, withClock());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "select result=0 errno=77\n");
  const auto messages = received(2);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(endpoint.connectionCount(), 2u);
  EXPECT_EQ(messages[0], std::string("<process timestamp_ns_I8=\"") + kFixedTimeHex +
                             "\" timestamp_I4=\"0\" ticket_I4=\"1\" workingdir_AS=\"" + currentDirectory() +
                             "\" pid_I4=\"" + hex(r.pid) + "\" archi_AS=\"LINUX\"/>\n");
  talvex::ParsedMessage notice;
  std::string error;
  ASSERT_TRUE(talvex::parseRecorderMessage(messages[1], &notice, &error)) << error;
  EXPECT_EQ(notice.kind, "notrecorded");
  ASSERT_EQ(notice.attributes.size(), 4u);
  EXPECT_EQ(notice.attributes[0].name, "timestamp_ns");
  EXPECT_EQ(notice.attributes[0].raw, kFixedTimeHex);
  EXPECT_EQ(notice.attributes[1].name, "timestamp");
  EXPECT_EQ(notice.attributes[1].type, talvex::ValueType::I8);
  // select draws a ticket it drops, the notice another: 1 went to the process message.
  EXPECT_EQ(notice.attributes[2].name, "ticket");
  EXPECT_EQ(notice.attributes[2].raw, "3");
  EXPECT_EQ(notice.attributes[3].name, "name");
  EXPECT_EQ(notice.attributes[3].bytes, "select");
}

TEST_F(RecorderChannel, WithoutClockTheProcessMessageHasNoNanoseconds) {
  const ProcessResult r = channel({"setsockopt-bad", "end"}, recording());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "setsockopt result=-1 errno=9\nend result=0 errno=0\n");
  const auto messages = received(2);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0], "<process timestamp_I4=\"0\" ticket_I4=\"1\" workingdir_AS=\"" + currentDirectory() +
                             "\" pid_I4=\"" + hex(r.pid) + "\" archi_AS=\"LINUX\"/>\n");
  EXPECT_EQ(messages[1], "<exit/>\n");
}

TEST_F(RecorderChannel, SetsockoptIsLoggedButNeverSent) {
  const ProcessResult r = channel({"setsockopt-bad", "end"}, recording());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "setsockopt result=-1 errno=9\nend result=0 errno=0\n");
  const auto messages = received(2);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].rfind("<process ", 0), 0u);
  EXPECT_EQ(messages[1], "<exit/>\n");
}

TEST_F(RecorderChannel, EndBeforeTheAgentStartedSendsNothing) {
  // end is found through dlsym, which does not start the agent: there is no channel yet.
  const ProcessResult r = channel({"end", "badarchi"}, recording());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "end result=0 errno=0\nbadarchi sent\n");
  endpoint.waitForQuiet(300ms, 2s);
  EXPECT_EQ(endpoint.connectionCount(), 0u);
}

TEST_F(RecorderChannel, BadArchiNoticeWithNullInfo) {
  const ProcessResult r = channel({"setsockopt-bad", "badarchi"}, recording());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto messages = received(2);
  ASSERT_EQ(messages.size(), 2u);
  talvex::ParsedMessage notice;
  ASSERT_TRUE(talvex::parseRecorderMessage(messages[1], &notice, nullptr));
  EXPECT_EQ(notice.kind, "notrecorded");
  ASSERT_NE(notice.find("info"), nullptr);
  EXPECT_EQ(notice.find("info")->bytes, "???");
  EXPECT_EQ(notice.find("name"), nullptr);
}

TEST_F(RecorderChannel, EndpointDownLeavesTheHostAloneAndLogsEachAttempt) {
  TempDir tmp;
  Environment environment = agentEnvironment({{TALVEX_VAR_PORT_NUMBER, std::to_string(closedLoopbackPort())},
                                              {TALVEX_VAR_DEBUG_LVL, "1"},
                                              {TALVEX_VAR_DEBUG_DIR, tmp.path()}});
  const ProcessResult hooked = channel({"select", "setsockopt-bad", "select"}, environment);
  const ProcessResult plain = channel({"select", "setsockopt-bad", "select"}, cleanEnvironment());
  ASSERT_EQ(hooked.exitCode, 0) << hooked.err;
  EXPECT_EQ(hooked.out, plain.out);
  const auto files = listDirectory(tmp.path());
  ASSERT_EQ(files.size(), 1u);
  const auto lines = linesContaining(readFile(tmp.file(files[0])), "connect() returned");
  // Process message, then one notice per select: three attempts, three lines.
  ASSERT_EQ(lines.size(), 3u);
  for (const auto& line : lines) {
    EXPECT_EQ(line, "[ERROR]connect() returned SOCKET_ERROR, WSAGetLastError=111 WSAECONNREFUSED : Connection refused");
  }
}

TEST_F(RecorderChannel, NonNumericPortMeansPortZeroAndLoggedFailures) {
  TempDir tmp;
  const ProcessResult r = channel({"select"}, agentEnvironment({{TALVEX_VAR_PORT_NUMBER, "recorder"},
                                                                {TALVEX_VAR_DEBUG_LVL, "1"},
                                                                {TALVEX_VAR_DEBUG_DIR, tmp.path()}}));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "select result=0 errno=77\n");
  const auto files = listDirectory(tmp.path());
  ASSERT_EQ(files.size(), 1u);
  const auto failures = linesContaining(readFile(tmp.file(files[0])), "[ERROR]connect() returned SOCKET_ERROR");
  EXPECT_EQ(failures.size(), 2u);
}

TEST_F(RecorderChannel, UnpluggedEvenWhenEmptySendsNothing) {
  const ProcessResult r = channel({"select", "badarchi", "end"}, recording({{TALVEX_VAR_UNPLUG_AGENT, ""}}));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "select result=0 errno=77\nbadarchi sent\nend result=0 errno=0\n");
  endpoint.waitForQuiet(500ms, 2s);
  EXPECT_EQ(endpoint.connectionCount(), 0u);
}

TEST_F(RecorderChannel, EmitEndOfProcessSendsOneExitOnItsOwnConnection) {
  const ProcessResult r = channel({"emit=" + std::to_string(endpoint.port())}, recording());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "emit result=0\n");
  EXPECT_EQ(received(1), std::vector<std::string>{"<exit/>\n"});
}

TEST_F(RecorderChannel, EmitEndOfProcessWithoutWorkingDirectoryEndsTheProcess) {
  const ProcessResult r = channel({"lose-cwd", "emit=" + std::to_string(endpoint.port())}, recording());
  EXPECT_EQ(r.exitCode, 255);
  EXPECT_EQ(r.out, "cwd removed\n");
  endpoint.waitForQuiet(300ms, 2s);
  EXPECT_EQ(endpoint.connectionCount(), 0u);
}

TEST_F(RecorderChannel, ManyThreadsManyMessagesAllWhole) {
  // Every select from any thread reaches the endpoint as its own complete message.
  std::vector<std::string> steps(200, "select");
  const ProcessResult r = channel(steps, withClock());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto messages = received(201);
  ASSERT_EQ(messages.size(), 201u);
  for (size_t i = 1; i < messages.size(); ++i) {
    talvex::ParsedMessage m;
    ASSERT_TRUE(talvex::parseRecorderMessage(messages[i], &m, nullptr)) << messages[i];
    EXPECT_EQ(m.find("ticket")->integer, static_cast<int64_t>(1 + 2 * i));
  }
}
