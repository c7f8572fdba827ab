// A Win32-style program, ported: a producer and two consumers on events, a
// wait for any, a timed wait that times out, Sleep and GetTickCount. Apart
// from the includes below (<windows.h> on Windows) it is the Windows code,
// unchanged. It checks its own results and exits with 0 when all went well.
#include <zelkit3/win32.h>

#include <stdio.h>

#include <deque>
#include <mutex>
#include <thread>

static const int kItems = 200;
static const int kConsumers = 2;

static std::mutex gQueueLock;
static std::deque<int> gQueue;
static HANDLE gItemReady;  // auto-reset: "the queue may hold work"
static HANDLE gStop;       // manual-reset: "the producer is done"
static long gConsumed[kConsumers];
static long long gSum[kConsumers];

// Takes everything queued; returns how many items it took.
static int Drain(int id) {
  int taken = 0;
  for (;;) {
    int item;
    {
      std::lock_guard<std::mutex> lock(gQueueLock);
      if (gQueue.empty()) return taken;
      item = gQueue.front();
      gQueue.pop_front();
    }
    ++gConsumed[id];
    gSum[id] += item;
    ++taken;
  }
}

static DWORD WINAPI Consumer(LPVOID param) {
  const int id = static_cast<int>(reinterpret_cast<size_t>(param));
  HANDLE events[2] = {gItemReady, gStop};
  for (;;) {
    const DWORD result = WaitForMultipleObjects(2, events, FALSE, INFINITE);
    if (result == WAIT_OBJECT_0) {
      // One SetEvent may stand for several items: take them all.
      Drain(id);
    } else if (result == WAIT_OBJECT_0 + 1) {
      Drain(id);  // the producer is done: take what is left, then leave
      return 0;
    } else if (result == WAIT_TIMEOUT) {
      continue;  // another consumer took the wake-up first; wait again
    } else {
      return 1;
    }
  }
}

int main() {
  int failures = 0;

  // Producer and consumers.
  gItemReady = CreateEvent(NULL, FALSE, FALSE, NULL);
  gStop = CreateEvent(NULL, TRUE, FALSE, L"porting.stop");
  HANDLE stopAgain = OpenEvent(EVENT_ALL_ACCESS, FALSE, L"porting.stop");
  if (gItemReady == NULL || gStop == NULL || stopAgain != gStop) ++failures;

  std::thread consumers[kConsumers];
  for (int i = 0; i < kConsumers; ++i) {
    consumers[i] = std::thread(Consumer, reinterpret_cast<LPVOID>(static_cast<size_t>(i)));
  }
  for (int i = 1; i <= kItems; ++i) {
    {
      std::lock_guard<std::mutex> lock(gQueueLock);
      gQueue.push_back(i);
    }
    SetEvent(gItemReady);
    if (i % 50 == 0) Sleep(1);
  }
  SetEvent(stopAgain);
  for (int i = 0; i < kConsumers; ++i) consumers[i].join();
  long consumed = 0;
  long long sum = 0;
  for (int i = 0; i < kConsumers; ++i) {
    consumed += gConsumed[i];
    sum += gSum[i];
  }
  printf("producer: %d items; consumers took %ld and %ld, %ld in all, sum %lld\n", kItems,
         gConsumed[0], gConsumed[1], consumed, sum);
  if (consumed != kItems || sum != static_cast<long long>(kItems) * (kItems + 1) / 2) ++failures;
  CloseHandle(stopAgain);
  CloseHandle(gStop);
  CloseHandle(gItemReady);

  // A timed wait on an event nobody sets: it times out after 100 ms.
  HANDLE never = CreateEvent(NULL, TRUE, FALSE, NULL);
  DWORD before = GetTickCount();
  const DWORD timedOut = WaitForSingleObject(never, 100);
  DWORD waited = GetTickCount() - before;
  printf("timed wait of 100 ms: %s after %lu ms\n",
         timedOut == WAIT_TIMEOUT ? "WAIT_TIMEOUT" : "signalled", static_cast<unsigned long>(waited));
  // Ticks are whole milliseconds, so a 100 ms wait may read as 99.
  if (timedOut != WAIT_TIMEOUT || waited < 99) ++failures;
  CloseHandle(never);

  // Sleep, measured by the tick count.
  before = GetTickCount();
  Sleep(20);
  waited = GetTickCount() - before;
  printf("Sleep(20) took %lu ms by GetTickCount\n", static_cast<unsigned long>(waited));
  if (waited < 19) ++failures;

  printf("%s\n", failures == 0 ? "all as expected" : "FAILED");
  return failures == 0 ? 0 : 1;
}
