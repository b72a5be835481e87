// Children of a fork: under their parent's identity by default, as processes of their own with
// TALVEX_SOCKET_AGENT_FOLLOW_FORKS.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recording_support.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

// The pids the probe printed: the parent's first, then each child's.
std::vector<std::string> printedPids(const std::string& out) {
  std::vector<std::string> pids;
  for (const auto& line : splitLines(out)) pids.push_back(hexOf(atol(line.substr(line.find(' ') + 1).c_str())));
  return pids;
}

}  // namespace

TEST(ForkFollowing, WithoutTheVariableChildrenGoOnAsTheirParent) {
  EchoServer echo;
  const Recording r = recordRun({kHostileProbePath, "fork-children", std::to_string(echo.port())});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto pids = printedPids(r.run.out);
  ASSERT_EQ(pids.size(), 4u) << r.run.out;
  size_t processMessages = 0;
  for (const auto& raw : r.raw) processMessages += raw.rfind("<process ", 0) == 0 ? 1 : 0;
  EXPECT_EQ(processMessages, 1u);
  ASSERT_EQ(r.ofKind("connect").size(), 4u);
  for (const auto& m : r.messages) EXPECT_EQ(valueOf(m, "pid"), pids[0]);
}

TEST(ForkFollowing, WithTheVariableEachChildIsAProcessOfItsOwn) {
  EchoServer echo;
  const Recording r = recordRun({kHostileProbePath, "fork-children", std::to_string(echo.port())},
                                {{TALVEX_VAR_FOLLOW_FORKS, "1"}});
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto pids = printedPids(r.run.out);
  ASSERT_EQ(pids.size(), 4u) << r.run.out;
  // Each process message names its own process and comes before that process's first message.
  std::vector<std::string> processPids;
  std::set<std::string> announced;
  for (const auto& raw : r.raw) {
    talvex::ParsedMessage m;
    std::string error;
    ASSERT_TRUE(talvex::parseRecorderMessage(raw, &m, &error)) << error;
    const std::string pid = valueOf(m, "pid");
    if (m.kind == "process") {
      processPids.push_back(pid);
      announced.insert(pid);
    } else if (pid != "<absent>") {
      EXPECT_EQ(announced.count(pid), 1u) << raw;
    }
  }
  // The pid of a process message is written in hexadecimal like every number.
  EXPECT_EQ(processPids, pids);
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 4u);
  for (size_t i = 0; i < connects.size(); ++i) EXPECT_EQ(valueOf(*connects[i], "pid"), pids[i]);
}
