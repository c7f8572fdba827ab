#include "zelkit3/timer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "support/child.h"
#include "test_util.h"
#include "threads/thread_create.h"
#include "threads/timer_interval.h"
#include "zelkit3/lifecycle.h"
#include "zelkit3/win_emul.h"

namespace zelkit3 {
namespace detail {

struct TimerTestAccess {
  static CThreadTimerManagerImpl& m() { return CThreadTimerManagerImpl::c_inst; }
  static int interval() {
    MutexGuardLike g;
    return m().mInterval;
  }
  static bool hasThread() {
    MutexGuardLike g;
    return m().mThread != nullptr;
  }
  static size_t timers() {
    MutexGuardLike g;
    return m().mTimers.size();
  }
  static uint32_t lastTick(unsigned long id) {
    MutexGuardLike g;
    return m().mTimers.count(id) ? m().mTimers[id]->lastTick : 0;
  }
  static void setLastTick(unsigned long id, uint32_t tick) { m().mTimers[id]->lastTick = tick; }
  static Mutex& mutex() { return m().mMutex; }
  struct MutexGuardLike {
    MutexGuardLike() { m().mMutex.lock(); }
    ~MutexGuardLike() { m().mMutex.unlock(); }
  };
};

}  // namespace detail
}  // namespace zelkit3

namespace {

using zelkit3::CThreadTimerManager;
using zelkit3::CThreadTimerManagerImpl;
using zelkit3::IThreadTimerManagerCallback;
using zelkit3::detail::TimerTestAccess;
using zelkit3::win_emul::GetTickCount;
using zk3test::eventually;
using zk3test::scaled;

// Linked statically, the load hook comes in only if called.
const bool gLoaded = (ZelKit3AtLoad(), true);

class Callback : public IThreadTimerManagerCallback {
 public:
  explicit Callback(std::function<void(unsigned long)> fn = nullptr) : mFn(std::move(fn)) {}
  void onTimer(unsigned long id) override {
    fired.fetch_add(1);
    if (mFn) mFn(id);
  }
  std::atomic<int> fired{0};

 private:
  std::function<void(unsigned long)> mFn;
};

class TimerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // Every test leaves the manager idle.
    EXPECT_TRUE(eventually([] { return !TimerTestAccess::hasThread(); }));
    EXPECT_EQ(0u, TimerTestAccess::timers());
  }
};

struct IntervalCase {
  int cur;
  int period;
  int expected;
};

TEST(TimerIntervalTest, Arithmetic) {
  const IntervalCase cases[] = {
      {500, 1000, 250},  // first timer of 1000: cur is already 1000 / 2
      {250, 100, 31},    {31, 1000, 15}, {15, 1000, 7}, {7, 5, 3},
      {0, 1000, 500},    // cur 0 takes the period itself
      {1, 1000, 0},      {3, 1000, 1},   {10, 3, 5},    {11, 3, 2},
      {250, 250, 125},   {250, 124, 31}, {250, -5, 3},  {-4, 100, -2}, {-4, -9, -2},
  };
  for (const IntervalCase& c : cases) {
    EXPECT_EQ(c.expected, zelkit3::detail::nextTimerInterval(c.cur, c.period))
        << "cur " << c.cur << ", period " << c.period;
  }
}

TEST_F(TimerTest, WorkedTableOfIntervals) {
  Callback cb;
  const std::pair<int, int> steps[] = {{1000, 250}, {100, 31}, {1000, 15}, {1000, 7}, {5, 3}};
  std::vector<unsigned long> ids;
  for (const auto& step : steps) {
    ids.push_back(CThreadTimerManager::setTimer(&cb, step.first));
    EXPECT_EQ(step.second, TimerTestAccess::interval()) << "period " << step.first;
  }
  CThreadTimerManager::killTimer(ids[4]);  // smallest left: 100
  EXPECT_EQ(50, TimerTestAccess::interval());
  CThreadTimerManager::killTimer(ids[1]);  // it can grow again
  EXPECT_EQ(500, TimerTestAccess::interval());
  for (unsigned long id : ids) CThreadTimerManager::killTimer(id);
}

TEST_F(TimerTest, NineTimersThenTheTenth) {
  Callback cb;
  const int expected[] = {250, 125, 62, 31, 15, 7, 3, 1, 0, 500};
  std::vector<unsigned long> ids;
  for (int e : expected) {
    ids.push_back(CThreadTimerManager::setTimer(&cb, 1000));
    EXPECT_EQ(e, TimerTestAccess::interval());
  }
  for (unsigned long id : ids) CThreadTimerManager::killTimer(id);
}

TEST_F(TimerTest, FirstFiringOnlyAfterMoreThanThePeriod) {
  std::atomic<unsigned long> firstTick{0};
  Callback cb([&](unsigned long) {
    unsigned long expected = 0;
    firstTick.compare_exchange_strong(expected, GetTickCount());
  });
  const unsigned long before = GetTickCount();
  const unsigned long id = CThreadTimerManager::setTimer(&cb, 100);
  EXPECT_NE(0UL, id);
  ASSERT_TRUE(eventually([&] { return firstTick.load() != 0; }));
  EXPECT_GT(static_cast<uint32_t>(firstTick.load() - before), 100u);
  CThreadTimerManager::killTimer(id);
}

TEST_F(TimerTest, TimersDueInOnePassFireInIdOrderWithOneNow) {
  std::mutex m;
  std::vector<std::pair<unsigned long, uint32_t> > firings;  // id, its lastTick
  Callback cb([&](unsigned long id) {
    std::lock_guard<std::mutex> lock(m);
    firings.emplace_back(id, TimerTestAccess::lastTick(id));
  });
  unsigned long a, b, c;
  {
    // Made under the manager's lock with one creation tick, so that all
    // three are due in the same passes.
    TimerTestAccess::MutexGuardLike hold;
    a = CThreadTimerManager::setTimer(&cb, 20);
    b = CThreadTimerManager::setTimer(&cb, 20);
    c = CThreadTimerManager::setTimer(&cb, 20);
    const uint32_t tick = TimerTestAccess::lastTick(a);
    TimerTestAccess::setLastTick(b, tick);
    TimerTestAccess::setLastTick(c, tick);
  }
  ASSERT_TRUE(eventually([&] {
    std::lock_guard<std::mutex> lock(m);
    return firings.size() >= 9;
  }));
  CThreadTimerManager::killTimer(a);
  CThreadTimerManager::killTimer(b);
  CThreadTimerManager::killTimer(c);
  std::vector<unsigned long> sorted = {a, b, c};
  std::sort(sorted.begin(), sorted.end());
  for (size_t i = 0; i + 2 < 9; i += 3) {
    EXPECT_EQ(sorted[0], firings[i].first);
    EXPECT_EQ(sorted[1], firings[i + 1].first);
    EXPECT_EQ(sorted[2], firings[i + 2].first);
    EXPECT_EQ(firings[i].second, firings[i + 1].second);
    EXPECT_EQ(firings[i].second, firings[i + 2].second);
  }
}

TEST_F(TimerTest, KillingTheLastTimerEndsTheThreadAndTheNextMakesANewOne) {
  Callback cb;
  // Sanitizer runtimes start a helper thread with the first user thread:
  // let that happen before counting.
  std::thread([] {}).join();
  const int before = zk3test::threadCount();
  CThreadTimerManager::killTimer(12345);  // unknown, nothing set: nothing happens
  EXPECT_FALSE(TimerTestAccess::hasThread());
  const unsigned long id = CThreadTimerManager::setTimer(&cb, 10);
  ASSERT_TRUE(TimerTestAccess::hasThread());
  EXPECT_EQ(before + 1, zk3test::threadCount());
  ASSERT_TRUE(eventually([&] { return cb.fired.load() >= 2; }));
  CThreadTimerManager::killTimer(id);
  EXPECT_FALSE(TimerTestAccess::hasThread());
  EXPECT_EQ(before, zk3test::threadCount());  // joined: gone on return

  const unsigned long again = CThreadTimerManager::setTimer(&cb, 10);
  ASSERT_TRUE(TimerTestAccess::hasThread());
  const int firedBefore = cb.fired.load();
  ASSERT_TRUE(eventually([&] { return cb.fired.load() > firedBefore; }));
  CThreadTimerManager::killTimer(again);
  CThreadTimerManager::killTimer(again);  // twice: unknown now
}

TEST_F(TimerTest, KillOfAnotherTimerLeavesTheRestAlone) {
  Callback a, b;
  const unsigned long ida = CThreadTimerManager::setTimer(&a, 10);
  const unsigned long idb = CThreadTimerManager::setTimer(&b, 10);
  CThreadTimerManager::killTimer(ida);
  const int aFired = a.fired.load();  // no callback of a runs after the kill
  const int bFired = b.fired.load();
  ASSERT_TRUE(eventually([&] { return b.fired.load() >= bFired + 3; }));
  EXPECT_EQ(aFired, a.fired.load());
  CThreadTimerManager::killTimer(idb);
}

TEST_F(TimerTest, CallbackKillsItsOwnTimerAndOthers) {
  std::atomic<unsigned long> selfId{0}, otherId{0};
  Callback other;
  Callback self([&](unsigned long id) {
    EXPECT_EQ(selfId.load(), id);
    CThreadTimerManager::killTimer(otherId);
    CThreadTimerManager::killTimer(id);  // its own, not the last one
  });
  Callback stays;
  const unsigned long stayId = CThreadTimerManager::setTimer(&stays, 5);
  otherId = CThreadTimerManager::setTimer(&other, 5);
  selfId = CThreadTimerManager::setTimer(&self, 5);
  ASSERT_TRUE(eventually([&] { return TimerTestAccess::timers() == 1; }));
  EXPECT_EQ(1, self.fired.load());
  const int stayed = stays.fired.load();
  ASSERT_TRUE(eventually([&] { return stays.fired.load() > stayed + 2; }));
  EXPECT_EQ(1, self.fired.load());
  CThreadTimerManager::killTimer(stayId);
}

TEST_F(TimerTest, CallbackKillsTheLastTimerItself) {
  Callback self([](unsigned long id) { CThreadTimerManager::killTimer(id); });
  for (int round = 0; round < 20; ++round) {
    self.fired = 0;
    ASSERT_NE(0UL, CThreadTimerManager::setTimer(&self, 1));
    ASSERT_TRUE(eventually([] { return !TimerTestAccess::hasThread(); }));
    EXPECT_EQ(1, self.fired.load());
    EXPECT_EQ(0u, TimerTestAccess::timers());
  }
}

TEST_F(TimerTest, CallbackKillsTheLastTimerAndSetsANewOne) {
  Callback next;
  std::atomic<unsigned long> nextId{0};
  Callback first([&](unsigned long id) {
    CThreadTimerManager::killTimer(id);
    nextId = CThreadTimerManager::setTimer(&next, 5);
  });
  CThreadTimerManager::setTimer(&first, 5);
  ASSERT_TRUE(eventually([&] { return next.fired.load() >= 2; }));
  EXPECT_TRUE(TimerTestAccess::hasThread());
  EXPECT_EQ(1, first.fired.load());
  CThreadTimerManager::killTimer(nextId);
}

TEST_F(TimerTest, SetTimerOverlappingTheTeardownGetsAThread) {
  // Two threads each set a timer, wait for it to fire, and kill it, so that
  // one's setTimer often meets the other's teardown of the last timer.
  std::atomic<bool> failed{false};
  auto worker = [&] {
    for (int i = 0; i < 100 && !failed; ++i) {
      Callback cb;
      const unsigned long id = CThreadTimerManager::setTimer(&cb, 1);
      if (!eventually([&] { return cb.fired.load() > 0; }, scaled(5000))) failed = true;
      CThreadTimerManager::killTimer(id);
    }
  };
  std::thread t1(worker), t2(worker);
  t1.join();
  t2.join();
  EXPECT_FALSE(failed.load()) << "a timer set during a teardown never fired";
}

TEST_F(TimerTest, AThrowingCallbackIsContained) {
  Callback thrower([](unsigned long) { throw std::runtime_error("callback failed"); });
  Callback quiet;
  const unsigned long a = CThreadTimerManager::setTimer(&thrower, 5);
  const unsigned long b = CThreadTimerManager::setTimer(&quiet, 5);
  ASSERT_TRUE(eventually([&] { return thrower.fired.load() >= 3 && quiet.fired.load() >= 3; }));
  CThreadTimerManager::killTimer(a);
  CThreadTimerManager::killTimer(b);
}

TEST_F(TimerTest, ProcessExitsCleanlyAfterACallbackKilledTheLastTimer) {
  const zk3test::ChildResult child = zk3test::runInChild(
      [] {
        Callback self([](unsigned long id) { CThreadTimerManager::killTimer(id); });
        CThreadTimerManager::setTimer(&self, 1);
        // Once the pass is over the timer is gone; the thread may still be on
        // its way out, and the exit joins it.
        eventually([&] { return self.fired.load() > 0 && !TimerTestAccess::hasThread(); });
      },
      zk3test::ChildExit::kRunExitHandlers);
  EXPECT_TRUE(child.exitedWith(0)) << child.describe();
}

int failCreate(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; }

TEST_F(TimerTest, FailingThreadCreationSetsNothing) {
  Callback cb;
  zelkit3::detail::gCreateThread = &failCreate;
  const unsigned long id = CThreadTimerManager::setTimer(&cb, 5);
  zelkit3::detail::gCreateThread = &pthread_create;
  EXPECT_EQ(0UL, id);
  EXPECT_FALSE(TimerTestAccess::hasThread());
  EXPECT_EQ(0u, TimerTestAccess::timers());
  CThreadTimerManager::killTimer(id);  // harmless
  const unsigned long retry = CThreadTimerManager::setTimer(&cb, 5);
  ASSERT_NE(0UL, retry);
  ASSERT_TRUE(eventually([&] { return cb.fired.load() > 0; }));
  CThreadTimerManager::killTimer(retry);
}

}  // namespace
