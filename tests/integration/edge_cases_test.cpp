// Edge cases of the recorded behaviour that earlier tests checked too loosely to fail, each run
// through the preloaded agent.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recording_support.h"
#include "system_tools.h"
#include "test_paths.h"

using namespace talvex_test;

TEST(EdgeCases, SelectReturningTwoReadyDescriptorsIsLoggedWithTheErrnoThatWasCurrent) {
  EchoServer echo;
  const std::vector<std::string> argv = {kRecordingProbePath, "select-two-ready", std::to_string(echo.port())};
  const ProcessResult plain = runProcess(argv, cleanEnvironment());
  ASSERT_EQ(splitLines(plain.out).back(), "select result=2 errno=11 set=1,1");
  const Recording r = recordRun(argv);
  // The caller's result and sets are the C library's, and so is errno.
  EXPECT_EQ(splitLines(r.run.out).back(), splitLines(plain.out).back());
  std::vector<std::string> selectLines;
  for (const auto& line : splitLines(r.log)) {
    if (line.find("]select (") != std::string::npos) selectLines.push_back(line.substr(line.find("]select")));
  }
  EXPECT_EQ(selectLines, (std::vector<std::string>{"]select (SOCKET ERROR : 11 WSAEWOULDBLOCK : Resource temporarily unavailable):"}))
      << r.log;
}

TEST(EdgeCases, FirstCallCloseOfANonSocketRunsAfterTheWholeStartUp) {
  EchoServer echo;
  const Recording r = recordRun({kProbePath, "first-close-then-connect", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(splitLines(r.run.out)[0], "close result=-1 errno=9");
  ASSERT_FALSE(r.raw.empty());
  // Start-up drew the first ticket (the process message's), the close the second, the connect the
  // third: the close was handled once start-up was complete.
  EXPECT_NE(r.raw[0].find("<process "), std::string::npos) << r.raw[0];
  EXPECT_NE(r.raw[0].find(" ticket_I4=\"1\""), std::string::npos) << r.raw[0];
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  EXPECT_EQ(valueOf(*connects[0], "ticket"), "3");
  // And its call number follows every start-up line of the log.
  const auto lines = splitLines(r.log);
  size_t lastStartUpLine = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].find("WSAStartup : local addresses solved") != std::string::npos) lastStartUpLine = i;
  }
  size_t firstCallLine = lines.size();
  for (size_t i = 0; i < lines.size() && firstCallLine == lines.size(); ++i) {
    if (lines[i].rfind("[CALL ][", 0) == 0) firstCallLine = i;
  }
  EXPECT_LT(lastStartUpLine, firstCallLine) << r.log;
  ASSERT_LT(firstCallLine, lines.size());
  // The close was call 1; the first logged call is the socket after it.
  EXPECT_EQ(lines[firstCallLine], "[CALL ][2]socket ") << r.log;
}

TEST(EdgeCases, DlsymInALibraryWithItsOwnStrlenGivesTheCLibrarys) {
  const std::vector<std::string> argv = {kProbePath, "dlsym-strlen", kStrlenStandinPath};
  const ProcessResult plain = runProcess(argv, cleanEnvironment());
  ASSERT_EQ(plain.out, "handle-strlen file=libstrlen_standin.so symbol=strlen\n");
  const ProcessResult hooked = runProcess(argv, agentEnvironment());
  ASSERT_EQ(hooked.exitCode, 0) << hooked.err;
#ifdef TALVEX_SANITIZER_RUNTIME
  // The instrumented agent's first dependency is the sanitizer runtime, which defines strlen.
  EXPECT_EQ(hooked.out.rfind("handle-strlen file=libasan.so", 0), 0u) << hooked.out;
#else
  EXPECT_EQ(hooked.out.rfind("handle-strlen file=libc.so.6", 0), 0u) << hooked.out;
#endif
}

TEST(EdgeCases, CLibraryWithoutPselectStillEntersTheHandlerAndFailsTheCall) {
  const Recording r = recordRun({kProbePath, "pselect-once"}, {}, kNoPselectStandinPath);
  ASSERT_EQ(r.run.signal, 0) << r.run.err;
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  // No real function to call: the call fails as on a system without it, instead of jumping to 0.
  EXPECT_EQ(r.run.out, "pselect result=-1 errno=38\n");
  EXPECT_EQ(linesContaining(r.log, "[CALL ][1]pselect(nfds=>0,").size(), 1u) << r.log;
  EXPECT_EQ(linesContaining(r.log, "[RET  ][1]pselect (SOCKET ERROR : 38 ").size(), 1u) << r.log;
  ASSERT_EQ(r.kinds(), (std::vector<std::string>{"notrecorded"}));
  EXPECT_EQ(valueOf(r.messages[0], "name"), "pselect");
}

TEST(EdgeCases, Ipv6SocksPortOfZeroOrTextKeeps1081) {
  for (const char* value : {"0", "socks"}) {
    const Recording r = recordRun({kRecordingProbePath, "close-twice"},
                                  {{TALVEX_VAR_SOCKS_IPV6_ADDRESS, "::1"},
                                   {TALVEX_VAR_SOCKS_PORT_NUMBER_IPV6, value}});
    EXPECT_EQ(linesContaining(r.log, "[INFO ]Socks server IPV6 Port : 1081").size(), 1u) << value << "\n" << r.log;
  }
}

TEST(EdgeCases, WithoutAddressAndPortMessagesGoTo127001Port1092) {
  TALVEX_REQUIRE_NETWORK_NAMESPACES();
  // In a network namespace of the test's own, whose loopback has port 1092 free whatever runs on
  // this machine. The connect goes to a port where nothing listens there: refused, and recorded.
  TempDir tmp;
  const std::string script =
      "/sbin/ip link set lo up || exit 90; '" + std::string(kRecorderPath) + "' --listen 127.0.0.1:1092 --count 2 --output '" +
      tmp.file("messages") + "' --port-file '" + tmp.file("port") + "' 2>/dev/null & " +
      "for i in $(seq 100); do [ -s '" + tmp.file("port") + "' ] && break; sleep 0.05; done; " +
      "LD_PRELOAD='" + preloadWithAgent() + "' '" + kProbePath + "' first-close-then-connect 9; wait";
  const ProcessResult r = runProcess({"/usr/bin/unshare", "--net", "/bin/sh", "-c", script}, cleanEnvironment(),
                                     std::chrono::seconds(30));
  ASSERT_FALSE(r.timedOut);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(splitLines(r.out)[1], "connect result=-1 errno=111") << r.out;
  const auto messages = splitLines(readFile(tmp.file("messages")));
  ASSERT_EQ(messages.size(), 2u) << r.err;
  EXPECT_EQ(messages[0].rfind("<process ", 0), 0u) << messages[0];
  EXPECT_EQ(messages[1].rfind("<connect ", 0), 0u) << messages[1];
}
