// WaitForMultipleObjects: the wait for any with its temporary event, and the
// wait for all as a sequence of single waits.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

#include "support/counting_new.h"
#include "support/sync.h"
#include "win_emul/event_handle.h"
#include "win_emul/event_state.h"
#include "zelkit3/lifecycle.h"
#include "zelkit3/win_emul.h"

namespace zelkit3 {
namespace win_emul {
struct EventTestAccess {
  static pthread_mutex_t& listeners(void* e) { return static_cast<CWinEventHandle*>(e)->mListenersMutex; }
};
}  // namespace win_emul
}  // namespace zelkit3

using namespace zelkit3::win_emul;
using zk3test::currentTid;
using zk3test::waitUntilBlocked;

namespace {

// This test links the library's objects statically: bring in the load hook.
__attribute__((used)) void (*const gKeepLoadHook)() = &ZelKit3AtLoad;

struct Events {
  std::vector<void*> all;
  explicit Events(int n, int manualReset = 0) {
    for (int i = 0; i < n; ++i) all.push_back(CreateEventW(nullptr, manualReset, 0, nullptr));
  }
  ~Events() {
    for (void* e : all) CloseHandle(e);
  }
  void* operator[](int i) const { return all[i]; }
  void* const* data() const { return all.data(); }
  bool signalled(int i) const { return static_cast<CWinEventHandle*>(all[i])->isSignaled(); }
};

// Runs a wait on another thread and returns once it is blocked.
struct BlockedWait {
  std::atomic<unsigned long> result{0xDEAD};
  std::atomic<pid_t> tid{0};
  std::thread thread;
  template <class F>
  explicit BlockedWait(F wait) {
    thread = std::thread([this, wait] {
      tid = currentTid();
      result = wait();
    });
    while (tid == 0) std::this_thread::yield();
    EXPECT_TRUE(waitUntilBlocked(tid));
  }
  unsigned long get() {
    if (thread.joinable()) thread.join();
    return result;
  }
  ~BlockedWait() { get(); }
};

TEST(WaitForAll, NoHandlesSucceedsAtOnce) {
  for (unsigned long timeout : {0ul, 10ul, static_cast<unsigned long>(INFINITE)})
    EXPECT_EQ(WaitForMultipleObjects(0, nullptr, 1, timeout), WAIT_OBJECT_0);
}

TEST(WaitForAny, NoHandles) {
  EXPECT_EQ(WaitForMultipleObjects(0, nullptr, 0, 0), WAIT_TIMEOUT);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForMultipleObjects(0, nullptr, 0, 25), WAIT_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(24)) << "a sleep";
  // Nothing could end an infinite wait on no handles: it returns at once.
  EXPECT_EQ(WaitForMultipleObjects(0, nullptr, 0, INFINITE), WAIT_TIMEOUT);
}

TEST(WaitForAny, LowestSignalledIndexWinsAndOnlyItIsConsumed) {
  Events ev(3);
  SetEvent(ev[2]);
  EXPECT_EQ(WaitForMultipleObjects(3, ev.data(), 0, 0), WAIT_OBJECT_0 + 2);
  EXPECT_FALSE(ev.signalled(0));
  EXPECT_FALSE(ev.signalled(1));
  EXPECT_FALSE(ev.signalled(2));

  SetEvent(ev[0]);
  SetEvent(ev[2]);
  EXPECT_EQ(WaitForMultipleObjects(3, ev.data(), 0, INFINITE), WAIT_OBJECT_0);
  EXPECT_FALSE(ev.signalled(0));
  EXPECT_TRUE(ev.signalled(2));
}

TEST(WaitForAny, ManualResetEventIsNotChangedByBeingChosen) {
  Events ev(2, 1);
  SetEvent(ev[1]);
  EXPECT_EQ(WaitForMultipleObjects(2, ev.data(), 0, 0), WAIT_OBJECT_0 + 1);
  EXPECT_TRUE(ev.signalled(1));
}

TEST(WaitForAny, HandleListedTwiceIsConsumedOnceAndRegisteredOnce) {
  Events ev(1);
  void* twice[] = {ev[0], ev[0]};
  BlockedWait wait([&] { return WaitForMultipleObjects(2, twice, 0, INFINITE); });
  SetEvent(ev[0]);
  EXPECT_EQ(wait.get(), WAIT_OBJECT_0);
  EXPECT_FALSE(ev.signalled(0));
  // The registration is gone: a further set reaches no dead temporary event.
  SetEvent(ev[0]);
  EXPECT_TRUE(ev.signalled(0));
}

TEST(WaitForAny, TwoWaitersOneSetOneWinsOneGetsTimeoutEarly) {
  Events ev(1);
  BlockedWait a([&] { return WaitForMultipleObjects(1, ev.data(), 0, INFINITE); });
  BlockedWait b([&] { return WaitForMultipleObjects(1, ev.data(), 0, INFINITE); });
  SetEvent(ev[0]);
  const unsigned long ra = a.get(), rb = b.get();
  EXPECT_EQ((ra == WAIT_OBJECT_0) + (rb == WAIT_OBJECT_0), 1);
  EXPECT_EQ((ra == WAIT_TIMEOUT) + (rb == WAIT_TIMEOUT), 1);
}

TEST(WaitForAny, SetAndResetBeforeTheExitScanGivesTimeoutEarly) {
  Events ev(1, 1);
  BlockedWait wait([&] { return WaitForMultipleObjects(1, ev.data(), 0, INFINITE); });
  {
    // Keep the waiter out of its exit scan until the reset is done.
    EventLockGuard hold;
    SetEvent(ev[0]);
    ResetEvent(ev[0]);
  }
  EXPECT_EQ(wait.get(), WAIT_TIMEOUT);
}

TEST(WaitForAny, TimedOutWaitConsumesNothing) {
  Events ev(2);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForMultipleObjects(2, ev.data(), 0, 20), WAIT_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19));
}

// PulseEvent takes no event lock, so it can signal an event after the entry
// scan has passed it and before the waiter is registered with it. Holding
// the event's listener lock parks the waiter exactly in that window.
TEST(WaitForAny, PulseBetweenEntryScanAndRegistrationIsSeen) {
  Events ev(2);
  pthread_mutex_t& listeners = zelkit3::win_emul::EventTestAccess::listeners(ev[1]);
  pthread_mutex_lock(&listeners);
  std::atomic<unsigned long> result{0xDEAD};
  std::atomic<pid_t> tid{0};
  std::thread waiter([&] {
    tid = currentTid();
    result = WaitForMultipleObjects(2, ev.data(), 0, 30000);
  });
  while (tid == 0) std::this_thread::yield();
  ASSERT_TRUE(waitUntilBlocked(tid));  // in addListener on event 1
  PulseEvent(ev[1]);
  pthread_mutex_unlock(&listeners);
  const auto start = std::chrono::steady_clock::now();
  waiter.join();
  EXPECT_EQ(result, WAIT_OBJECT_0 + 1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(WaitForAny, ServesMoreHandlesThanTheInlineArray) {
  for (int count : {33, 64}) {
    Events ev(count);
    BlockedWait wait([&] { return WaitForMultipleObjects(count, ev.data(), 0, INFINITE); });
    SetEvent(ev[count - 1]);
    EXPECT_EQ(wait.get(), WAIT_OBJECT_0 + count - 1) << count;
    EXPECT_FALSE(ev.signalled(count - 1));
    // Every registration was taken back.
    SetEvent(ev[count - 1]);
    EXPECT_EQ(WaitForMultipleObjects(count, ev.data(), 0, 0), WAIT_OBJECT_0 + count - 1);
  }
}

TEST(WaitForAny, WaitSatisfiedAtOnceAllocatesNothing) {
  Events ev(64);
  SetEvent(ev[40]);
  const long before = zk3test::gAllocations;
  EXPECT_EQ(WaitForMultipleObjects(64, ev.data(), 0, INFINITE), WAIT_OBJECT_0 + 40);
  EXPECT_EQ(WaitForMultipleObjects(64, ev.data(), 0, 0), WAIT_TIMEOUT);
  EXPECT_EQ(zk3test::gAllocations - before, 0);
}

TEST(WaitForAll, IsASequenceOfSingleWaits) {
  Events ev(2);
  SetEvent(ev[0]);
  SetEvent(ev[1]);
  EXPECT_EQ(WaitForMultipleObjects(2, ev.data(), 1, 0), WAIT_OBJECT_0);
  EXPECT_FALSE(ev.signalled(0));
  EXPECT_FALSE(ev.signalled(1));

  // First consumed, second never set: time-out, and the first stays consumed.
  SetEvent(ev[0]);
  EXPECT_EQ(WaitForMultipleObjects(2, ev.data(), 1, 20), WAIT_TIMEOUT);
  EXPECT_FALSE(ev.signalled(0));

  // The events need never be signalled at one time.
  BlockedWait wait([&] { return WaitForMultipleObjects(2, ev.data(), 1, INFINITE); });
  SetEvent(ev[0]);
  while (ev.signalled(0)) std::this_thread::yield();  // consumed by the first wait
  SetEvent(ev[1]);
  EXPECT_EQ(wait.get(), WAIT_OBJECT_0);
}

TEST(WaitForAll, AutoResetHandleListedTwiceNeedsTwoSets) {
  Events ev(1);
  void* twice[] = {ev[0], ev[0]};
  SetEvent(ev[0]);
  EXPECT_EQ(WaitForMultipleObjects(2, twice, 1, 0), WAIT_TIMEOUT);
  BlockedWait wait([&] { return WaitForMultipleObjects(2, twice, 1, INFINITE); });
  SetEvent(ev[0]);
  while (ev.signalled(0)) std::this_thread::yield();
  SetEvent(ev[0]);
  EXPECT_EQ(wait.get(), WAIT_OBJECT_0);
}

}  // namespace
