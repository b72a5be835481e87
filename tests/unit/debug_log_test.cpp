#include "diag/debug_log.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "base/variable_names.h"
#include "log_capture.h"
#include "process_runner.h"
#include "startup/agent_startup.h"

using talvex_test::listDirectory;
using talvex_test::readFile;
using talvex_test::splitLines;
using talvex_test::TempDir;

namespace {

// Each test configures the log from scratch, as start-up would in a new process.
class DebugLog : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }

  static void reset() { talvex_test::resetDebugLog(); }

  void configure(const char* level, const std::string* dir) {
    if (level) setenv(TALVEX_VAR_DEBUG_LVL, level, 1);
    if (dir) setenv(TALVEX_VAR_DEBUG_DIR, dir->c_str(), 1);
    initializeCriticalSections();
    set_default_debug_display("sock");
  }

  // The log file's content so far.
  std::string content() {
    if (hLogFile) fflush(hLogFile);
    return debugFileNameFlush ? readFile(debugFileNameFlush) : std::string();
  }

  void logEveryKind() {
    for (int kind = DMK_ERROR; kind <= DMK_GENERAL; ++kind) x_disp(kind, "kind %d", kind);
  }
};

}  // namespace

TEST_F(DebugLog, FileNameAndHeader) {
  TempDir tmp;
  const std::string dir = tmp.file("logs");
  configure("2", &dir);
  const auto files = listDirectory(dir);
  ASSERT_EQ(files.size(), 1u);
  const std::string pid = std::to_string(getpid());
  EXPECT_TRUE(std::regex_match(files[0], std::regex("sock_\\d{4}-\\d{2}-\\d{2}-\\d{2}_\\d{2}_\\d{2}_" + pid + "\\.txt")))
      << files[0];
  EXPECT_EQ(std::string(debugFileNameFlush), dir + "/" + files[0]);
  EXPECT_EQ(currentProcessId, getpid());
  EXPECT_EQ(content(), "[INFO ]debug level : 2\t debug dir : " + dir + "/\t debug file : " + dir + "/" + files[0] +
                           "\t pid : " + pid + "\n");
}

TEST_F(DebugLog, TrailingSlashDoublesInPathAndHeader) {
  TempDir tmp;
  const std::string dir = tmp.file("logs") + "/";
  configure("1", &dir);
  ASSERT_NE(debugFileNameFlush, nullptr);
  EXPECT_NE(std::string(debugFileNameFlush).find("logs//sock_"), std::string::npos) << debugFileNameFlush;
  EXPECT_NE(content().find("debug dir : " + dir + "/\t"), std::string::npos) << content();
}

TEST_F(DebugLog, LevelOneWritesOnlyErrorLines) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("1", &dir);
  logEveryKind();
  const auto lines = splitLines(content());
  ASSERT_EQ(lines.size(), 2u) << content();
  EXPECT_EQ(lines[1], "[ERROR]kind 0");
}

TEST_F(DebugLog, LevelTwoWritesOnlyInfoLines) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("2", &dir);
  logEveryKind();
  const auto lines = splitLines(content());
  ASSERT_EQ(lines.size(), 2u) << content();
  EXPECT_EQ(lines[1], "[INFO ]kind 1");
}

TEST_F(DebugLog, EveryKindWithItsTagAndGeneralWithoutOne) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("1023", &dir);
  logEveryKind();
  const auto lines = splitLines(content());
  const std::vector<std::string> expected = {"[ERROR]kind 0", "[INFO ]kind 1", "[HOOK ]kind 2", "[CALL ]kind 3",
                                             "[RET  ]kind 4", "[WARNI]kind 5", "[DATA ]kind 6", "[LAUNC]kind 7",
                                             "kind 9"};
  ASSERT_EQ(lines.size(), expected.size() + 1) << content();
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(lines[i + 1], expected[i]);
}

TEST_F(DebugLog, LowLinesNeverReachTheFile) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("-1", &dir);
  x_disp(DMK_LOW, "low line");
  EXPECT_EQ(content().find("low line"), std::string::npos);
  EXPECT_EQ(isDebugLevelEnable(DMK_LOW), 1);
}

TEST_F(DebugLog, KindBitIsTakenModulo32) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("2", &dir);
  x_disp(33, "wrapped to info");
  x_disp(32, "wrapped to error");
  const std::string text = content();
  EXPECT_NE(text.find("wrapped to info"), std::string::npos);
  EXPECT_EQ(text.find("wrapped to error"), std::string::npos);
}

TEST_F(DebugLog, LevelWithoutDirectoryMeansNoFileAndNothingPasses) {
  configure("127", nullptr);
  EXPECT_EQ(debugFileNameFlush, nullptr);
  EXPECT_EQ(getDebugLvl(), 127);
  x_disp(DMK_ERROR, "goes nowhere");
  EXPECT_EQ(hLogFile, nullptr);
}

TEST_F(DebugLog, DirectoryWithoutLevelCreatesNothing) {
  TempDir tmp;
  const std::string dir = tmp.file("never-created");
  configure(nullptr, &dir);
  EXPECT_EQ(getDebugLvl(), 0);
  EXPECT_EQ(debugFileNameFlush, nullptr);
  struct stat info;
  EXPECT_NE(stat(dir.c_str(), &info), 0);
}

TEST_F(DebugLog, ConfigurationIsReadOnce) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("2", &dir);
  setenv(TALVEX_VAR_DEBUG_LVL, "1", 1);
  set_default_debug_display("sock");
  EXPECT_EQ(getDebugLvl(), 2);
  EXPECT_EQ(listDirectory(dir).size(), 1u);
}

TEST_F(DebugLog, NineThousandCharacterLineGrowsBufferOnceAndIsWrittenWhole) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("3", &dir);
  const std::string big(9000, 'z');
  x_disp(DMK_ERROR, "%s", big.c_str());
  EXPECT_EQ(internal_buffer_display_size, 12288);
  const auto lines = splitLines(content());
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "[ERROR]" + big);
  EXPECT_EQ(lines[2], "[INFO ]buffer resized to : 12288");
  // Never shrinks.
  x_disp(DMK_ERROR, "short");
  EXPECT_EQ(internal_buffer_display_size, 12288);
}

TEST_F(DebugLog, LineThatJustFitsDoesNotGrow) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("1", &dir);
  // Prefix 7 + 8177 = 8184; 8184 + 7 < 8192 keeps the buffer.
  x_disp(DMK_ERROR, "%s", std::string(8177, 'a').c_str());
  EXPECT_EQ(internal_buffer_display_size, 8192);
  x_disp(DMK_ERROR, "%s", std::string(8178, 'b').c_str());
  EXPECT_EQ(internal_buffer_display_size, 12288);
  const auto lines = splitLines(content());
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].size(), 7u + 8177u);
  EXPECT_EQ(lines[2].size(), 7u + 8178u);
}

TEST_F(DebugLog, UnwritableDirectoryKeepsNameButWritesNothing) {
  const std::string dir = "/proc/self/talvex-no-such-dir";
  configure("3", &dir);
  ASSERT_NE(debugFileNameFlush, nullptr);
  EXPECT_EQ(hLogFile, nullptr);
  x_disp(DMK_ERROR, "formatted but not written");
}

TEST_F(DebugLog, OverLongDirectoryIsHandled) {
  const std::string dir = "/tmp/" + std::string(5000, 'd');
  configure("3", &dir);
  EXPECT_EQ(hLogFile, nullptr);
  x_disp(DMK_ERROR, "still safe");
}

TEST_F(DebugLog, MissingBufferDropsLinesSafely) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("1", &dir);
  free(internal_buffer_display);
  internal_buffer_display = nullptr;
  x_disp(DMK_ERROR, "dropped");
  initializeCriticalSections();
  x_disp(DMK_ERROR, "kept");
  const std::string text = content();
  EXPECT_EQ(text.find("dropped"), std::string::npos);
  EXPECT_NE(text.find("[ERROR]kept"), std::string::npos);
}

TEST_F(DebugLog, LoggingLeavesErrnoAlone) {
  const std::string dir = "/proc/self/talvex-no-such-dir";
  configure("3", &dir);
  errno = 77;
  x_disp(DMK_ERROR, "x");
  EXPECT_EQ(errno, 77);
}

TEST_F(DebugLog, CleanSilencesTheLog) {
  TempDir tmp;
  const std::string dir = tmp.path();
  configure("1", &dir);
  cleanCriticalSections();
  EXPECT_EQ(getDebugLvl(), 0);
  EXPECT_EQ(internal_buffer_display, nullptr);
  EXPECT_EQ(internal_buffer_display_size, 8192);
  x_disp(DMK_ERROR, "silenced");
  EXPECT_EQ(content().find("silenced"), std::string::npos);
  initializeCriticalSections();
}

TEST(DebugFileName, TimeAndPidStamped) {
  char* name = nullptr;
  unsigned size = 0;
  build_debug_file_name("/d/", "sock", ".txt", &name, &size);
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(size, strlen(name) + 1);
  EXPECT_TRUE(std::regex_match(name, std::regex("/d/sock_\\d{4}-\\d{2}-\\d{2}-\\d{2}_\\d{2}_\\d{2}_" +
                                                std::to_string(getpid()) + "\\.txt")))
      << name;
  free(name);
}

TEST(StringUtilities, LengthLowerAndFill) {
  EXPECT_EQ(Mystrlen(""), 0u);
  EXPECT_EQ(Mystrlen("abc"), 3u);
  char text[] = "MiXeD 42 Z";
  EXPECT_EQ(Mystrtolower(text), 10u);
  EXPECT_STREQ(text, "mixed 42 z");
  unsigned char area[40];
  memset(area, 0, sizeof area);
  for (unsigned offset = 0; offset < 4; ++offset) {
    for (unsigned count = 0; count < 30; ++count) {
      memset(area, 0, sizeof area);
      void* end = Mymemset(area + offset, 0xab, count);
      EXPECT_EQ(end, area + offset + count);
      for (unsigned i = 0; i < sizeof area; ++i) {
        const bool inside = i >= offset && i < offset + count;
        ASSERT_EQ(area[i], inside ? 0xab : 0) << offset << " " << count << " " << i;
      }
    }
  }
}
