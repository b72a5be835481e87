// The crash handler in a real 32-bit process that faults.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <string>

#include "base/variable_names.h"
#include "process_runner.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {
const Environment kTraceback = {{TALVEX_VAR_DEBUG_TRACEBACK, ""}};

size_t frameLines(const std::vector<std::string>& lines) {
  size_t n = 0;
  for (const auto& line : lines) n += line.rfind("       @ ", 0) == 0;
  return n;
}
}  // namespace

TEST(CrashHandler, PrintsTheFaultAndANamedStackThenExitsZero) {
  const ProcessResult r = runProcess({kCrashProbePath}, agentEnvironment(kTraceback));
  EXPECT_EQ(r.signal, 0);
  EXPECT_EQ(r.exitCode, 0);
  const auto lines = splitLines(r.out);
  ASSERT_GE(lines.size(), 6u) << r.out;
  EXPECT_EQ(lines[0], "socket valid=1");
  // Address 16 lies in no loaded object.
  EXPECT_EQ(lines[1], "SigSEV @ 0x10 ");
  EXPECT_EQ(lines[2], "==================================Stack=========================");
  EXPECT_EQ(lines.back(), "================================End Stack=======================");
  const std::regex named(R"(       @ 0x[0-9a-f]+ \( (\w+) \+ (0x[0-9a-f]+|\(nil\))\) \[.*crash_probe(?:64)?\])");
  std::vector<std::string> names;
  for (const auto& line : lines) {
    std::smatch m;
    if (std::regex_match(line, m, named)) names.push_back(m[1]);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"crash_here", "crash_level2", "main", "_start"})) << r.out;
  const std::regex anyFrame(R"(       @ 0x[0-9a-f]+ (\( \S+ \+ (0x[0-9a-f]+|\(nil\))\) \[.+\]| \[.+ \+ 0x[0-9a-f]+\]|))");
  for (size_t i = 3; i + 1 < lines.size(); ++i) EXPECT_TRUE(std::regex_match(lines[i], anyFrame)) << lines[i];
  EXPECT_EQ(r.out.find("not reached"), std::string::npos);
}

TEST(CrashHandler, WithoutTheVariableTheFaultKills) {
  const ProcessResult r = runProcess({kCrashProbePath}, agentEnvironment());
  EXPECT_EQ(r.signal, SIGSEGV);
  EXPECT_EQ(r.out, "socket valid=1\n");
}

TEST(CrashHandler, AtMostOneHundredFrames) {
  const ProcessResult r = runProcess({kCrashProbePath, "recurse", "150"}, agentEnvironment(kTraceback));
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(frameLines(splitLines(r.out)), 100u);
  const ProcessResult shallow = runProcess({kCrashProbePath, "recurse", "3"}, agentEnvironment(kTraceback));
  EXPECT_LT(frameLines(splitLines(shallow.out)), 100u);
  EXPECT_GT(frameLines(splitLines(shallow.out)), 5u);
}
