// The time-outs of the library's waits.
#include "base/deadline.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/sync.h"

namespace {

using zelkit3::detail::Deadline;
using zelkit3::detail::isInfinite;

TEST(Deadline, WhichTimeOutsHaveNoLimit) {
  struct Case {
    unsigned long timeoutMs;
    bool infinite;
  };
  const Case cases[] = {
      {0, false},
      {1, false},
      {0xFFFFFFFEUL, false},
      {0xFFFFFFFFUL, true},  // INFINITE
      {static_cast<unsigned long>(-1), true},
  };
  for (const Case& c : cases) EXPECT_EQ(c.infinite, isInfinite(c.timeoutMs)) << c.timeoutMs;
  // Only on x86_64: values above INFINITE never become a short, wrapped wait.
  if (sizeof(unsigned long) == 8) {
    EXPECT_TRUE(isInfinite(static_cast<unsigned long>(0x100000005ULL)));
  }
}

// A wake-up that does not end the wait: a fixed deadline stays where it
// was; one counted from each block starts the whole time-out over.
TEST(Deadline, AWakeUpWithoutTheConditionRestartsOnlyAPerBlockTimeOut) {
  using Clock = std::chrono::steady_clock;
  const unsigned long timeoutMs = 200 * zk3test::kTimeScale;
  for (Deadline::Start start : {Deadline::kFromNow, Deadline::kFromEachBlock}) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    std::atomic<pid_t> tid{0};
    bool result = true;
    Clock::time_point began, ended;
    std::thread waiter([&] {
      pthread_mutex_lock(&mutex);
      tid = zk3test::currentTid();
      began = Clock::now();
      result = Deadline(timeoutMs, start).waitUntil(&cond, &mutex, [] { return false; });
      ended = Clock::now();
      pthread_mutex_unlock(&mutex);
    });
    while (tid == 0) std::this_thread::yield();
    ASSERT_TRUE(zk3test::waitUntilBlocked(tid));
    // Half-way through, a wake-up that leaves the condition false.
    std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs / 2));
    pthread_mutex_lock(&mutex);
    const Clock::time_point woken = Clock::now();
    pthread_cond_broadcast(&cond);
    pthread_mutex_unlock(&mutex);
    waiter.join();
    EXPECT_FALSE(result);
    const auto fromStart = std::chrono::duration_cast<std::chrono::milliseconds>(ended - began);
    const auto fromWake = std::chrono::duration_cast<std::chrono::milliseconds>(ended - woken);
    // The wall clock has microseconds; allow 1 ms for the rounding.
    EXPECT_GE(fromStart.count() + 1, static_cast<long>(timeoutMs)) << start;
    if (start == Deadline::kFromEachBlock) {
      EXPECT_GE(fromWake.count() + 1, static_cast<long>(timeoutMs)) << "restarted at the wake-up";
    } else {
      EXPECT_LT(fromWake.count() + 1, static_cast<long>(timeoutMs)) << "kept the first deadline";
    }
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
  }
}

}  // namespace
