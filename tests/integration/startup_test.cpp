// Start-up as a preloaded host sees it: the log file, the recorder core, odd configuration.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "base/variable_names.h"
#include "process_runner.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

std::string probePid(const ProcessResult& r) {
  for (const auto& line : splitLines(r.out)) {
    if (line.rfind("pid ", 0) == 0) return line.substr(4);
  }
  return "";
}

ProcessResult runStartup(const Environment& extra) {
  return runProcess({kProbePath, "startup"}, agentEnvironment(extra));
}

}  // namespace

TEST(LogFile, NamedByTimeAndPidWithExactHeader) {
  TempDir tmp;
  const std::string dir = tmp.file("agentlogs");
  const ProcessResult r =
      runStartup({{TALVEX_VAR_DEBUG_LVL, "2"}, {TALVEX_VAR_DEBUG_DIR, dir}});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string pid = probePid(r);
  ASSERT_FALSE(pid.empty());
  const auto files = listDirectory(dir);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_TRUE(std::regex_match(files[0], std::regex("sock_\\d{4}-\\d{2}-\\d{2}-\\d{2}_\\d{2}_\\d{2}_" + pid + "\\.txt")))
      << files[0];
  const auto lines = splitLines(readFile(dir + "/" + files[0]));
  ASSERT_GE(lines.size(), 1u);
  EXPECT_EQ(lines[0], "[INFO ]debug level : 2\t debug dir : " + dir + "/\t debug file : " + dir + "/" + files[0] +
                          "\t pid : " + pid);
  // Level 2 is INFO alone; lines logged before the file existed are lost by design.
  for (size_t i = 1; i < lines.size(); ++i) EXPECT_EQ(lines[i].rfind("[INFO ]", 0), 0u) << lines[i];
  EXPECT_EQ(linesContaining(readFile(dir + "/" + files[0]), kStartUpLine).size(), 0u);
  EXPECT_EQ(linesContaining(readFile(dir + "/" + files[0]), "===> WSAStartup : local addresses solved").size(), 1u);
}

TEST(LogFile, LevelBitsFilterKinds) {
  TempDir tmp;
  const ProcessResult r =
      runStartup({{TALVEX_VAR_DEBUG_LVL, "1"}, {TALVEX_VAR_DEBUG_DIR, tmp.path()}});
  ASSERT_EQ(r.exitCode, 0);
  const auto files = listDirectory(tmp.path());
  ASSERT_EQ(files.size(), 1u);
  // With ERROR alone, nothing but the header and error lines (the machine's own addresses may
  // not resolve, which is an error line).
  const auto lines = splitLines(readFile(tmp.file(files[0])));
  ASSERT_GE(lines.size(), 1u);
  for (size_t i = 1; i < lines.size(); ++i) EXPECT_EQ(lines[i].rfind("[ERROR]", 0), 0u) << lines[i];
  EXPECT_EQ(linesContaining(readFile(tmp.file(files[0])), "[INFO ]").size(), 1u);
}

TEST(LogFile, NeedsBothVariables) {
  TempDir tmp;
  const std::string dir = tmp.file("logs");
  ProcessResult r = runStartup({{TALVEX_VAR_DEBUG_DIR, dir}});
  ASSERT_EQ(r.exitCode, 0);
  EXPECT_EQ(access(dir.c_str(), F_OK), -1);
  r = runStartup({{TALVEX_VAR_DEBUG_LVL, "127"}});
  ASSERT_EQ(r.exitCode, 0);
  r = runStartup({{TALVEX_VAR_DEBUG_LVL, "0"}, {TALVEX_VAR_DEBUG_DIR, dir}});
  ASSERT_EQ(r.exitCode, 0);
  EXPECT_EQ(access(dir.c_str(), F_OK), -1);
}

TEST(LogFile, TwoProcessesInTheSameSecondGetTwoFiles) {
  TempDir tmp;
  const Environment logging = {{TALVEX_VAR_DEBUG_LVL, "2"}, {TALVEX_VAR_DEBUG_DIR, tmp.path()}};
  runStartup(logging);
  runStartup(logging);
  EXPECT_EQ(listDirectory(tmp.path()).size(), 2u);
}

TEST(RecorderCore, FoundBesideTheAgent) {
  // The relative location is four directories up from the agent's own.
  TempDir tmp;
  const std::string agentDir = tmp.file("a/b/c/d");
  const std::string coreDir = tmp.file("talvex.recorder.core/Libraries");
  const std::string setup = "mkdir -p '" + agentDir + "' '" + coreDir + "' && cp '" + kAgentPath + "' '" + agentDir +
                            "/' && cp '" + kRecorderCoreStandinPath + "' '" + coreDir + "/libRecorderCore.so'";
  ASSERT_EQ(system(setup.c_str()), 0);
  Environment environment = cleanEnvironment({{"TALVEX_STANDIN_FIXED_TIME", "1700000000123456789"}});
  environment["LD_PRELOAD"] = preloadWithAgent("", agentDir + "/libtalvex_socket_agent.so");
  const ProcessResult r = runProcess({kProbePath, "startup"}, environment);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(linesContaining(r.out, "clock found value=1700000000123456789").size(), 1u) << r.out;
}

TEST(RecorderCore, FoundThroughTheVariable) {
  const ProcessResult r = runStartup({{kRecorderCoreVariable, kRecorderCoreStandinPath},
                                      {"TALVEX_STANDIN_FIXED_TIME", "42"}});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(linesContaining(r.out, "clock found value=42").size(), 1u) << r.out;
}

TEST(StartUp, FirstCallCloseOfANonSocketStartsTheAgentFirst) {
  TempDir tmp;
  const ProcessResult r = runProcess(
      {kProbePath, "first-close"},
      agentEnvironment({{TALVEX_VAR_DEBUG_LVL, "2"}, {TALVEX_VAR_DEBUG_DIR, tmp.path()}}));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(splitLines(r.out), (std::vector<std::string>{"close result=-1 errno=9", "globalInit 1"}));
  EXPECT_EQ(listDirectory(tmp.path()).size(), 1u);
}

TEST(StartUp, HookedCallsMadeDuringStartUpReachTheCLibrary) {
  // The recorder core is loaded in the middle of start-up; its own socket calls enter the agent
  // again and must go through without a second start-up.
  TempDir tmp;
  const ProcessResult r = runStartup({{kRecorderCoreVariable, kRecorderCoreStandinPath},
                                      {"TALVEX_STANDIN_SOCKET_ON_LOAD", "1"},
                                      {"TALVEX_STANDIN_FIXED_TIME", "7"},
                                      {TALVEX_VAR_DEBUG_LVL, "2"},
                                      {TALVEX_VAR_DEBUG_DIR, tmp.path()}});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto lines = splitLines(r.out);
  ASSERT_GE(lines.size(), 3u) << r.out;
  EXPECT_EQ(lines[0], "standin-on-load socket-valid=1 close=0 close-again=-1 errno=9");
  EXPECT_EQ(lines[1], "socket valid=1");
  EXPECT_EQ(lines[2], "clock found value=7");
  const auto files = listDirectory(tmp.path());
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(linesContaining(readFile(tmp.file(files[0])), "starting to resolve local addresses").size(), 1u);
}

TEST(RecorderCore, AbsentEverywhereLeavesNoClock) {
  ProcessResult r = runStartup({});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(linesContaining(r.out, "clock none").size(), 1u) << r.out;
  r = runStartup({{kRecorderCoreVariable, "/nonexistent/libRecorderCore.so"}});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(linesContaining(r.out, "clock none").size(), 1u) << r.out;
  // A directory is not a library: still no clock.
  r = runStartup({{kRecorderCoreVariable, "/tmp"}});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(linesContaining(r.out, "clock none").size(), 1u) << r.out;
}

// Odd configuration never changes what the host sees.
class BadInput : public ::testing::TestWithParam<Environment> {};

// Test names from the variables set: values can be thousands of characters long.
std::string caseName(const ::testing::TestParamInfo<Environment>& info) {
  std::string name = "case" + std::to_string(info.index);
  for (const auto& entry : info.param) name += "_" + entry.first.substr(sizeof TALVEX_VAR_PREFIX - 1);
  return name;
}

TEST_P(BadInput, HostRunsUnchanged) {
  EchoServer echo;
  TempDir tmp;
  const auto run = [&](const Environment& environment) {
    return runProcess({kProbePath, "calls", std::to_string(echo.port()), std::to_string(closedLoopbackPort()),
                       tmp.file("data.txt")},
                      environment);
  };
  const ProcessResult plain = run(cleanEnvironment());
  const ProcessResult hooked = run(agentEnvironment(GetParam()));
  ASSERT_EQ(plain.exitCode, 0);
  EXPECT_EQ(hooked.exitCode, 0) << hooked.err;
  EXPECT_EQ(hooked.signal, 0);
  EXPECT_EQ(hooked.out, plain.out);
}

INSTANTIATE_TEST_SUITE_P(
    OddValues, BadInput,
    ::testing::Values(
        Environment{{TALVEX_VAR_DEBUG_LVL, ""}, {TALVEX_VAR_DEBUG_DIR, "/tmp/talvex-bad-1"}},
        Environment{{TALVEX_VAR_DEBUG_LVL, "abc"}},
        Environment{{TALVEX_VAR_DEBUG_LVL, "99999999999999999999"}},
        Environment{{TALVEX_VAR_DEBUG_LVL, "-1"}},
        Environment{{TALVEX_VAR_PORT_NUMBER, ""}},
        Environment{{TALVEX_VAR_PORT_NUMBER, "not-a-port"}},
        Environment{{TALVEX_VAR_PORT_NUMBER, "-1"}},
        Environment{{TALVEX_VAR_PORT_NUMBER, "99999999999"}},
        Environment{{TALVEX_VAR_IP_ADDRESS, std::string(5000, '1')}},
        Environment{{TALVEX_VAR_SOCKS_MAX_TIMEOUT, "-7"}},
        Environment{{TALVEX_VAR_SOCKS_MAX_TIMEOUT, "huge"}},
        Environment{{TALVEX_VAR_SOCKS_MAX_TIMEOUT, "99999999999999"}},
        Environment{{TALVEX_VAR_DEBUG_PORT, "x"}, {TALVEX_VAR_DEBUG_IP, "not-an-ip"}},
        Environment{{TALVEX_VAR_DEBUG_LVL, "127"}, {TALVEX_VAR_DEBUG_DIR, "/etc/hostname/sub"}},
        Environment{{TALVEX_VAR_DEBUG_LVL, "127"},
                    {TALVEX_VAR_DEBUG_DIR, "/tmp/" + std::string(5000, 'x')}},
        Environment{{TALVEX_VAR_DEBUG_LVL, "127"},
                    {TALVEX_VAR_DEBUG_DIR, "/tmp/" + std::string(200, 'y') + "/" + std::string(200, 'z')}},
        Environment{{kRecorderCoreVariable, ""}},
        Environment{{kRecorderCoreVariable, std::string(9000, '/')}},
        Environment{{TALVEX_VAR_UNPLUG_AGENT, ""}, {TALVEX_VAR_DOUBLE_LOG_SOCKS, ""},
                    {TALVEX_VAR_DEBUG_TRACEBACK, ""}, {TALVEX_VAR_OPT_HOOK, ""}},
        Environment{{TALVEX_VAR_PERSISTENT_CHANNEL, "1"},
                    {TALVEX_VAR_RECORDER_SOCKET, std::string(5000, '@')}},
        Environment{{TALVEX_VAR_PERSISTENT_CHANNEL, "1"}, {TALVEX_VAR_RECORDER_SOCKET, "@"}},
        Environment{{TALVEX_VAR_PERSISTENT_CHANNEL, "1"},
                    {TALVEX_VAR_RECORDER_SOCKET, "/etc/hostname"}},
        Environment{{TALVEX_VAR_PERSISTENT_CHANNEL, "1"}, {TALVEX_VAR_SHARED_RING, "x"}},
        Environment{{TALVEX_VAR_SHARED_RING, ""}, {TALVEX_VAR_RECORDER_SOCKET, "@nobody"}}),
    caseName);
