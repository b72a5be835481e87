// Rerouting through SOCKS5: Debian's microsocks for the happy path, a scripted server for what a
// real one will not do.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recording_support.h"
#include "scripted_socks_server.h"
#include "system_tools.h"
#include "test_paths.h"

using namespace talvex_test;
using Names = std::vector<std::string>;

namespace {

const char* const kMicrosocks = "/usr/bin/microsocks";

Environment socksV4(int port, Environment extra = {}) {
  extra[TALVEX_VAR_SOCKS_IPV4_ADDRESS] = "127.0.0.1";
  extra[TALVEX_VAR_SOCKS_PORT_NUMBER_IPV4] = std::to_string(port);
  return extra;
}

bool accepting(int port) {
  const int fd = connectToLoopback(port);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

// microsocks on a loopback port of its own, ready to accept.
class Microsocks {
 public:
  Microsocks() : port_(closedLoopbackPort()) {
    process_.reset(new BackgroundProcess({kMicrosocks, "-i", "127.0.0.1", "-p", std::to_string(port_)},
                                         cleanEnvironment()));
    waitForListener(port_);
  }
  int port() const { return port_; }

 private:
  int port_;
  std::unique_ptr<BackgroundProcess> process_;
};

std::string socket4(const ProcessResult& r) {
  for (const auto& line : splitLines(r.out)) {
    if (line.rfind("socket ", 0) == 0) return hexOf(atoi(line.c_str() + 7));
  }
  return "?";
}

size_t indexOf(const std::vector<std::string>& lines, const std::string& needle) {
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].find(needle) != std::string::npos) return i;
  }
  return lines.size();
}

}  // namespace

TEST(Socks, ThroughMicrosocksTheHostSeesItsOwnDestination) {
  TALVEX_REQUIRE_PROGRAM(kMicrosocks);
  Microsocks server;
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "socks-echo", std::to_string(echo.port())}, socksV4(server.port()));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto out = splitLines(r.run.out);
  EXPECT_EQ(Names(out.begin() + 1, out.end()),
            (Names{"connect result=0 errno=0", "send result=4 errno=0", "recv result=4 errno=0",
                   "recv data=ping", "getpeername result=0 errno=0", "peer is destination 1 length 16",
                   "getpeername-4 result=14 errno=0", "tiny length 4", "close result=0 errno=0"}))
      << r.log;
  ASSERT_EQ(r.kinds(), (Names{"connect", "close"}));
  const auto& connect = r.messages[0];
  EXPECT_EQ(attributeNames(connect), (Names{"localport", "sockserror", "pid", "timestamp", "ticket", "socket",
                                            "duration", "family", "ip", "port"}));
  EXPECT_EQ(valueOf(connect, "sockserror"), "0");
  EXPECT_EQ(valueOf(connect, "ip"), "127.0.0.1");
  EXPECT_EQ(valueOf(connect, "port"), hexOf(echo.port()));
  // The proxy records the traffic of a rerouted socket; the agent leaves it out.
  const std::string s = socket4(r.run);
  EXPECT_EQ(linesContaining(r.log, "]send on " + s + " not logged (SOCKSRECORDED)").size(), 1u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "]recv on " + s + " not logged (SOCKSRECORDED)").size(), 1u);
  for (const char* line : {"[INFO ]** SocksMode active **", "[INFO ]** handshake successfull **",
                           "[INFO ]recv selected method OK : 05 00 ", "[INFO ]** socks request successfull **",
                           "[INFO ]SOCK connect worked fine"}) {
    EXPECT_EQ(linesContaining(r.log, line).size(), 1u) << line;
  }
  char request[128];
  snprintf(request, sizeof request, "[INFO ]Client request : [0x05,0x01,0x00,0x01,0x7F,0x00,0x00,0x01,0x%02X,0x%02X]",
           echo.port() >> 8, echo.port() & 0xff);
  EXPECT_EQ(linesContaining(r.log, request).size(), 1u) << r.log;
}

TEST(Socks, DoubleLoggingRecordsTheTrafficToo) {
  TALVEX_REQUIRE_PROGRAM(kMicrosocks);
  Microsocks server;
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "socks-echo", std::to_string(echo.port())},
                                socksV4(server.port(), {{TALVEX_VAR_DOUBLE_LOG_SOCKS, ""}}));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  ASSERT_EQ(r.kinds(), (Names{"connect", "send", "receive", "close"}));
  EXPECT_EQ(r.messages[1].find("data")->bytes, "ping");
  EXPECT_EQ(r.messages[2].find("data")->bytes, "ping");
}

TEST(Socks, ConnectToAPortOfTheProcessItselfIsNotRerouted) {
  TALVEX_REQUIRE_PROGRAM(kMicrosocks);
  Microsocks server;
  const Recording r = recordRun({kRecordingProbePath, "bind-self"}, socksV4(server.port()));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(attributeNames(*connects[0]), (Names{"localport", "loopback", "sockserror", "pid", "timestamp", "ticket",
                                                 "socket", "duration", "family", "ip", "port"}));
  EXPECT_EQ(valueOf(*connects[0], "loopback"), "1");
  EXPECT_EQ(linesContaining(r.log, "starting socks connection").size(), 0u);
}

TEST(Socks, UdpConnectsAreNeverRerouted) {
  TALVEX_REQUIRE_PROGRAM(kMicrosocks);
  Microsocks server;
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "udp", std::to_string(echo.port())}, socksV4(server.port()));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("connect result=0 errno=0"), std::string::npos);
  EXPECT_EQ(linesContaining(r.log, "starting socks connection").size(), 0u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "SocksConnect (SOCKS:").size(), 0u);
}

TEST(Socks, PortOfZeroOrTextKeeps1081) {
  for (const char* value : {"0", "socks"}) {
    const Recording r = recordRun({kRecordingProbePath, "close-twice"},
                                  {{TALVEX_VAR_SOCKS_IPV4_ADDRESS, "127.0.0.1"},
                                   {TALVEX_VAR_SOCKS_PORT_NUMBER_IPV4, value}});
    EXPECT_EQ(linesContaining(r.log, "[INFO ]Socks server IPV4 Port : 1081").size(), 1u) << r.log;
  }
}

struct ReplyCase {
  int code;
  const char* line;
  int socksError;
};

void PrintTo(const ReplyCase& c, std::ostream* out) { *out << "reply code " << c.code; }

class SocksReplyCode : public ::testing::TestWithParam<ReplyCase> {};

TEST_P(SocksReplyCode, RefusedTargetFailsTheConnect) {
  SocksScript script;
  script.requestReply[1] = static_cast<char>(GetParam().code);
  ScriptedSocksServer server("127.0.0.1", script);
  const Recording r = recordRun({kRecordingProbePath, "socks-echo", "9"}, socksV4(server.port()));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  // The host sees a refused connect, and its socket is what a refused connect leaves: open,
  // unconnected (a send finds the pipe broken, as after any refused connect).
  EXPECT_EQ(splitLines(r.run.out)[1], "connect result=-1 errno=111");
  EXPECT_EQ(splitLines(r.run.out)[2], "send result=-1 errno=32");
  EXPECT_EQ(linesContaining(r.run.out, "close result=0 ").size(), 1u) << r.run.out;
  EXPECT_EQ(linesContaining(r.log, std::string("[ERROR]") + GetParam().line).size(), 1u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "[ERROR]socks server can not connect to target").size(), 1u);
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  // The recorder gets the SOCKS error itself, and no separate sockserror.
  EXPECT_EQ(connects[0]->find("sockserror"), nullptr);
  EXPECT_EQ(valueOf(*connects[0], "error"), hexOf(GetParam().socksError));
  // Greeting and request only: the refused connection carries nothing after them.
  EXPECT_EQ(server.received(), std::string("\x05\x01\x00\x05\x01\x00\x01\x7f\x00\x00\x01\x00\x09", 13));
}

INSTANTIATE_TEST_SUITE_P(Codes, SocksReplyCode,
                         ::testing::Values(ReplyCase{1, "General SOCKS server failure", 111},
                                           ReplyCase{2, "Connection not allowed by ruleset", 111},
                                           ReplyCase{3, "Network unreachable", 101},
                                           ReplyCase{4, "Host unreachable", 113},
                                           ReplyCase{5, "Connection refused", 111}, ReplyCase{6, "TTL expired", 110},
                                           ReplyCase{7, "Command not supported", 95},
                                           ReplyCase{8, "Address type not supported", 99},
                                           ReplyCase{9, "Unknown error", 103}),
                         [](const ::testing::TestParamInfo<ReplyCase>& info) {
                           return "code" + std::to_string(info.param.code);
                         });

struct FailureCase {
  const char* name;
  SocksScript script;
  const char* line;
  int socksError;  // -1: depends on timing, not checked
};

void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.name; }

class SocksFailure : public ::testing::TestWithParam<FailureCase> {};

// A server that fails the exchange refuses the connect; the socket stays the program's, open under
// its number, and no direct connect is made behind the refusal.
TEST_P(SocksFailure, BadExchangeRefusesTheConnectAndKeepsTheSocket) {
  ScriptedSocksServer server("127.0.0.1", GetParam().script);
  const Recording r = recordRun({kRecordingProbePath, "socks-echo", "9"},
                                socksV4(server.port(), {{TALVEX_VAR_SOCKS_MAX_TIMEOUT, "1"}}));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto lines = splitLines(r.run.out);
  ASSERT_GE(lines.size(), 2u) << r.run.out;
  EXPECT_EQ(lines[1], "connect result=-1 errno=111") << r.run.out;
  EXPECT_EQ(linesContaining(r.run.out, "close result=0 ").size(), 1u) << r.run.out;
  EXPECT_EQ(linesContaining(r.log, std::string("[ERROR]") + GetParam().line).size(), 1u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "[ERROR]bad handshake on socks server").size(), 1u);
  EXPECT_EQ(linesContaining(r.log, "cannot dissolve").size(), 0u) << r.log;
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  if (GetParam().socksError != -1) EXPECT_EQ(valueOf(*connects[0], "sockserror"), hexOf(GetParam().socksError));
  EXPECT_EQ(valueOf(*connects[0], "error"), hexOf(ECONNREFUSED));
}

// While other threads open and close files as fast as they can: had the failed exchange freed the
// socket's number, one of them would have taken it, and the program's close would close a file.
TEST_P(SocksFailure, TheSocketKeepsItsNumberWhileOtherThreadsOpenFiles) {
  ScriptedSocksServer server("127.0.0.1", GetParam().script);
  const ProcessResult r = runProcess({kRecordingProbePath, "socks-fail-busy", "9"},
                                     agentEnvironment({{TALVEX_VAR_UNPLUG_AGENT, ""},
                                                       {TALVEX_VAR_SOCKS_IPV4_ADDRESS, "127.0.0.1"},
                                                       {TALVEX_VAR_SOCKS_PORT_NUMBER_IPV4, std::to_string(server.port())},
                                                       {TALVEX_VAR_SOCKS_MAX_TIMEOUT, "1"}}),
                                     std::chrono::seconds(30));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto lines = splitLines(r.out);
  ASSERT_EQ(lines.size(), 4u) << r.out;
  EXPECT_EQ(lines[0], "connect result=-1 errno=111");
  EXPECT_EQ(lines[1], "still a stream socket 1");
  EXPECT_EQ(lines[2], "still non-blocking 1");
  EXPECT_EQ(lines[3].rfind("close result=0 ", 0), 0u) << lines[3];
}

namespace {
SocksScript withMethod(const char* reply) {
  SocksScript s;
  s.methodReply = std::string(reply, 2);
  return s;
}
SocksScript withReply(const char* reply) {
  SocksScript s;
  s.requestReply = std::string(reply, 10);
  return s;
}
SocksScript oneByteMethod() {
  SocksScript s;
  s.methodReply = std::string("\x05", 1);
  return s;
}
SocksScript closing() {
  SocksScript s;
  s.closeAtOnce = true;
  return s;
}
SocksScript silent() {
  SocksScript s;
  s.neverAnswer = true;
  return s;
}
}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Exchanges, SocksFailure,
    ::testing::Values(
        FailureCase{"method_02", withMethod("\x05\x02"), "unexpected received message from server", 93},
        FailureCase{"method_version", withMethod("\x04\x00"), "unexpected received message from server", 93},
        // Half a reply and then nothing: the rest is waited for until the time-out.
        FailureCase{"method_cut_short", oneByteMethod(),
                    "failed to receive selected method (SOCKET ERROR : 110 WSAETIMEDOUT : Connection timed out)", 110},
        FailureCase{"reply_version", withReply("\x04\x00\x00\x01\x00\x00\x00\x00\x00\x00"),
                    "bad protocol version (expected : 5 received 4)", 93},
        FailureCase{"reserved", withReply("\x05\x00\x01\x01\x00\x00\x00\x00\x00\x00"), "bad reserved field", 93},
        FailureCase{"domain_name", withReply("\x05\x00\x00\x03\x00\x00\x00\x00\x00\x00"),
                    "Domain name address (unsupported)", 93},
        FailureCase{"invalid_type", withReply("\x05\x00\x00\x09\x00\x00\x00\x00\x00\x00"), "Invalid ATYP field", 93},
        // Closed before the greeting: the greeting then meets an end of file or a reset.
        FailureCase{"closes", closing(), "Socks connect failed (wrong handshake)", -1},
        FailureCase{"silent", silent(),
                    "failed to receive selected method (SOCKET ERROR : 110 WSAETIMEDOUT : Connection timed out)",
                    110}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

TEST(Socks, UnreachableServerMeansADirectConnect) {
  EchoServer echo;
  const int closed = closedLoopbackPort();
  const Recording r = recordRun({kRecordingProbePath, "socks-echo", std::to_string(echo.port())}, socksV4(closed));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(splitLines(r.run.out)[1], "connect result=0 errno=0");
  EXPECT_EQ(splitLines(r.run.out)[4], "recv data=ping");
  for (const char* line :
       {"[ERROR]connect() failed with error code (SOCKET ERROR : 111 WSAECONNREFUSED : Connection refused):",
        "[ERROR]Socks connect failed (socks server unreachable)", "[ERROR]connect failed on SOCKS server"}) {
    EXPECT_EQ(linesContaining(r.log, line).size(), 1u) << line << "\n" << r.log;
  }
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(valueOf(*connects[0], "sockserror"), "6f");
  EXPECT_EQ(connects[0]->find("error"), nullptr);
  // A socket that was not rerouted has its traffic recorded.
  EXPECT_EQ(r.ofKind("send").size(), 1u);
}

TEST(Socks, Ipv6DestinationThroughAnIpv6Server) {
  ScriptedSocksServer server("::1", SocksScript());
  const Recording r = recordRun({kRecordingProbePath, "socks-echo6", "4242"},
                                {{TALVEX_VAR_SOCKS_IPV6_ADDRESS, "::1"},
                                 {TALVEX_VAR_SOCKS_PORT_NUMBER_IPV6, std::to_string(server.port())}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(splitLines(r.run.out)[1], "connect result=0 errno=0") << r.log;
  EXPECT_EQ(splitLines(r.run.out)[4], "recv data=ping");
  EXPECT_EQ(splitLines(r.run.out)[6], "peer is destination 1 length 28");
  std::string request("\x05\x01\x00\x04", 4);
  request += std::string(15, '\0') + "\x01";
  request += std::string("\x10\x92", 2);  // 4242
  EXPECT_EQ(server.received(), std::string("\x05\x01\x00", 3) + request + "ping");
  EXPECT_EQ(linesContaining(r.log, "[INFO ]==> Connecting socket IPV6 : ").size(), 1u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "[INFO ]\t sin6_addr.u.Word : [0000 0000 0000 0000 0000 0000 0000 0001 ]").size(), 1u);
  EXPECT_EQ(linesContaining(r.log, "[INFO ]* socks server request IPV6 0:0:0:0:0:0:0:1(4242)").size(), 1u);
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(valueOf(*connects[0], "family"), "AF_CCITT");
  EXPECT_EQ(valueOf(*connects[0], "ip"), "0:0:0:0:0:0:0:1");
}

TEST(Socks, Ipv6DestinationWithOnlyAnIpv4ServerGoesDirect) {
  ScriptedSocksServer target("::1", SocksScript());
  const Recording r =
      recordRun({kRecordingProbePath, "socks-echo6", std::to_string(target.port())}, socksV4(closedLoopbackPort()));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(splitLines(r.run.out)[1], "connect result=0 errno=0") << r.log;
  EXPECT_EQ(linesContaining(r.log, "[ERROR]connect() failed with error code (SOCKET ERROR : 97 WSAEAFNOSUPPORT : Address "
                                   "family not supported by protocol family):")
                .size(),
            1u)
      << r.log;
  EXPECT_EQ(linesContaining(r.log, "[ERROR]Socks connect failed (socks server unreachable)").size(), 1u) << r.log;
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(valueOf(*connects[0], "sockserror"), "61");
}

TEST(Socks, NonBlockingSocketIsBlockingOnlyDuringTheHandshake) {
  ScriptedSocksServer server("127.0.0.1", SocksScript());
  const Recording r = recordRun({kRecordingProbePath, "socks-nonblocking", "9"}, socksV4(server.port()));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(splitLines(r.run.out), (Names{"nonblocking before 1", "connect result=0 errno=0", "nonblocking after 1",
                                          "close result=0 errno=0"}))
      << r.log;
}

TEST(Socks, SendFromAnotherThreadWaitsForTheHandshake) {
  SocksScript slow;
  slow.methodDelayMs = 600;
  ScriptedSocksServer server("127.0.0.1", slow);
  const Recording r = recordRun({kRecordingProbePath, "socks-concurrent-send", "9"}, socksV4(server.port()));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(splitLines(r.run.out),
            (Names{"send result=4 errno=0", "connect result=0", "recv result=4 errno=0", "close result=0 errno=0"}));
  const auto lines = splitLines(r.log);
  const size_t waiting = indexOf(lines, "** socket locked (waiting) : ");
  const size_t unlocking = indexOf(lines, "** unlocking socket : ");
  const size_t unlocked = indexOf(lines, "** socket unlocked : ");
  ASSERT_LT(waiting, lines.size()) << r.log;
  ASSERT_LT(unlocking, lines.size());
  ASSERT_LT(unlocked, lines.size());
  EXPECT_LT(waiting, unlocking);
  EXPECT_GT(unlocked, unlocking);
  // The late send went through the tunnel, after the exchange.
  EXPECT_EQ(server.received().substr(13), "late");
}

TEST(Socks, MalformedServerAddressesLeaveTheHostWorking) {
  EchoServer echo;
  for (const std::string& address : {std::string("not-an-address"), std::string(5000, '7')}) {
    const Recording r = recordRun({kRecordingProbePath, "socks-echo", std::to_string(echo.port())},
                                  {{TALVEX_VAR_SOCKS_IPV4_ADDRESS, address},
                                   {TALVEX_VAR_SOCKS_IPV6_ADDRESS, "::not-v6::"}});
    ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
    EXPECT_EQ(splitLines(r.run.out)[1], "connect result=0 errno=0");
    EXPECT_EQ(splitLines(r.run.out)[4], "recv data=ping");
    EXPECT_EQ(linesContaining(r.log, "is not an address: server not reached").size(), 1u) << r.log.substr(0, 3000);
  }
}

namespace {

// A listener whose accept queue is full: the kernel drops every further SYN, as a server behind a
// packet filter does, and a connect to it neither succeeds nor fails until the kernel gives up.
class FullListener {
 public:
  FullListener() {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 0);
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    // Without waiting: once the queue is full, a filler's own SYN is dropped too.
    for (int& filler : fillers_) {
      filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    usleep(100 * 1000);
  }
  ~FullListener() {
    for (int filler : fillers_) close(filler);
    close(listener_);
  }
  int port() const { return port_; }

 private:
  int listener_ = -1;
  int port_ = 0;
  int fillers_[2] = {-1, -1};
};

}  // namespace

TEST(Socks, ServerThatNeverAcceptsMeansADirectConnectWithinTheTimeOut) {
  FullListener socks;
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "socks-echo", std::to_string(echo.port())},
                                socksV4(socks.port(), {{TALVEX_VAR_SOCKS_MAX_TIMEOUT, "1"}}), "",
                                std::chrono::seconds(20));
  ASSERT_FALSE(r.run.timedOut);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  // The connect the agent gave up on is dissolved: the host's own connect reaches the destination,
  // and its bytes come back from there.
  EXPECT_EQ(splitLines(r.run.out)[1], "connect result=0 errno=0") << r.run.out;
  EXPECT_EQ(splitLines(r.run.out)[4], "recv data=ping") << r.run.out;
  EXPECT_EQ(linesContaining(r.log, "[ERROR]connect() timeout expired (0)").size(), 1u) << r.log;
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(valueOf(*connects[0], "sockserror"), "6e");
}

TEST(Socks, OneTimeOutBoundsHandshakeAndRequestTogether) {
  // Each half answered within the time-out, the two together not.
  SocksScript slow;
  slow.methodDelayMs = 700;
  slow.replyDelayMs = 700;
  ScriptedSocksServer server("127.0.0.1", slow);
  const Recording r = recordRun({kRecordingProbePath, "socks-echo", "9"},
                                socksV4(server.port(), {{TALVEX_VAR_SOCKS_MAX_TIMEOUT, "1"}}));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(
      linesContaining(r.log,
                      "[ERROR]failed to receive protocol version (SOCKET ERROR : 110 WSAETIMEDOUT : Connection timed out)")
          .size(),
      1u)
      << r.log;
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(valueOf(*connects[0], "sockserror"), "6e");
}

TEST(Socks, RepliesThatArriveInPiecesAreReadWhole) {
  SocksScript pieces;
  pieces.inPieces = true;
  ScriptedSocksServer server("127.0.0.1", pieces);
  const Recording r = recordRun({kRecordingProbePath, "socks-echo", "9"}, socksV4(server.port()));
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(splitLines(r.run.out)[1], "connect result=0 errno=0") << r.log;
  EXPECT_EQ(splitLines(r.run.out)[4], "recv data=ping") << r.run.out;
  EXPECT_EQ(linesContaining(r.log, "** socks request successfull **").size(), 1u) << r.log;
}
