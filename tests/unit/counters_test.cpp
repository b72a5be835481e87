#include "base/counters.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "base/critical_section.h"

TEST(Counters, EachDrawIsThePreviousPlusOne) {
  const unsigned first = getGlobalCpt();
  for (unsigned n = 1; n <= 100; ++n) EXPECT_EQ(getGlobalCpt(), first + n);
  const unsigned ticket = getTicket();
  EXPECT_EQ(getTicket(), ticket + 1);
  const unsigned internal = getInternalCpt();
  EXPECT_EQ(getInternalCpt(), internal + 1);
}

TEST(Counters, AreIndependent) {
  const unsigned call = getGlobalCpt();
  const unsigned internal = getInternalCpt();
  for (int i = 0; i < 10; ++i) getTicket();
  EXPECT_EQ(getGlobalCpt(), call + 1);
  EXPECT_EQ(getInternalCpt(), internal + 1);
}

TEST(Counters, TwoThreadsNeverGetTheSameTicket) {
  const int perThread = 20000;
  std::vector<unsigned> a, b;
  a.reserve(perThread);
  b.reserve(perThread);
  const unsigned before = getTicket();
  std::thread first([&] {
    for (int i = 0; i < perThread; ++i) a.push_back(getTicket());
  });
  std::thread second([&] {
    for (int i = 0; i < perThread; ++i) b.push_back(getTicket());
  });
  first.join();
  second.join();
  std::vector<unsigned> all(a);
  all.insert(all.end(), b.begin(), b.end());
  std::sort(all.begin(), all.end());
  // Every value from before+1 to before+2n exactly once: unique and consecutive.
  for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(all[i], before + 1 + i);
  // Each thread sees its own draws increase.
  EXPECT_TRUE(std::is_sorted(a.begin(), a.end()));
  EXPECT_TRUE(std::is_sorted(b.begin(), b.end()));
}

TEST(Counters, InitializeAndCleanLeaveDrawingWorking) {
  cleanCounter();
  initializeCounter();
  const unsigned call = getGlobalCpt();
  EXPECT_EQ(getGlobalCpt(), call + 1);
}

TEST(CriticalSection, WrappersReturnTheMutexResults) {
  pthread_mutex_t mutex;
  EXPECT_EQ(AllocCriticalSectionBase(&mutex), 0);
  EXPECT_EQ(StartCriticalSectionBase(&mutex), 0);
  EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
  EXPECT_EQ(EndCriticalSectionBase(&mutex), 0);
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  EXPECT_EQ(EndCriticalSectionBase(&mutex), 0);
  EXPECT_EQ(FreeCriticalSectionBase(&mutex), 0);
}

TEST(CriticalSection, IsNotRecursive) {
  pthread_mutex_t mutex;
  AllocCriticalSectionBase(&mutex);
  StartCriticalSectionBase(&mutex);
  // A second lock by the owner would deadlock on a default mutex; trylock shows it is held.
  EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
  EndCriticalSectionBase(&mutex);
  FreeCriticalSectionBase(&mutex);
}
