#include <gtest/gtest.h>
#include <stdlib.h>

#include "base/environment.h"
#include "base/variable_names.h"
#include "config/optional_hooks.h"
#include "config/socks_config.h"
#include "registry/recording_decision.h"
#include "registry/socket_registry.h"
#include "startup/agent_startup.h"

namespace {
SOCKETINFO record(unsigned family, unsigned protocol, bool rerouted) {
  SOCKETINFO r{};
  r.family = family;
  r.protocol = protocol;
  r.flags = rerouted ? SIF_REROUTED : 0;
  return r;
}

class ShouldBeLogged : public ::testing::Test {
 protected:
  void TearDown() override {
    socksModeActive = 0;
    doubleLogSocks = false;
  }
};
}  // namespace

TEST_F(ShouldBeLogged, ReasonsInTheirOrder) {
  SOCKETINFO tcp4 = record(2, 6, false), tcp6 = record(10, 6, false), udp = record(2, 17, false),
             unixDomain = record(1, 0, false), rerouted = record(2, 6, true);
  EXPECT_EQ(shouldBeLogged(nullptr), 3);
  EXPECT_EQ(shouldBeLogged(&unixDomain), 3);
  EXPECT_EQ(shouldBeLogged(&udp), 2);
  EXPECT_EQ(shouldBeLogged(&tcp4), 0);
  EXPECT_EQ(shouldBeLogged(&tcp6), 0);
  EXPECT_EQ(shouldBeLogged(&rerouted), 0);  // SOCKS mode off
  socksModeActive = 1;
  EXPECT_EQ(shouldBeLogged(&udp), 2);
  EXPECT_EQ(shouldBeLogged(&unixDomain), 3);
  EXPECT_EQ(shouldBeLogged(&rerouted), 1);
  EXPECT_EQ(shouldBeLogged(&tcp4), 0);
  doubleLogSocks = true;
  EXPECT_EQ(shouldBeLogged(&rerouted), 0);
}

TEST(ShouldBeLoggedImages, TextsByReason) {
  EXPECT_STREQ(ImageShouldBeLogged[0], "SHOULDBELOGGED");
  EXPECT_STREQ(ImageShouldBeLogged[1], "SOCKSRECORDED");
  EXPECT_STREQ(ImageShouldBeLogged[2], "UDPSOCKET");
  EXPECT_STREQ(ImageShouldBeLogged[3], "NONINET");
}

TEST(OptionalHooks, PresenceIsReadOnceAndCached) {
  setenv(TALVEX_VAR_OPT_HOOK, "", 1);
  unsetenv(TALVEX_VAR_OPT_HOOK_2);
  EXPECT_EQ(isOptionalSocketHook(), 1);
  EXPECT_EQ(isOptionalSocketHook2(), 0);
  unsetenv(TALVEX_VAR_OPT_HOOK);
  setenv(TALVEX_VAR_OPT_HOOK_2, "1", 1);
  EXPECT_EQ(isOptionalSocketHook(), 1);
  EXPECT_EQ(isOptionalSocketHook2(), 0);
  unsetenv(TALVEX_VAR_OPT_HOOK_2);
}

TEST(Environment, NumbersAreBaseTenAndZeroKeepsTheDefault) {
  const char* name = "TALVEX_SOCKET_AGENT_TEST_NUMBER";
  unsetenv(name);
  EXPECT_EQ(numberOrDefault(name, 1081), 1081);
  const struct {
    const char* text;
    int expected;
  } cases[] = {{"", 1081},  {"0", 1081},   {"abc", 1081},  {"42", 42},   {"042", 42},
               {"12ab", 12}, {"-5", -5},   {"0x10", 1081}, {" 7", 7},    {"99999999999999", 2147483647},
               {"-99999999999999", -2147483647 - 1}};
  for (const auto& c : cases) {
    setenv(name, c.text, 1);
    EXPECT_EQ(numberOrDefault(name, 1081), c.expected) << '"' << c.text << '"';
  }
  unsetenv(name);
}

TEST(Environment, PresenceAloneSwitchesAFlagOn) {
  const char* name = "TALVEX_SOCKET_AGENT_TEST_FLAG";
  unsetenv(name);
  EXPECT_FALSE(isVariableSet(name));
  setenv(name, "", 1);
  EXPECT_TRUE(isVariableSet(name));
  unsetenv(name);
}

TEST(StartupGlobals, StartValues) {
  EXPECT_EQ(initializationDone, 1);
  EXPECT_EQ(GetCurrentThreadId(), 0);
}
