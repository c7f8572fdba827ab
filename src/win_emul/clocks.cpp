#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

#include "zelkit3/win_emul.h"

namespace zelkit3 {
namespace win_emul {

unsigned long GetTickCount() {
  const std::int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
  return static_cast<std::uint32_t>(ns / 1000000);
}

void Sleep(unsigned long milliseconds) {
  // One nanosleep with a 64-bit duration: exact for every 32-bit argument,
  // where a 32-bit microsecond product would wrap after about 71 minutes.
  // A signal ends the sleep early; there is no retry.
  const std::uint32_t ms = static_cast<std::uint32_t>(milliseconds);
  timespec duration;
  duration.tv_sec = static_cast<time_t>(ms / 1000);
  duration.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  nanosleep(&duration, nullptr);
}

int QueryPerformanceCounter(_LARGE_INTEGER* counter) {
  if (counter == nullptr) return 0;
  timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0;
  counter->QuadPart = static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
  return 1;
}

int QueryPerformanceFrequency(_LARGE_INTEGER* frequency) {
  if (frequency == nullptr) return 0;
  frequency->QuadPart = 1000000000LL;
  return 1;
}

}  // namespace win_emul
}  // namespace zelkit3
