// Events and the wait on one event: the Win32 calls and where this library
// knowingly differs from Win32.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "support/sync.h"
#include "zelkit3/win_emul.h"

using namespace zelkit3::win_emul;
using zk3test::currentTid;
using zk3test::waitUntilBlocked;

namespace {

// Closes its events at the end of a test, also when an assertion fails.
struct Events {
  std::vector<void*> all;
  void* make(int manualReset, int initialState, const wchar_t* name = nullptr) {
    all.push_back(CreateEventW(nullptr, manualReset, initialState, name));
    return all.back();
  }
  ~Events() {
    for (void* e : all) CloseHandle(e);
  }
};

// Starts n threads that each block in WaitForSingleObject on one event and
// returns once all of them are really blocked.
struct Waiters {
  std::vector<std::thread> threads;
  std::vector<std::atomic<pid_t>> tids;
  std::atomic<int> succeeded{0};
  std::atomic<int> finished{0};

  Waiters(void* event, int n, unsigned long timeoutMs = INFINITE) : tids(n) {
    for (int i = 0; i < n; ++i) {
      threads.emplace_back([this, event, i, timeoutMs] {
        tids[i] = currentTid();
        if (WaitForSingleObject(event, timeoutMs) == WAIT_OBJECT_0) ++succeeded;
        ++finished;
      });
    }
    for (int i = 0; i < n; ++i) {
      while (tids[i] == 0) std::this_thread::yield();
      EXPECT_TRUE(waitUntilBlocked(tids[i]));
    }
  }
  void join() {
    for (auto& t : threads) t.join();
    threads.clear();
  }
  ~Waiters() { join(); }
};

TEST(Events, CreateGivesStateAndKindFromAnyNonZeroValue) {
  Events ev;
  struct Case {
    int manualReset, initialState;
    unsigned long first, second;
  } cases[] = {
      {0, 0, WAIT_TIMEOUT, WAIT_TIMEOUT},    {0, 1, WAIT_OBJECT_0, WAIT_TIMEOUT},
      {0, -1, WAIT_OBJECT_0, WAIT_TIMEOUT},  {2, 0, WAIT_TIMEOUT, WAIT_TIMEOUT},
      {2, 2, WAIT_OBJECT_0, WAIT_OBJECT_0},  {-1, 1, WAIT_OBJECT_0, WAIT_OBJECT_0},
  };
  for (const Case& c : cases) {
    void* e = ev.make(c.manualReset, c.initialState);
    EXPECT_EQ(WaitForSingleObject(e, 0), c.first) << c.manualReset << "," << c.initialState;
    EXPECT_EQ(WaitForSingleObject(e, 0), c.second) << c.manualReset << "," << c.initialState;
  }
}

TEST(Events, SetResetPulseAlwaysReturnOne) {
  Events ev;
  void* e = ev.make(1, 0);
  EXPECT_EQ(SetEvent(e), 1);
  EXPECT_EQ(SetEvent(e), 1);
  EXPECT_EQ(ResetEvent(e), 1);
  EXPECT_EQ(ResetEvent(e), 1);
  EXPECT_EQ(PulseEvent(e), 1);
}

TEST(Events, PulseLeavesTheEventSignalled) {
  Events ev;
  void* manual = ev.make(1, 0);
  void* automatic = ev.make(0, 0);
  PulseEvent(manual);
  PulseEvent(automatic);
  EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);
}

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

TEST(Events, SetThenResetBeforeTheWaitBlocks) {
  Events ev;
  void* e = ev.make(0, 0);
  SetEvent(e);
  ResetEvent(e);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForSingleObject(e, 30), WAIT_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
}

TEST(Events, OneSetOnAutoResetReleasesEveryBlockedThread) {
  Events ev;
  void* e = ev.make(0, 0);
  Waiters waiters(e, 3);
  SetEvent(e);
  waiters.join();
  EXPECT_EQ(waiters.succeeded, 3);
  EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_TIMEOUT) << "the event is consumed afterwards";
}

TEST(Events, SetThenImmediateResetStillReleasesBlockedSingleWaiters) {
  Events ev;
  void* e = ev.make(1, 0);
  Waiters waiters(e, 2);
  SetEvent(e);
  ResetEvent(e);
  waiters.join();
  EXPECT_EQ(waiters.succeeded, 2);
  EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_TIMEOUT);
}

TEST(Events, ResetWakesNobody) {
  Events ev;
  void* e = ev.make(1, 0);
  Waiters waiters(e, 1, 200);
  ResetEvent(e);
  waiters.join();
  EXPECT_EQ(waiters.succeeded, 0);
}

TEST(Events, TimedWaitNeverReturnsEarly) {
  Events ev;
  void* e = ev.make(0, 0);
  for (unsigned long ms : {1ul, 20ul, 120ul}) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WaitForSingleObject(e, ms), WAIT_TIMEOUT);
    const auto took = std::chrono::steady_clock::now() - start;
    // The deadline is on the wall clock with microsecond input: allow 1 ms.
    EXPECT_GE(took, std::chrono::milliseconds(ms) - std::chrono::milliseconds(1)) << ms;
    EXPECT_LT(took, std::chrono::milliseconds(ms) + zk3test::scaled(5000)) << ms;
  }
}

// A finite time-out longer than 2^32 microseconds (about 71.6 minutes) must
// not wrap: 4294968 ms would wrap to 0.7 ms in 32-bit arithmetic.
TEST(Events, TimeOutBeyond32BitMicrosecondsDoesNotWrap) {
  Events ev;
  void* e = ev.make(0, 0);
  std::atomic<unsigned long> result{0xDEAD};
  std::atomic<pid_t> tid{0};
  std::thread waiter([&] {
    tid = currentTid();
    result = WaitForSingleObject(e, 4294968ul);
  });
  while (tid == 0) std::this_thread::yield();
  ASSERT_TRUE(waitUntilBlocked(tid));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // well past the wrapped 0.7 ms
  EXPECT_EQ(result, 0xDEADu) << "the wait ended early";
  SetEvent(e);
  waiter.join();
  EXPECT_EQ(result, WAIT_OBJECT_0);
}

TEST(Events, InfiniteIsEitherSpelling) {
  Events ev;
  void* e = ev.make(0, 0);
  for (unsigned long infinite : {static_cast<unsigned long>(0xFFFFFFFFu), static_cast<unsigned long>(-1)}) {
    Waiters waiters(e, 1, infinite);
    SetEvent(e);
    waiters.join();
    EXPECT_EQ(waiters.succeeded, 1);
  }
}

TEST(Events, SameNameGivesIndependentEventsAndOpenFindsTheLowerAddress) {
  Events ev;
  void* a = ev.make(1, 0, L"twin");
  void* b = ev.make(1, 0, L"twin");
  ASSERT_NE(a, b);
  SetEvent(a);
  EXPECT_EQ(WaitForSingleObject(b, 0), WAIT_TIMEOUT);
  void* opened = OpenEventW(0, 0, L"twin");
  EXPECT_EQ(opened, a < b ? a : b);
  CloseHandle(opened);
}

TEST(Events, OpenMatchesNamesExactly) {
  Events ev;
  void* named = ev.make(0, 0, L"Exact");
  EXPECT_EQ(OpenEventW(0, 0, L"exact"), nullptr);
  EXPECT_EQ(OpenEventW(0, 0, L"Exact "), nullptr);
  EXPECT_EQ(OpenEventW(0, 0, L"no such event"), nullptr);
  EXPECT_EQ(OpenEventW(0, 0, nullptr), nullptr);
  void* opened = OpenEventW(0, 0, L"Exact");
  EXPECT_EQ(opened, named);
  CloseHandle(opened);
}

TEST(Events, EmptyNameMatchesAnUnnamedEvent) {
  Events ev;
  void* unnamed = ev.make(0, 0);
  void* opened = OpenEventW(0, 0, L"");
  ASSERT_NE(opened, nullptr);
  // Some unnamed event: ours unless another one has a lower address.
  if (opened == unnamed) SUCCEED();
  CloseHandle(opened);
}

TEST(Events, OpenedEventNeedsOneCloseMore) {
  void* e = CreateEventW(nullptr, 1, 0, L"counted");
  void* o1 = OpenEventW(0, 0, L"counted");
  void* o2 = OpenEventW(0, 0, L"counted");
  ASSERT_EQ(o1, e);
  ASSERT_EQ(o2, e);
  EXPECT_EQ(CloseHandle(o1), 1);
  EXPECT_EQ(CloseHandle(o2), 1);
  EXPECT_EQ(SetEvent(e), 1) << "still alive after two closes";
  EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_OBJECT_0);
  EXPECT_EQ(CloseHandle(e), 1);
  EXPECT_EQ(OpenEventW(0, 0, L"counted"), nullptr) << "the last close takes it out of the table";
}

TEST(Events, CloseHandleOfNullReturnsZero) { EXPECT_EQ(CloseHandle(nullptr), 0); }

TEST(Clocks, PerformanceCounterIsMonotonicNanoseconds) {
  _LARGE_INTEGER frequency, a, b;
  EXPECT_EQ(QueryPerformanceFrequency(nullptr), 0);
  EXPECT_EQ(QueryPerformanceCounter(nullptr), 0);
  ASSERT_EQ(QueryPerformanceFrequency(&frequency), 1);
  EXPECT_EQ(frequency.QuadPart, 1000000000LL);
  EXPECT_EQ(frequency.LowPart, 1000000000u);
  EXPECT_EQ(frequency.HighPart, 0);
  ASSERT_EQ(QueryPerformanceCounter(&a), 1);
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(QueryPerformanceCounter(&b), 1);
    ASSERT_GE(b.QuadPart, a.QuadPart);
    a = b;
  }
  timespec mono;
  clock_gettime(CLOCK_MONOTONIC, &mono);
  const long long now = static_cast<long long>(mono.tv_sec) * 1000000000LL + mono.tv_nsec;
  EXPECT_LE(b.QuadPart, now);
  EXPECT_GT(b.QuadPart, now - 1000000000LL * zk3test::kTimeScale);
}

TEST(Clocks, TickCountIsWallClockMillisecondsCutTo32Bits) {
  const auto before = std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  const std::uint32_t tick = static_cast<std::uint32_t>(GetTickCount());
  const auto after = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
  EXPECT_LE(static_cast<std::uint32_t>(tick - static_cast<std::uint32_t>(before)),
            static_cast<std::uint32_t>(after - before));
  EXPECT_LE(GetTickCount(), 0xFFFFFFFFul);
  // Spans are taken in unsigned 32-bit arithmetic, across the wrap too.
  EXPECT_EQ(static_cast<std::uint32_t>(0x10u - 0xFFFFFFF0u), 0x20u);
}

TEST(Clocks, SleepZeroReturnsAndSleepLastsAtLeastItsTime) {
  auto start = std::chrono::steady_clock::now();
  Sleep(0);
  Sleep(15);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(15));
}

void onSignal(int) {}

// 4294968 ms would wrap to 704 microseconds in 32-bit arithmetic; the sleep
// must go on until a signal ends it.
TEST(Clocks, SleepBeyond32BitMicrosecondsDoesNotWrap) {
  struct sigaction action = {};
  action.sa_handler = onSignal;
  struct sigaction previous;
  ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
  std::atomic<bool> done{false};
  std::atomic<pid_t> tid{0};
  std::thread sleeper([&] {
    tid = currentTid();
    Sleep(4294968ul);
    done = true;
  });
  while (tid == 0) std::this_thread::yield();
  ASSERT_TRUE(waitUntilBlocked(tid));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(done) << "the sleep ended early";
  // A signal ends the sleep early; repeat until it has landed in the sleep.
  while (!done) {
    pthread_kill(sleeper.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  sleeper.join();
  sigaction(SIGUSR1, &previous, nullptr);
}

}  // namespace
