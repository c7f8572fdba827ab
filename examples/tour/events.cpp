// Events and waits: a worker thread signals progress through Win32 events.
#include <cstdio>
#include <thread>

#include "tour.h"
#include "zelkit3/win_emul.h"

namespace {

using namespace zelkit3::win_emul;

int events() {
  void* ready = CreateEventW(nullptr, 0, 0, L"tour.ready");
  void* done = CreateEventW(nullptr, 1, 0, nullptr);

  _LARGE_INTEGER start, end, frequency;
  QueryPerformanceFrequency(&frequency);
  QueryPerformanceCounter(&start);

  std::thread worker([] {
    // Another part of the program finds the event by its name.
    void* sameReady = OpenEventW(0, 0, L"tour.ready");
    SetEvent(sameReady);
    CloseHandle(sameReady);
  });
  const unsigned long first = WaitForSingleObject(ready, 5000);
  std::printf("   worker said ready: %s\n", first == WAIT_OBJECT_0 ? "yes" : "no");

  void* both[] = {ready, done};
  const unsigned long any = WaitForMultipleObjects(2, both, 0, 50);
  std::printf("   wait for any after the auto-reset event was consumed: %s%s\n",
              any == WAIT_TIMEOUT ? "WAIT_TIMEOUT" : "signalled",
              any == WAIT_TIMEOUT ? " (expected: nothing is signalled now)" : "");
  SetEvent(done);
  const unsigned long second = WaitForMultipleObjects(2, both, 0, 5000);
  std::printf("   after SetEvent(done): WAIT_OBJECT_0 + %lu\n", second - WAIT_OBJECT_0);
  worker.join();

  QueryPerformanceCounter(&end);
  std::printf("   took %.3f ms by the performance counter\n",
              double(end.QuadPart - start.QuadPart) * 1000.0 / double(frequency.QuadPart));
  CloseHandle(ready);
  CloseHandle(done);
  return (first == WAIT_OBJECT_0 && any == WAIT_TIMEOUT && second == WAIT_OBJECT_0 + 1) ? 0 : 1;
}

}  // namespace

TOUR_STOP("events and waits", events);
