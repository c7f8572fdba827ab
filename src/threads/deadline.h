// The wall-clock deadline of a timed pthread wait. Internal: never installed.
#ifndef ZELKIT3_SRC_THREADS_DEADLINE_H
#define ZELKIT3_SRC_THREADS_DEADLINE_H

#include <time.h>

#include <cstdint>

namespace zelkit3 {
namespace detail {

// CLOCK_REALTIME (the clock of a condition variable with default attributes)
// plus timeoutMs, computed in 64 bits so that no finite time-out wraps.
inline timespec wallClockDeadline(std::uint64_t timeoutMs) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const std::uint64_t ns = static_cast<std::uint64_t>(now.tv_nsec) + (timeoutMs % 1000) * 1000000u;
  timespec deadline;
  deadline.tv_sec = now.tv_sec + static_cast<time_t>(timeoutMs / 1000 + ns / 1000000000u);
  deadline.tv_nsec = static_cast<long>(ns % 1000000000u);
  return deadline;
}

// Whether a deadline of wallClockDeadline has passed.
inline bool wallClockDeadlinePassed(const timespec& deadline) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec > deadline.tv_sec ||
         (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_THREADS_DEADLINE_H
