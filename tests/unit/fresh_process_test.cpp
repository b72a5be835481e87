// What holds in a process where nothing of the agent has run yet, checked in such a process.
#include <gtest/gtest.h>

#include "process_runner.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {
ProcessResult check(const std::vector<std::string>& arguments) {
  std::vector<std::string> argv = {kFreshProcessChecksPath};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return runProcess(argv, cleanEnvironment());
}
}  // namespace

TEST(FreshProcess, ErrorAccessorBeforePointerInitialisationReturnsZero) {
  const ProcessResult r = check({"error-accessor"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "before 0 after 5\n");
}

TEST(FreshProcess, CountersAfterNCallsReturnNPlusOne) {
  const ProcessResult r = check({"counters", "7"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "call number 8 ticket 8\n");
}

TEST(FreshProcess, FirstDefaultScopeLookupLooksInTheAgentsOwnObjectTheSecondInTheDefaultScope) {
  const ProcessResult r = check({"default-scope", kRecorderCoreStandinPath});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // The clock stand-in is in the default scope but not among the agent's object and its
  // dependencies: only the second lookup finds it.
  EXPECT_EQ(r.out, "first null second found\n");
}
