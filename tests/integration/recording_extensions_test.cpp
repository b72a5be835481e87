// The extensions that let a reader tell what the program did beyond its bytes: each adds its
// attributes or messages only while its own variable is set.
#include <gtest/gtest.h>

#include <string>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recording_support.h"
#include "test_paths.h"

using namespace talvex_test;
using Names = std::vector<std::string>;

namespace {

std::string processMessage(const Recording& r) {
  for (const std::string& raw : r.raw) {
    if (raw.rfind("<process ", 0) == 0) return raw;
  }
  return "";
}

}  // namespace

TEST(RecordingExtensions, ConnectOutcomeTellsARefusedNonBlockingConnect) {
  const int refusing = closedLoopbackPort();
  const Recording r = recordRun({kRecordingProbePath, "connect-outcome", std::to_string(refusing)},
                                {{TALVEX_VAR_CONNECT_OUTCOME, ""}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("so_error 111"), std::string::npos) << r.run.out;
  // Told once, however often the program asks.
  ASSERT_EQ(r.kinds(), (Names{"connect", "connectoutcome", "close"}));
  EXPECT_EQ(valueOf(r.messages[0], "error"), "73");
  const auto& outcome = r.messages[1];
  EXPECT_EQ(attributeNames(outcome), (Names{"pid", "timestamp", "ticket", "socket", "error"}));
  EXPECT_EQ(valueOf(outcome, "socket"), valueOf(r.messages[0], "socket"));
  EXPECT_EQ(valueOf(outcome, "error"), "6f");
}

TEST(RecordingExtensions, ConnectOutcomeTellsAConnectionMade) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "connect-outcome", std::to_string(echo.port())},
                                {{TALVEX_VAR_CONNECT_OUTCOME, ""}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("so_error 0"), std::string::npos) << r.run.out;
  ASSERT_EQ(r.kinds(), (Names{"connect", "connectoutcome", "close"}));
  // Made: no error.
  EXPECT_EQ(attributeNames(r.messages[1]), (Names{"pid", "timestamp", "ticket", "socket"}));
}

TEST(RecordingExtensions, WithoutTheVariableNoOutcomeIsSent) {
  const int refusing = closedLoopbackPort();
  const Recording r = recordRun({kRecordingProbePath, "connect-outcome", std::to_string(refusing)});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(r.kinds(), (Names{"connect", "close"}));
}

TEST(RecordingExtensions, SocketIdentityNamesOneSocketThroughItsCopies) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "duplicate", std::to_string(echo.port())},
                                {{TALVEX_VAR_COMPLETE_CAPTURE, ""}, {TALVEX_VAR_SOCKET_IDENTITY, ""}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto connects = r.ofKind("connect");
  const auto accepts = r.ofKind("accept");
  ASSERT_EQ(connects.size(), 1u);
  ASSERT_EQ(accepts.size(), 1u);  // the copy, adopted on its first use
  const std::string cookie = valueOf(*connects[0], "cookie");
  ASSERT_NE(cookie, "<absent>");
  EXPECT_EQ(connects[0]->find("cookie")->type, talvex::ValueType::I8);
  EXPECT_EQ(valueOf(*accepts[0], "cookie"), cookie);
  EXPECT_EQ(valueOf(*connects[0], "localip"), "127.0.0.1");
  EXPECT_EQ(valueOf(*accepts[0], "localip"), "127.0.0.1");
  // The copy's local port is the original's, the one the connect recorded.
  EXPECT_EQ(valueOf(*accepts[0], "localport"), valueOf(*connects[0], "localport"));
  EXPECT_EQ(valueOf(*accepts[0], "port"), hexOf(echo.port()));
}

TEST(RecordingExtensions, WithoutTheVariableNoIdentity) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "duplicate", std::to_string(echo.port())},
                                {{TALVEX_VAR_COMPLETE_CAPTURE, ""}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  for (const auto& m : r.messages) {
    EXPECT_EQ(m.find("cookie"), nullptr) << m.kind;
    EXPECT_EQ(m.find("localip"), nullptr) << m.kind;
  }
}

TEST(RecordingExtensions, CommandLineNamesTheProgram) {
  EchoServer echo;
  const std::string port = std::to_string(echo.port());
  const Recording r = recordRun({kRecordingProbePath, "vectors", port}, {{TALVEX_VAR_COMMAND_LINE, ""}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  talvex::ParsedMessage process;
  ASSERT_TRUE(talvex::parseRecorderMessage(processMessage(r), &process, nullptr));
  EXPECT_EQ(process.text("commandline"), std::string(kRecordingProbePath) + '\0' + "vectors" + '\0' + port + '\0');
  const Recording plain = recordRun({kRecordingProbePath, "vectors", port});
  ASSERT_TRUE(talvex::parseRecorderMessage(processMessage(plain), &process, nullptr));
  EXPECT_EQ(process.find("commandline"), nullptr);
}

TEST(RecordingExtensions, AllResolutionsGiveEveryAddressAndTheFailures) {
  const Recording r = recordRun({kRecordingProbePath, "resolve", "::1", "NULL"},
                                {{TALVEX_VAR_ALL_RESOLUTIONS, ""}, {TALVEX_VAR_PID_EVERYWHERE, ""}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  ASSERT_FALSE(r.messages.empty()) << r.run.out;
  for (const auto& m : r.messages) {
    ASSERT_EQ(m.kind, "addrinfo");
    EXPECT_EQ(valueOf(m, "family"), "AF_CCITT");
    EXPECT_EQ(valueOf(m, "address"), "0:0:0:0:0:0:0:1");
    EXPECT_NE(valueOf(m, "pid"), "<absent>");
  }
  const Recording failed = recordRun({kRecordingProbePath, "resolve", "no-such-host.invalid", "NULL"},
                                     {{TALVEX_VAR_ALL_RESOLUTIONS, ""}, {TALVEX_VAR_PID_EVERYWHERE, ""}});
  ASSERT_EQ(failed.run.exitCode, 0) << failed.run.err;
  EXPECT_NE(failed.run.out.find("getaddrinfo status=-2 entries=0"), std::string::npos) << failed.run.out;
  ASSERT_EQ(failed.kinds(), (Names{"addrinfo"}));
  EXPECT_EQ(attributeNames(failed.messages[0]),
            (Names{"timestamp", "ticket", "pid", "name", "gaierror"}));
  EXPECT_EQ(valueOf(failed.messages[0], "name"), "no-such-host.invalid");
  EXPECT_EQ(valueOf(failed.messages[0], "gaierror"), "fffffffe");
}

TEST(RecordingExtensions, WithoutTheVariablesResolutionsAreAsAlways) {
  const Recording r = recordRun({kRecordingProbePath, "resolve", "no-such-host.invalid", "NULL"});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_TRUE(r.messages.empty());
  const Recording v6 = recordRun({kRecordingProbePath, "resolve", "::1", "NULL"});
  ASSERT_FALSE(v6.messages.empty());
  for (const auto& m : v6.messages) EXPECT_EQ(attributeNames(m), (Names{"timestamp", "ticket", "family", "name"}));
}

TEST(RecordingExtensions, UnrecordedSocketsAreNamedOnce) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "unrecorded-sockets", std::to_string(echo.port())},
                                {{TALVEX_VAR_COMPLETE_CAPTURE, ""}, {TALVEX_VAR_UNRECORDED_SOCKETS, ""}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  std::vector<std::string> seen;
  for (const auto* m : r.ofKind("notrecorded")) {
    if (m->find("socket") == nullptr) continue;  // the calls seen but not recorded
    EXPECT_NE(valueOf(*m, "pid"), "<absent>");
    seen.push_back(valueOf(*m, "family") + " " + valueOf(*m, "kind"));
  }
  // The datagram socket on its sendto, each end of the pair on its first use.
  EXPECT_EQ(seen, (Names{"AF_INET datagram", "AF_UNIX stream", "AF_UNIX stream"}));
  EXPECT_TRUE(r.ofKind("send").empty());
}
