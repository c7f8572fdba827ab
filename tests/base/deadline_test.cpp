// The time-outs of the library's waits.
#include "base/deadline.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "support/sync.h"

using namespace zelkit3::detail;

// Only x86_64 has values above INFINITE; they never become a short, wrapped
// wait.
TEST(Deadline, EveryValueFromInfiniteUpHasNoLimit) {
  EXPECT_FALSE(isInfinite(0xFFFFFFFEUL));
  EXPECT_TRUE(isInfinite(0xFFFFFFFFUL));
  EXPECT_EQ(isInfinite(static_cast<unsigned long>(0x100000005ULL)), sizeof(long) == 8);
}

// A wake-up that leaves the condition false, half-way through: a fixed
// deadline stays where it was; one counted from each block starts over. The
// wall clock has microseconds: the bounds allow 1 ms for the rounding.
TEST(Deadline, AWakeUpWithoutTheConditionRestartsOnlyAPerBlockTimeOut) {
  const std::chrono::milliseconds timeout = zk3test::scaled(200);
  for (Deadline::Start start : {Deadline::kFromNow, Deadline::kFromEachBlock}) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_mutex_lock(&mutex);
    auto woken = std::async(std::launch::async, [&, waiter = zk3test::currentTid()] {
      EXPECT_TRUE(zk3test::waitUntilBlocked(waiter));
      std::this_thread::sleep_for(timeout / 2);
      pthread_mutex_lock(&mutex);
      const auto at = std::chrono::steady_clock::now();
      pthread_cond_broadcast(&cond);
      pthread_mutex_unlock(&mutex);
      return at;
    });
    const auto began = std::chrono::steady_clock::now();
    EXPECT_FALSE(Deadline(timeout.count(), start).waitUntil(&cond, &mutex, [] { return false; }));
    const auto ended = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
    pthread_mutex_unlock(&mutex);
    EXPECT_GE(ended - began, timeout) << start;
    EXPECT_LT(ended - began, timeout + zk3test::scaled(5000)) << start;
    EXPECT_EQ(ended - woken.get() >= timeout, start == Deadline::kFromEachBlock) << start;
  }
}
