// The time-outs of the library's waits.
#include "base/deadline.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "support/sync.h"

namespace {

using zelkit3::detail::Deadline;

TEST(Deadline, EveryValueFromInfiniteUpHasNoLimit) {
  EXPECT_FALSE(zelkit3::detail::isInfinite(0xFFFFFFFEUL));
  EXPECT_TRUE(zelkit3::detail::isInfinite(0xFFFFFFFFUL));
  // Only x86_64 has values above INFINITE; they never become a short, wrapped wait.
  const unsigned long above = static_cast<unsigned long>(0x100000005ULL);
  EXPECT_EQ(zelkit3::detail::isInfinite(above), sizeof above == 8);
}

// A wake-up that leaves the condition false, half-way through: a fixed
// deadline stays where it was; one counted from each block starts over.
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
    const auto ended = std::chrono::steady_clock::now();
    pthread_mutex_unlock(&mutex);
    // The wall clock has microseconds; allow 1 ms for the rounding.
    const std::chrono::milliseconds slack(1);
    EXPECT_GE(ended - began + slack, timeout) << start;
    EXPECT_LT(ended - began, timeout + zk3test::scaled(5000)) << start;
    EXPECT_EQ(ended - woken.get() + slack >= timeout, start == Deadline::kFromEachBlock) << start;
  }
}

}  // namespace
