// What the recorder sees of a preloaded program's calls, message by message.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recording_support.h"
#include "test_paths.h"

using namespace talvex_test;
using Names = std::vector<std::string>;

namespace {

// The number after "socket " in the probe's output.
int socketFromOutput(const std::string& out, const std::string& label = "socket ") {
  for (const auto& line : splitLines(out)) {
    if (line.rfind(label, 0) == 0) return atoi(line.c_str() + label.size());
  }
  return -1;
}

const Names kConnectLocal = {"localport", "pid", "timestamp", "ticket", "socket", "duration",
                             "family",    "ip",  "port",      "error"};

}  // namespace

TEST(CallRecording, NonBlockingSocketAndConnectInProgress) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "nonblock-connect", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("connect result=-1 errno=115"), std::string::npos) << r.run.out;
  const int s = socketFromOutput(r.run.out);
  // Registered as a stream socket, non-blocking, protocol derived as TCP.
  EXPECT_EQ(linesContaining(r.log, "]socket (OK):\tsocket : " + hexOf(s) +
                                       "\t af = (2)AF_INET,\t type = (2049)SOCK_NONBLOCK | SOCK_STREAM,\t protocol = "
                                       "(0)IPPROTO_TCP")
                .size(),
            1u)
      << r.log;
  ASSERT_EQ(r.kinds(), (Names{"connect", "close"}));
  const auto& connect = r.messages[0];
  EXPECT_EQ(attributeNames(connect), kConnectLocal);
  EXPECT_EQ(valueOf(connect, "socket"), hexOf(s));
  EXPECT_EQ(valueOf(connect, "family"), "AF_INET");
  EXPECT_EQ(valueOf(connect, "ip"), "127.0.0.1");
  EXPECT_EQ(valueOf(connect, "port"), hexOf(echo.port()));
  // In progress counts as success: the socket is opened, and the error is recorded as 115.
  EXPECT_EQ(valueOf(connect, "error"), "73");
  EXPECT_EQ(attributeNames(r.messages[1]), (Names{"pid", "timestamp", "ticket", "socket"}));
  EXPECT_EQ(linesContaining(r.log, "closesocket on " + hexOf(s) + " (connect)").size(), 1u);
}

TEST(CallRecording, UdpConnectAndSendAreNotRecorded) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "udp", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const int s = socketFromOutput(r.run.out);
  // The connect opens the socket but is not recorded, so its close is.
  EXPECT_EQ(r.kinds(), (Names{"close"}));
  EXPECT_EQ(linesContaining(r.log, "]send on " + hexOf(s) + " not logged (UDPSOCKET)").size(), 1u) << r.log;
}

TEST(CallRecording, OnlyTheFirstAcceptOfAListenerIsRecorded) {
  const Recording r = recordRun({kRecordingProbePath, "accept-twice"});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("accepted 1 1 peerlen=16"), std::string::npos) << r.run.out;
  int listener = -1, c1 = -1, c2 = -1;
  sscanf(linesContaining(r.run.out, "listener ")[0].c_str(), "listener %d clients %d %d", &listener, &c1, &c2);
  // bind and listen reported as seen, two client connects, one accept, the client's receive, two
  // client closes, the listener's.
  ASSERT_EQ(r.kinds(), (Names{"notrecorded", "notrecorded", "connect", "connect", "accept", "receive", "close", "close",
                              "close"}))
      << r.log;
  EXPECT_EQ(valueOf(r.messages[0], "name"), "bind");
  EXPECT_EQ(valueOf(r.messages[1], "name"), "listen");
  const auto& accept = r.messages[4];
  EXPECT_EQ(attributeNames(accept), (Names{"pid", "timestamp", "ticket", "from", "socket", "family", "ip", "port"}));
  EXPECT_EQ(valueOf(accept, "from"), hexOf(listener));
  EXPECT_EQ(valueOf(accept, "ip"), "127.0.0.1");
  // accept(listener, NULL, NULL) still names the peer: the first client's own port.
  EXPECT_EQ(valueOf(accept, "port"), valueOf(r.messages[2], "localport"));
  EXPECT_EQ(valueOf(r.messages[5], "socket"), hexOf(c1));
  EXPECT_EQ(valueOf(r.messages[8], "socket"), hexOf(listener));
  EXPECT_EQ(linesContaining(r.log, "closesocket on " + hexOf(listener) + " (accept)").size(), 1u);
  // The accepted sockets are unknown to the agent: their traffic and closes leave no trace.
  EXPECT_EQ(linesContaining(r.log, "]send ").size(), 0u);
}

TEST(CallRecording, SendOfZeroBytesHasLengthAndNoData) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "send-zero", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  ASSERT_EQ(r.kinds(), (Names{"connect", "send", "close"}));
  EXPECT_EQ(attributeNames(r.messages[1]), (Names{"timestamp", "ticket", "socket", "pid", "length"}));
  EXPECT_EQ(valueOf(r.messages[1], "length"), "0");
}

TEST(CallRecording, EmptyPollIsNoEvent) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "recv-eagain", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("recv result=-1 errno=11"), std::string::npos);
  EXPECT_NE(r.run.out.find("read result=-1 errno=11"), std::string::npos);
  EXPECT_EQ(r.kinds(), (Names{"connect", "close"}));
  EXPECT_EQ(linesContaining(r.log, "not logged").size(), 0u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "]recv (SOCKET ERROR : 11 WSAEWOULDBLOCK : Resource temporarily unavailable) :").size(),
            1u);
}

TEST(CallRecording, ReceiveOfZeroIsRecorded) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "recv-zero", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  ASSERT_EQ(r.kinds(), (Names{"connect", "receive", "close"}));
  const auto& receive = r.messages[1];
  EXPECT_EQ(attributeNames(receive), (Names{"pid", "timestamp", "ticket", "socket", "data", "length"}));
  EXPECT_EQ(valueOf(receive, "data"), "");
  EXPECT_EQ(valueOf(receive, "length"), "0");
}

TEST(CallRecording, VectorsAreGatheredAndSpread) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("received abc|defg"), std::string::npos);
  ASSERT_EQ(r.kinds(), (Names{"connect", "send", "receive", "close"}));
  EXPECT_EQ(attributeNames(r.messages[1]), (Names{"timestamp", "ticket", "socket", "pid", "data", "length"}));
  EXPECT_EQ(r.messages[1].find("data")->bytes, "abcdefg");
  EXPECT_EQ(r.messages[1].find("length")->type, talvex::ValueType::I4);
  EXPECT_EQ(valueOf(r.messages[1], "length"), "7");
  EXPECT_EQ(r.messages[2].find("data")->bytes, "abcdefg");
  EXPECT_EQ(valueOf(r.messages[2], "length"), "7");
}

TEST(CallRecording, EveryByteValueAndSeveralMegabytes) {
  EchoServer echo;
  for (long size : {256L, 5L * 1024 * 1024}) {
    const Recording r = recordRun({kRecordingProbePath, "bytes", std::to_string(echo.port()), std::to_string(size)});
    ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
    EXPECT_NE(r.run.out.find("same 1"), std::string::npos);
    std::string expected(static_cast<size_t>(size), '\0');
    for (long i = 0; i < size; ++i) expected[static_cast<size_t>(i)] = static_cast<char>(i % 256);
    const auto sends = r.ofKind("send");
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_TRUE(sends[0]->find("data")->bytes == expected);
    std::string received;
    for (const auto* m : r.ofKind("receive")) received += m->find("data")->bytes;
    EXPECT_TRUE(received == expected) << received.size();
  }
}

TEST(CallRecording, LocalSocketsLeaveNoTrafficTrace) {
  TempDir tmp;
  const Recording r = recordRun({kRecordingProbePath, "unix", tmp.file("sock")});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  // bind and listen are reported as seen; the connect opens the client and the accept marks the
  // listener, so both closes are recorded; no byte of the traffic is.
  EXPECT_EQ(r.kinds(), (Names{"notrecorded", "notrecorded", "accept", "close", "close"}));
  EXPECT_EQ(valueOf(r.messages[2], "family"), "AF_UNIX");
  EXPECT_EQ(r.messages[2].find("ip"), nullptr);
  for (const char* call : {"]send", "]recv", "]write", "]read", "]connect", "]bind", "]listen", "not logged"}) {
    EXPECT_EQ(linesContaining(r.log, call).size(), 0u) << call << "\n" << r.log;
  }
}

TEST(CallRecording, ResolutionsOneMessagePerEntry) {
  Recording r = recordRun({kRecordingProbePath, "resolve", "two.test", "NULL"}, {}, kResolverStandinPath);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(r.run.out, "getaddrinfo status=0 entries=2\n");
  ASSERT_EQ(r.kinds(), (Names{"addrinfo", "addrinfo"}));
  for (const auto& m : r.messages) {
    EXPECT_EQ(attributeNames(m), (Names{"timestamp", "ticket", "family", "name", "ip"}));
    EXPECT_EQ(valueOf(m, "family"), "AF_INET");
    EXPECT_EQ(valueOf(m, "name"), "two.test");
    // Both carry the first entry's address.
    EXPECT_EQ(valueOf(m, "ip"), "10.0.0.1");
  }
  EXPECT_EQ(valueOf(r.messages[0], "ticket"), valueOf(r.messages[1], "ticket"));

  r = recordRun({kRecordingProbePath, "resolve", "mixed.test", "http"}, {}, kResolverStandinPath);
  ASSERT_EQ(r.kinds(), (Names{"addrinfo", "addrinfo"}));
  EXPECT_EQ(valueOf(r.messages[0], "ip"), "10.0.0.7");
  EXPECT_EQ(attributeNames(r.messages[1]), (Names{"timestamp", "ticket", "family", "name"}));
  EXPECT_EQ(valueOf(r.messages[1], "family"), "AF_CCITT");
  EXPECT_EQ(valueOf(r.messages[1], "name"), "mixed.test");

  // When the first entry is IPv6, an IPv4 entry reads its address from the first entry's bytes.
  r = recordRun({kRecordingProbePath, "resolve", "v6first.test", "NULL"}, {}, kResolverStandinPath);
  ASSERT_EQ(r.kinds(), (Names{"addrinfo", "addrinfo"}));
  EXPECT_EQ(valueOf(r.messages[1], "ip"), "10.11.12.13");
}

TEST(CallRecording, ResolutionWithoutNodeIsNamedByService) {
  const Recording r = recordRun({kRecordingProbePath, "resolve", "NULL", "80"});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  ASSERT_FALSE(r.messages.empty());
  for (const auto& m : r.messages) {
    EXPECT_EQ(m.kind, "addrinfo");
    EXPECT_EQ(valueOf(m, "name"), "80");
  }
  EXPECT_EQ(linesContaining(r.log, "]getaddrinfo (OK) nodename : (null)\t servname 80").size(), 1u) << r.log;
}

TEST(CallRecording, FailedResolutionIsLoggedNotRecorded) {
  const Recording r = recordRun({kRecordingProbePath, "resolve", "no-such-host.invalid", "NULL"}, {},
                                kResolverStandinPath);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(r.run.out.rfind("getaddrinfo status=-", 0), 0u) << r.run.out;
  EXPECT_TRUE(r.messages.empty());
  EXPECT_EQ(linesContaining(r.log, "]getaddrinfo (ERROR : ").size(), 1u) << r.log;
}

TEST(CallRecording, SelectReadyIsLoggedAsAnErrorAndTimeoutAsOk) {
  EchoServer echo;
  Recording r = recordRun({kRecordingProbePath, "select-ready", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("select result=1 errno=0 set=1"), std::string::npos) << r.run.out;
  const std::regex readyLine(R"(\[RET  \]\[\d+\]select \(SOCKET ERROR : \d+ .* : .*\):)");
  const auto readyLog = splitLines(r.log);
  EXPECT_EQ(std::count_if(readyLog.begin(), readyLog.end(), [&](const std::string& l) { return std::regex_match(l, readyLine); }),
            1)
      << r.log;
  EXPECT_EQ(r.ofKind("notrecorded").size(), 1u);

  r = recordRun({kProbePath, "channel", "select"});
  const std::regex okLine(R"(\[RET  \]\[\d+\]select \(OK\): 0)");
  const auto lines = splitLines(r.log);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, okLine); }),
            1)
      << r.log;
  const std::regex callLine(R"(\[CALL \]\[\d+\]select\(nfds=>0,readfds=>\(nil\),writefds=>\(nil\),exceptfds=>\(nil\),timeout=>0x[0-9a-f]+\))");
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, callLine); }),
            1)
      << r.log;
}

TEST(CallRecording, SetsockoptIsLoggedWithItsOwnFormatAndNeverSent) {
  const Recording r = recordRun({kRecordingProbePath, "setsockopt26"});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("setsockopt result=0 errno=0"), std::string::npos);
  EXPECT_TRUE(r.raw.empty());
  const std::regex callLine(
      R"(\[CALL \]\[\d+\]setsockopt\(__fd=>1a ,__level=>1 ,__optname=>2 ,__optval=>0x0x[0-9a-f]+ ,__optlen=>4\))");
  const auto lines = splitLines(r.log);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, callLine); }),
            1)
      << r.log;
  EXPECT_EQ(linesContaining(r.log, "[INFO ]<NOT_RECORDED_HOOK> setsockopt").size(), 1u);
  EXPECT_EQ(linesContaining(r.log, "]setsockopt (OK): 0").size(), 1u);
}

TEST(CallRecording, ConnectToOwnBoundPortIsMarkedLoopback) {
  const Recording r = recordRun({kRecordingProbePath, "bind-self"});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  int listener = -1, client = -1, port = 0;
  sscanf(linesContaining(r.run.out, "listener ")[0].c_str(), "listener %d client %d port %d", &listener, &client, &port);
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(attributeNames(*connects[0]), (Names{"localport", "loopback", "pid", "timestamp", "ticket", "socket",
                                                 "duration", "family", "ip", "port"}));
  EXPECT_EQ(valueOf(*connects[0], "loopback"), "1");
  EXPECT_EQ(valueOf(*connects[0], "port"), hexOf(port));
  EXPECT_EQ(linesContaining(r.log, "[INFO ]socks mode inactived (local loop)").size(), 1u);
  EXPECT_EQ(linesContaining(r.log, "]SocksConnect (SOCKS:  :socksStatus 2 socksError 0 toReconnect 1 loopback 1 ret 2")
                .size(),
            1u)
      << r.log;
  EXPECT_EQ(linesContaining(r.log, " familly AF_INET \tip 127.0.0.1\t port " + std::to_string(port)).size(), 1u);
}

TEST(CallRecording, SecondCloseFindsNoRecord) {
  const Recording r = recordRun({kRecordingProbePath, "close-twice"});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("close result=-1 errno=9"), std::string::npos);
  const int s = socketFromOutput(r.run.out);
  EXPECT_EQ(linesContaining(r.log, "]closesocket on " + hexOf(s) + " not logged (no connect or accept)").size(), 1u);
  EXPECT_EQ(linesContaining(r.log, "]closesocket \tsocket : " + hexOf(s)).size(), 1u);
  EXPECT_TRUE(r.raw.empty());
}

TEST(CallRecording, OlderResolverCallsGoUnobserved) {
  const std::vector<std::string> argv = {kRecordingProbePath, "legacy-resolve"};
  const ProcessResult plain = runProcess(argv, cleanEnvironment());
  const Recording r = recordRun(argv);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(r.run.out, plain.out);
  EXPECT_NE(r.run.out.find("gethostbyname answered"), std::string::npos) << r.run.out;
  EXPECT_TRUE(r.raw.empty());
  for (const char* call : {"gethostbyname", "gethostname", "getservbyname", "getservbyport"}) {
    EXPECT_EQ(linesContaining(r.log, call).size(), 0u) << call;
  }
}

TEST(CallRecording, WritesToFilesCostNothing) {
  EchoServer echo;
  TempDir tmp;
  const Recording r = recordRun(
      {kProbePath, "calls", std::to_string(echo.port()), std::to_string(closedLoopbackPort()), tmp.file("f")});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  // One write and one read went to a socket, the rest to a file or a bad descriptor.
  EXPECT_EQ(linesContaining(r.log, "]write \tsocket").size(), 1u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "]read \tsocket").size(), 1u);
  EXPECT_EQ(r.ofKind("send").size(), 4u);
  EXPECT_EQ(r.ofKind("receive").size(), 4u);
  // pselect with no signal mask: the mask is logged as the C library prints a null pointer.
  const std::regex pselectLine(
      R"(\[CALL \]\[\d+\]pselect\(nfds=>\d+,readfds=>0x[0-9a-f]+,writefds=>\(nil\),exceptfds=>\(nil\),)"
      R"(timeout=>0x[0-9a-f]+,sigmask=>\(nil\)\))");
  const auto lines = splitLines(r.log);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, pselectLine); }),
            1)
      << r.log;
}

TEST(CallRecording, LogLinesStopAtTheCallersByteCount) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "unterminated", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const std::string s = hexOf(socketFromOutput(r.run.out));
  const std::regex sendLine("\\[RET  \\]\\[\\d+\\]send \\(OK\\):\tsocket : " + s +
                            "\t len = 5,\t flags = 0,\t buf = " + kAddressPattern + " \"hello\"");
  const std::regex writeLine("\\[RET  \\]\\[\\d+\\]write \\(OK\\):\tsocket : " + s +
                             "\t count = 3,\t buf = " + kAddressPattern + " \"hel\"");
  const auto lines = splitLines(r.log);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, sendLine); }),
            1)
      << r.log;
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return std::regex_match(l, writeLine); }),
            1)
      << r.log;
  const auto sends = r.ofKind("send");
  ASSERT_EQ(sends.size(), 2u);
  EXPECT_EQ(sends[0]->find("data")->bytes, "hello");
  EXPECT_EQ(sends[1]->find("data")->bytes, "hel");
}

TEST(CallRecording, QueriesAreLoggedNotRecorded) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "queries", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("peer port matches 1"), std::string::npos);
  EXPECT_NE(r.run.out.find("getsockopt-bad result=-1 errno=92"), std::string::npos);
  EXPECT_NE(r.run.out.find("getpeername-null result=-1 errno=14"), std::string::npos);
  const std::string s = hexOf(socketFromOutput(r.run.out));
  EXPECT_EQ(linesContaining(r.log, "[CALL ]getpeername socket : " + s).size(), 2u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "[RET  ]getpeername").size(), 2u);
  EXPECT_EQ(linesContaining(r.log, "[CALL ]getsockname socket : " + s).size(), 1u);
  EXPECT_EQ(linesContaining(r.log, "[RET  ]getsockname OK ").size(), 1u);
  EXPECT_EQ(linesContaining(r.log, "[RET  ]getsockopt OK ").size(), 1u);
  EXPECT_EQ(linesContaining(r.log, "[ERROR]getsockopt ERROR ").size(), 1u);
  EXPECT_EQ(r.kinds(), (Names{"connect", "close"}));
}

TEST(CallRecording, OddAddressLengthsAreRecordedSafely) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "long-address", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("connect-200 result=-1 errno=22"), std::string::npos) << r.run.out;
  EXPECT_NE(r.run.out.find("connect-null result=-1 errno=14"), std::string::npos) << r.run.out;
  EXPECT_NE(r.run.out.find("connect result=0 errno=0"), std::string::npos) << r.run.out;
  // The failed connects with a readable IPv4 head are recorded with their error; a 1-byte
  // address and a null one have no family to record.
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 3u) << r.log;
  EXPECT_EQ(valueOf(*connects[0], "error"), "16");
  EXPECT_EQ(valueOf(*connects[1], "error"), "16");
  EXPECT_EQ(valueOf(*connects[2], "port"), hexOf(echo.port()));
  EXPECT_EQ(valueOf(*connects[2], "error"), "<absent>");
}

// Results and errno of every scenario equal those of the same program without the agent.
class SameResults : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(SameResults, WithAndWithoutTheAgent) {
  EchoServer echo;
  TempDir tmp;
  std::vector<std::string> argv = {kRecordingProbePath};
  for (const auto& a : GetParam()) argv.push_back(a == "PORT" ? std::to_string(echo.port()) : a == "PATH" ? tmp.file("s") : a);
  const ProcessResult plain = runProcess(argv, cleanEnvironment());
  const Recording hooked = recordRun(argv, {{TALVEX_VAR_DEBUG_LVL, "0"}});
  ASSERT_EQ(plain.exitCode, 0) << plain.err;
  EXPECT_EQ(hooked.run.exitCode, 0);
  // Ports the system chose differ from run to run; everything else must be the same.
  const std::regex chosenPort("port [0-9]+");
  EXPECT_EQ(std::regex_replace(hooked.run.out, chosenPort, "port N"), std::regex_replace(plain.out, chosenPort, "port N"));
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, SameResults,
    ::testing::Values(std::vector<std::string>{"nonblock-connect", "PORT"}, std::vector<std::string>{"udp", "PORT"},
                      std::vector<std::string>{"accept-twice"}, std::vector<std::string>{"send-zero", "PORT"},
                      std::vector<std::string>{"recv-eagain", "PORT"}, std::vector<std::string>{"recv-zero", "PORT"},
                      std::vector<std::string>{"vectors", "PORT"}, std::vector<std::string>{"bytes", "PORT", "70000"},
                      std::vector<std::string>{"unix", "PATH"}, std::vector<std::string>{"resolve", "localhost", "80"},
                      std::vector<std::string>{"select-ready", "PORT"}, std::vector<std::string>{"setsockopt26"},
                      std::vector<std::string>{"bind-self"}, std::vector<std::string>{"close-twice"},
                      std::vector<std::string>{"unterminated", "PORT"}, std::vector<std::string>{"queries", "PORT"},
                      std::vector<std::string>{"long-address", "PORT"}, std::vector<std::string>{"legacy-resolve"}),
    [](const ::testing::TestParamInfo<std::vector<std::string>>& info) {
      std::string name = info.param[0];
      std::replace(name.begin(), name.end(), '-', '_');
      return name;
    });

TEST(CallRecording, SendmsgWithMoreVectorsThanTheKernelTakesRecordsThemAll) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "many-vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("sendmsg result=-1 errno=90"), std::string::npos) << r.run.out;
  ASSERT_EQ(r.kinds(), (Names{"connect", "send", "close"}));
  std::string expected;
  for (int i = 0; i < 1025; ++i) expected += static_cast<char>('a' + i % 26);
  EXPECT_EQ(r.messages[1].find("data")->bytes, expected);
  EXPECT_EQ(valueOf(r.messages[1], "length"), "401");
  EXPECT_EQ(valueOf(r.messages[1], "error"), "5a");
}

TEST(CallRecording, MessageHeaderWithoutVectorsHasNoData) {
  EchoServer echo;
  const Recording r = recordRun({kRecordingProbePath, "no-vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_NE(r.run.out.find("sendmsg result=0 errno=0"), std::string::npos) << r.run.out;
  EXPECT_NE(r.run.out.find("recvmsg result=0 errno=0"), std::string::npos) << r.run.out;
  ASSERT_EQ(r.kinds(), (Names{"connect", "send", "send", "receive", "close"}));
  EXPECT_EQ(attributeNames(r.messages[1]), (Names{"timestamp", "ticket", "socket", "pid", "length"}));
  EXPECT_EQ(valueOf(r.messages[1], "length"), "0");
  EXPECT_EQ(attributeNames(r.messages[3]), (Names{"pid", "timestamp", "ticket", "socket", "length"}));
  EXPECT_EQ(valueOf(r.messages[3], "length"), "0");
}
