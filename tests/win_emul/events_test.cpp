// Events, the waits on one and on several events, and the clocks: the Win32
// calls and where this library knowingly differs from Win32.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/sync.h"
#include "win_emul/event_handle.h"
#include "win_emul/event_state.h"
#include "zelkit3/lifecycle.h"
#include "zelkit3/win_emul.h"

namespace zelkit3::win_emul {
// Lets a test hold an event's locks to force a race.
struct EventTestAccess {
  static auto* state(void* e) { return &static_cast<CWinEventHandle*>(e)->mStateMutex; }
  static auto* listeners(void* e) { return &static_cast<CWinEventHandle*>(e)->mListenersMutex; }
  static bool listened(void* e) { return !static_cast<CWinEventHandle*>(e)->mListeners.empty(); }
};
}  // namespace zelkit3::win_emul

using namespace zelkit3::win_emul;
using zk3test::blocked;

// This test links the library's objects statically: bring in the load hook.
__attribute__((used)) void (*const gKeepLoadHook)() = &ZelKit3AtLoad;

// Closes its events at the end of a test, also when an assertion fails. By
// then every wait for any must have taken back its registrations.
struct Events : std::vector<void*> {
  explicit Events(int n, int manualReset = 0) : std::vector<void*>(n) {
    for (void*& e : *this) e = CreateEventW(nullptr, manualReset, 0, nullptr);
  }
  ~Events() {
    for (void* e : *this) EXPECT_FALSE(EventTestAccess::listened(e));
    for (void* e : *this) CloseHandle(e);
  }
};

// A thread released by a pulse may close the event at once, while the
// pulsing thread is still inside PulseEvent (which takes no lock that close
// needs). Under ASan a pulse that touched the event afterwards shows.
TEST(Events, AThreadReleasedByAPulseMayCloseTheEventAtOnce) {
  for (int round = 0; round < 1000; ++round) {
    void* e = CreateEventW(nullptr, 0, 0, nullptr);
    std::thread waiter([e] {
      WaitForSingleObject(e, INFINITE);
      CloseHandle(e);
    });
    PulseEvent(e);  // before the wait blocks or after: either way it releases the waiter
    waiter.join();
  }
}

// What one set releases: every thread blocked at the set, also when the
// first one to run has cleared the event again; a thread whose time-out would
// wrap to 0.7 ms in 32-bit microseconds (4294968 ms); and a thread whose
// time-out has expired but that has not yet got its mutex back (the set is
// not consumed by a wait that reports a time-out).
TEST(Events, WhatOneSetReleases) {
  Events ev(1);
  auto a = blocked([&] { return WaitForSingleObject(ev[0], 4294968ul); });
  auto b = blocked([&] { return WaitForSingleObject(ev[0], INFINITE); });
  EXPECT_EQ(a.wait_for(zk3test::scaled(20)), std::future_status::timeout) << "ended early";
  SetEvent(ev[0]);
  EXPECT_EQ(a.get(), WAIT_OBJECT_0);
  EXPECT_EQ(b.get(), WAIT_OBJECT_0);
  auto expired = blocked([&] { return WaitForSingleObject(ev[0], zk3test::scaled(100).count()); });
  pthread_mutex_lock(EventTestAccess::state(ev[0]));
  std::this_thread::sleep_for(zk3test::scaled(300));  // past the waiter's deadline
  static_cast<CWinEventHandle*>(ev[0])->set();  // SetEvent would take the event lock out of order
  pthread_mutex_unlock(EventTestAccess::state(ev[0]));
  EXPECT_EQ(expired.get(), WAIT_OBJECT_0);
}

// Two events of one name: Open finds the one of lower address until its
// last reference is closed. Names are compared exactly; a null one finds
// nothing.
TEST(Events, OpenAndCloseCountReferences) {
  testing::internal::CaptureStdout();  // a close of an event prints nothing
  void* low = CreateEventW(nullptr, 1, 0, L"twin");
  void* high = CreateEventW(nullptr, 1, 0, L"twin");
  if (high < low) std::swap(low, high);
  EXPECT_EQ(OpenEventW(0, 0, L"Twin"), nullptr);
  EXPECT_EQ(OpenEventW(0, 0, nullptr), nullptr);
  EXPECT_EQ(OpenEventW(0, 0, L"twin"), low);
  EXPECT_EQ(CloseHandle(low), 1);
  EXPECT_EQ(OpenEventW(0, 0, L"twin"), low) << "one close leaves the creator's reference";
  EXPECT_EQ(CloseHandle(low) + CloseHandle(low), 2);
  EXPECT_EQ(OpenEventW(0, 0, L"twin"), high) << "the last close takes it out of the table";
  EXPECT_EQ(CloseHandle(high) + CloseHandle(high), 2);
  EXPECT_EQ(CloseHandle(nullptr), 0);
  CBaseHandle unknown;
  EXPECT_EQ(CloseHandle(&unknown), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Closing unknown HANDLE type\n");
}

// More handles than a 32-entry array. Both scans choose the lowest
// signalled index and consume only that event. A wait for all is a sequence
// of single waits: when the second times out, the first stays consumed.
//
// PulseEvent takes no event lock, so it can signal an event after the entry
// scan has passed it and before the waiter is registered with it. Holding
// the event's listener lock parks the waiter exactly in that window.
TEST(WaitForMultiple, AnyCountLowestIndexAPulseBeforeRegistrationAndAllInTurn) {
  Events ev(40);
  auto wait = blocked([&] { return WaitForMultipleObjects(40, ev.data(), 0, INFINITE); });
  pthread_mutex_lock(&gEventLock);  // the waiter's exit scan comes after both sets
  SetEvent(ev[39]);
  SetEvent(ev[38]);
  pthread_mutex_unlock(&gEventLock);
  EXPECT_EQ(wait.get(), WAIT_OBJECT_0 + 38);
  SetEvent(ev[0]);
  EXPECT_EQ(WaitForMultipleObjects(40, ev.data(), 0, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForMultipleObjects(40, ev.data(), 0, 0), WAIT_OBJECT_0 + 39);
  // Nothing could end an infinite wait on no handles: it returns at once.
  EXPECT_EQ(WaitForMultipleObjects(0, nullptr, 0, INFINITE), WAIT_TIMEOUT);
  SetEvent(ev[0]);
  EXPECT_EQ(WaitForMultipleObjects(2, ev.data(), 1, 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(ev[0], 0), WAIT_TIMEOUT);
  SetEvent(ev[0]);
  SetEvent(ev[1]);
  EXPECT_EQ(WaitForMultipleObjects(2, ev.data(), 1, 10000), WAIT_OBJECT_0);
  Events manual(2, -1);
  pthread_mutex_lock(EventTestAccess::listeners(manual[1]));
  auto pulsed = blocked([&] { return WaitForMultipleObjects(2, manual.data(), 0, 10000); });
  EXPECT_EQ(PulseEvent(manual[1]), 1);
  pthread_mutex_unlock(EventTestAccess::listeners(manual[1]));
  EXPECT_EQ(pulsed.get(), WAIT_OBJECT_0 + 1);
  EXPECT_EQ(WaitForSingleObject(manual[1], 0), WAIT_OBJECT_0)
      << "a manual-reset event is not changed by being chosen";
}

// The performance counter is CLOCK_MONOTONIC (steady_clock's) in
// nanoseconds; the tick count is the wall clock's milliseconds, cut to 32
// bits. 4294968 ms would wrap to 0.7 ms in 32-bit microseconds: that sleep
// is still going on when its child is killed.
TEST(Clocks, CountersAndSleep) {
  _LARGE_INTEGER frequency, counter;
  EXPECT_EQ(QueryPerformanceFrequency(nullptr) + QueryPerformanceCounter(nullptr), 0);
  const long long steady = std::chrono::steady_clock::now().time_since_epoch().count();
  ASSERT_EQ(QueryPerformanceFrequency(&frequency) + QueryPerformanceCounter(&counter), 2);
  EXPECT_GE(counter.QuadPart, steady);
  EXPECT_LT(counter.QuadPart - steady, 1000000000LL * zk3test::kTimeScale);
  const std::uint32_t from = static_cast<std::uint32_t>(time(nullptr) * 1000LL);
  EXPECT_LT(static_cast<std::uint32_t>(GetTickCount()) - from, 2000u * zk3test::kTimeScale);
  Sleep(1000);  // 1000 ms is one whole second and nothing more
  EXPECT_GE(std::chrono::steady_clock::now().time_since_epoch().count() - steady, 1000000000LL);
  zk3test::Child sleeper([] { Sleep(4294968ul); });
  EXPECT_EQ(sleeper.wait(zk3test::scaled(100)), -1) << sleeper.describe();
}
