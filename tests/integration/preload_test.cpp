// The agent preloaded into real 32-bit processes: what the host sees must not change.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "base/variable_names.h"
#include "process_runner.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

ProcessResult runCalls(const Environment& environment, const EchoServer& echo, const TempDir& tmp) {
  return runProcess({kProbePath, "calls", std::to_string(echo.port()), std::to_string(closedLoopbackPort()),
                     tmp.file("data.txt")},
                    environment);
}

// Lines whose content is fixed by the C library, whatever the agent does.
const char* const kExpectedCallLines[] = {
    "socket valid=1 errno=0",
    "connect-refused result=-1 errno=111",
    "connect result=0 errno=0",
    "setsockopt result=0 errno=0",
    "getsockopt type=1",
    "getpeername port-matches=1",
    "send result=5 errno=0",
    "recv result=5 errno=0",
    "recv data=hello",
    "write-socket result=5 errno=0",
    "read-socket result=5 errno=0",
    "sendmsg result=5 errno=0",
    "recvmsg result=5 errno=0",
    "recvmsg data=abcde",
    "sendto result=2 errno=0",
    "recvfrom result=2 errno=0",
    "select-timeout result=0 errno=0",
    "pselect-timeout result=0 errno=0",
    "close-again result=-1 errno=9",
    "send-closed result=-1 errno=9",
    "recv-closed result=-1 errno=9",
    "socket-bad-family result=-1 errno=97",
    "connect-bad-fd result=-1 errno=9",
    "getaddrinfo result=0 errno=0",
    "write-file result=9 errno=0",
    "read-file result=9 errno=0",
    "read-file data=file-data",
    "read-file-eof result=0 errno=0",
    "write-bad-fd result=-1 errno=9",
    "read-bad-fd result=-1 errno=9",
};

}  // namespace

TEST(Preload, ResultsAndErrnoAreThoseOfTheCLibrary) {
  EchoServer echo;
  TempDir tmp;
  const ProcessResult plain = runCalls(cleanEnvironment(), echo, tmp);
  const ProcessResult hooked = runCalls(agentEnvironment(), echo, tmp);
  ASSERT_EQ(plain.exitCode, 0) << plain.err;
  ASSERT_EQ(hooked.exitCode, 0) << hooked.err;
  EXPECT_EQ(hooked.out, plain.out);
  EXPECT_EQ(hooked.err, "");
  const auto lines = splitLines(hooked.out);
  for (const char* line : kExpectedCallLines) {
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line << "\n" << hooked.out;
  }
}

TEST(Preload, DlsymHandsOutTheAgentsHooks) {
  const ProcessResult hooked = runProcess({kProbePath, "dlsym"}, agentEnvironment());
  ASSERT_EQ(hooked.exitCode, 0) << hooked.err;
  const auto lines = splitLines(hooked.out);
  const std::vector<std::string> expected = {
      "next-connect file=libtalvex_socket_agent.so symbol=connect",
      "default-connect file=libtalvex_socket_agent.so symbol=connect",
#ifdef TALVEX_SANITIZER_RUNTIME
      // The instrumented agent's first dependency is the sanitizer runtime, whose strlen checks.
      "default-strlen file=libasan.so symbol=strlen",
#else
      "default-strlen file=libc.so.6 symbol=?",
#endif
      "missing null=1 error-set=1",
      "after-success error-set=0",
      // A lookup does not start the agent.
      "globalInit 0",
  };
  EXPECT_EQ(lines, expected);

  const ProcessResult plain = runProcess({kProbePath, "dlsym"}, cleanEnvironment());
  // The C library's 64-bit build names the function's address by its internal alias.
  EXPECT_EQ(splitLines(plain.out)[0],
            kAbiBits == 64 ? "next-connect file=libc.so.6 symbol=__connect" : "next-connect file=libc.so.6 symbol=connect");
}

TEST(Preload, DirectCompanionsWorkWithoutStartingTheAgent) {
  EchoServer echo;
  TempDir tmp;
  const std::string logDir = tmp.file("logs");
  const ProcessResult r = runProcess(
      {kProbePath, "direct", std::to_string(echo.port())},
      agentEnvironment({{TALVEX_VAR_DEBUG_LVL, "1023"}, {TALVEX_VAR_DEBUG_DIR, logDir}}));
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_EQ(splitLines(r.out), (std::vector<std::string>{"directconnect result=0 errno=0", "directclose result=0",
                                                         "globalInit 0"}));
  // Start-up never ran, so the log directory was never even created.
  EXPECT_EQ(access(logDir.c_str(), F_OK), -1);
}

TEST(Preload, StartUpRunsOnceUnderConcurrentFirstCalls) {
  EchoServer echo;
  // Repeated, and several processes at a time so that their threads contend for the cores: a
  // race in the once-only start-up shows itself only under contention.
  const int kRounds = 40;
  const int kProcessesPerRound = 4;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<TempDir> dirs(kProcessesPerRound);
    std::vector<ProcessResult> results(kProcessesPerRound);
    std::vector<std::thread> launchers;
    for (int p = 0; p < kProcessesPerRound; ++p) {
      launchers.emplace_back([&, p] {
        results[p] = runProcess({kProbePath, "threads", "32", std::to_string(echo.port())},
                                agentEnvironment({{TALVEX_VAR_DEBUG_LVL, "2"},
                                                  {TALVEX_VAR_DEBUG_DIR, dirs[p].path()}}));
      });
    }
    for (auto& l : launchers) l.join();
    for (int p = 0; p < kProcessesPerRound; ++p) {
      ASSERT_EQ(results[p].exitCode, 0) << results[p].err;
      EXPECT_EQ(results[p].out, "threads succeeded=32 of 32\n");
      const auto files = listDirectory(dirs[p].path());
      ASSERT_EQ(files.size(), 1u);
      const std::string log = readFile(dirs[p].file(files[0]));
      ASSERT_EQ(linesContaining(log, "debug level : 2").size(), 1u) << log;
      ASSERT_EQ(linesContaining(log, "[INFO ]===> WSAStartup : starting to resolve local addresses").size(), 1u) << log;
      ASSERT_EQ(linesContaining(log, "[INFO ]===> WSAStartup : local addresses solved").size(), 1u) << log;
      // The recording start-up runs once too: in the starting thread before the file exists, or
      // in a thread whose handler needed it first, after.
      ASSERT_LE(linesContaining(log, "@@@@ ip").size(), 1u) << log;
    }
  }
}
