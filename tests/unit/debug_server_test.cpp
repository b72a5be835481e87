#include "transport/debug_server.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "base/variable_names.h"
#include "diag/crash_handler.h"
#include "diag/debug_log.h"
#include "log_capture.h"
#include "real/real_functions.h"
#include "recorder_endpoint.h"
#include "startup/agent_startup.h"

using namespace std::chrono_literals;

namespace {

// The mirror is dormant as shipped; these tests switch it on the only way there is, by clearing
// its once-flag, and put everything back after.
class DebugMirror : public ::testing::Test {
 protected:
  void SetUp() override {
    initializeRealFunctionPointers();
    initializationDone = 0;
  }
  void TearDown() override {
    if (debugSocket != -1) close(debugSocket);
    debugSocket = -1;
    initializationDone = 1;
    debugPortVal = 5150;
    unsetenv(TALVEX_VAR_DEBUG_IP);
    unsetenv(TALVEX_VAR_DEBUG_PORT);
  }
};

}  // namespace

TEST(DebugMirrorDormant, OnceFlagStartsSetSoNothingHappens) {
  talvex_test::LogCapture log("127");
  setenv(TALVEX_VAR_DEBUG_IP, "127.0.0.1", 1);
  ASSERT_EQ(initializationDone, 1);
  initializeDebugServer();
  unsetenv(TALVEX_VAR_DEBUG_IP);
  EXPECT_EQ(debugSocket, -1);
  EXPECT_EQ(log.content().find("DebugServer"), std::string::npos);
}

TEST_F(DebugMirror, EveryPassingLineReachesTheServerWholeAndInOrder) {
  talvex::RecorderEndpoint listener;
  ASSERT_TRUE(listener.start("127.0.0.1", 0, nullptr));
  talvex_test::LogCapture log("3");
  setenv(TALVEX_VAR_DEBUG_IP, "127.0.0.1", 1);
  setenv(TALVEX_VAR_DEBUG_PORT, std::to_string(listener.port()).c_str(), 1);
  initializeDebugServer();
  ASSERT_NE(debugSocket, -1);
  EXPECT_EQ(debugPortVal, listener.port());
  x_disp(DMK_INFO, "first %d", 1);
  x_disp(DMK_CALL, "filtered out");
  x_disp(DMK_ERROR, "second");
  const std::string big(10000, 'b');
  x_disp(DMK_INFO, "%s", big.c_str());
  close(debugSocket);
  debugSocket = -1;
  // Each line is a message to the endpoint; together they are the mirror's whole stream.
  ASSERT_EQ(listener.waitForMessages(5, 5s), 5u);
  std::string stream;
  for (const auto& line : listener.messages()) stream += line;
  EXPECT_EQ(stream, "[INFO ]connect() done on debug server\n[INFO ]first 1\n[ERROR]second\n[INFO ]" + big +
                        "\n[INFO ]buffer resized to : 12288\n");
  const std::string file = log.content();
  EXPECT_NE(file.find("[INFO ]** DebugServer active **\n"), std::string::npos);
  EXPECT_NE(file.find("[INFO ]Debug server IP : 127.0.0.1\n"), std::string::npos);
  EXPECT_NE(file.find("[INFO ]Debug server Port : " + std::to_string(listener.port()) + "\n"), std::string::npos);
}

TEST_F(DebugMirror, WithoutALogFileNothingIsSent) {
  talvex::RecorderEndpoint listener;
  ASSERT_TRUE(listener.start("127.0.0.1", 0, nullptr));
  talvex_test::resetDebugLog();
  set_default_debug_display("sock");  // no variables: no file
  setenv(TALVEX_VAR_DEBUG_IP, "127.0.0.1", 1);
  setenv(TALVEX_VAR_DEBUG_PORT, std::to_string(listener.port()).c_str(), 1);
  initializeDebugServer();
  ASSERT_NE(debugSocket, -1);
  x_disp(DMK_ERROR, "not passing");
  close(debugSocket);
  debugSocket = -1;
  // The mirror connected and wrote nothing.
  for (int i = 0; i < 500 && listener.connectionCount() < 1; ++i) usleep(10000);
  ASSERT_EQ(listener.connectionCount(), 1u);
  listener.stop(1000ms);
  EXPECT_TRUE(listener.messages().empty());
  talvex_test::resetDebugLog();
}

TEST_F(DebugMirror, RefusedConnectionIsOneErrorLineAndSendsFailQuietly) {
  talvex_test::LogCapture log("1");
  setenv(TALVEX_VAR_DEBUG_IP, "127.0.0.1", 1);
  setenv(TALVEX_VAR_DEBUG_PORT, std::to_string(talvex_test::closedLoopbackPort()).c_str(), 1);
  errno = 33;
  initializeDebugServer();
  EXPECT_EQ(errno, 33);
  EXPECT_NE(debugSocket, -1);  // kept, unconnected
  errno = 44;
  x_disp(DMK_ERROR, "after");
  EXPECT_EQ(errno, 44);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u) << log.content();
  EXPECT_EQ(lines[1], "[ERROR]connect() failed with error code (SOCKET ERROR : 111 WSAECONNREFUSED : Connection refused):");
  EXPECT_EQ(lines[2], "[ERROR]after");
}

TEST_F(DebugMirror, PortOfZeroOrTextKeeps5150) {
  talvex_test::LogCapture log("2");
  for (const char* value : {"0", "debug"}) {
    initializationDone = 0;
    if (debugSocket != -1) close(debugSocket);
    debugSocket = -1;
    setenv(TALVEX_VAR_DEBUG_IP, "127.0.0.1", 1);
    setenv(TALVEX_VAR_DEBUG_PORT, value, 1);
    initializeDebugServer();
    EXPECT_EQ(debugPortVal, 5150) << value;
  }
  EXPECT_NE(log.content().find("[INFO ]Debug server Port : 5150"), std::string::npos);
}

TEST_F(DebugMirror, WithoutAnAddressItSaysSo) {
  talvex_test::LogCapture log("2");
  unsetenv(TALVEX_VAR_DEBUG_IP);
  initializeDebugServer();
  EXPECT_EQ(debugServerActive, 0);
  EXPECT_EQ(debugSocket, -1);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[1], "[INFO ]****************************");
  EXPECT_EQ(lines[2], "[INFO ]** DebugServer not active **");
  EXPECT_EQ(lines[3], "[INFO ]****************************");
}

TEST(DisplaySymbol, NamesWhatTheLoaderKnows) {
  // A function of the C library, exported: named. An address in no object: nothing printed.
  testing::internal::CaptureStdout();
  const int named = DisplaySymbol(reinterpret_cast<void*>(&abort));
  const int unknown = DisplaySymbol(reinterpret_cast<void*>(16));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_GT(named, 0);
  EXPECT_EQ(unknown, 0);
  EXPECT_NE(out.find(" => abort  ("), std::string::npos) << out;
  EXPECT_NE(out.find("libc.so.6 (base 0x"), std::string::npos) << out;
}

TEST(CrashHandlerInstall, ActiveAndRestore) {
  struct sigaction previous;
  ASSERT_EQ(active_handler(&previous), 0);
  struct sigaction now;
  sigaction(SIGSEGV, nullptr, &now);
  EXPECT_EQ(now.sa_sigaction, &handler);
  EXPECT_TRUE(now.sa_flags & SA_SIGINFO);
  ASSERT_EQ(restore_handler(&previous), 0);
  sigaction(SIGSEGV, nullptr, &now);
  EXPECT_EQ(now.sa_handler, previous.sa_handler);
}
