#include "base/time_base.h"

#include <gtest/gtest.h>
#include <sys/time.h>

namespace {
int clockReads = 0;
int64_t fakeNow = 0;
int64_t fakeClock() {
  ++clockReads;
  return fakeNow;
}

class TimeBase : public ::testing::Test {
 protected:
  void SetUp() override {
    getCurrentTimePtr = nullptr;
    clockReads = 0;
  }
  void TearDown() override { getCurrentTimePtr = nullptr; }
};
}  // namespace

TEST_F(TimeBase, MillisecondsSinceEpoch) {
  timeval before, after;
  gettimeofday(&before, nullptr);
  const int64_t stamp = getTimeStamp();
  gettimeofday(&after, nullptr);
  EXPECT_GE(stamp, static_cast<int64_t>(before.tv_sec) * 1000 + before.tv_usec / 1000);
  EXPECT_LE(stamp, static_cast<int64_t>(after.tv_sec) * 1000 + after.tv_usec / 1000);
}

TEST_F(TimeBase, NoClockMeansMinusOne) {
  EXPECT_EQ(getTimeStampNs(), -1);
  EXPECT_EQ(getElapsedTimeNs(100), -1);
}

TEST_F(TimeBase, RecorderCoreClockIsUsedAsItIs) {
  getCurrentTimePtr = &fakeClock;
  fakeNow = 1700000000123456789LL;
  EXPECT_EQ(getTimeStampNs(), 1700000000123456789LL);
  EXPECT_EQ(getElapsedTimeNs(1700000000000000000LL), 123456789);
}

TEST_F(TimeBase, ElapsedFromMinusOneDoesNotReadTheClock) {
  getCurrentTimePtr = &fakeClock;
  EXPECT_EQ(getElapsedTimeNs(-1), -1);
  EXPECT_EQ(clockReads, 0);
}

TEST_F(TimeBase, ElapsedWhenClockReadsMinusOne) {
  getCurrentTimePtr = &fakeClock;
  fakeNow = -1;
  EXPECT_EQ(getElapsedTimeNs(5), -1);
}

TEST_F(TimeBase, ElapsedMillisecondsUseLow32BitsOnly) {
  const int64_t now = getTimeStamp();
  const int32_t elapsed = getElapsedTime(now - 50 + (int64_t(7) << 32));
  EXPECT_GE(elapsed, 50);
  EXPECT_LT(elapsed, 50 + 10000);
}
