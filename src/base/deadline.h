// Time-outs of the library's blocking waits. Internal: never installed.
//
// One owner for what every timed wait needs: which values mean "no limit",
// the turn of a relative time-out into an absolute time on the right clock,
// and what happens to that time after a wake-up that did not end the wait.
// The cross-process lock keeps its own exported deadline functions
// (getTimeout, isTimeoutExpired: gettimeofday, 32-bit arithmetic) and takes
// only isInfinite from here.
#ifndef ZELKIT3_SRC_BASE_DEADLINE_H
#define ZELKIT3_SRC_BASE_DEADLINE_H

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <cstdint>

namespace zelkit3 {
namespace detail {

// 0xFFFFFFFF (INFINITE) and every value above it, (unsigned long)-1 among
// them, mean no limit. Above it only exists on x86_64, where 32-bit callers'
// values cannot reach: taking it as no limit never turns a huge time-out
// into a short, wrapped one.
constexpr bool isInfinite(unsigned long timeoutMs) { return timeoutMs >= 0xFFFFFFFFUL; }

// The no-limit value for the library's own waits (Win32's INFINITE).
constexpr unsigned long kNoLimit = 0xFFFFFFFFUL;

// A time-out in milliseconds on CLOCK_REALTIME, the clock of a condition
// variable with default attributes (so setting the clock moves it). Finite
// time-outs are summed in 64 bits and never wrap.
class Deadline {
 public:
  // When the time-out is counted from.
  enum Start {
    kFromNow,       // the construction: a fixed deadline for the whole call
    kFromEachBlock  // each block anew: a wake-up that does not end the wait
                    // starts the whole time-out over (the Win32 event wait)
  };

  explicit Deadline(unsigned long timeoutMs, Start start = kFromNow)
      : mTimeoutMs(timeoutMs), mStart(start) {
    if (start == kFromNow && !isInfinite()) mWhen = fromNow(timeoutMs);
  }

  bool isInfinite() const { return detail::isInfinite(mTimeoutMs); }

  // Whether a finite kFromNow deadline has passed; never for an infinite one.
  bool passed() const {
    if (isInfinite()) return false;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec > mWhen.tv_sec ||
           (now.tv_sec == mWhen.tv_sec && now.tv_nsec >= mWhen.tv_nsec);
  }

  // Blocks on cond, whose mutex the caller holds, until ended() holds or the
  // deadline passes, and returns ended() as it stands at the end. A
  // time-out of 0 only tests ended(): a poll needs no timed wait.
  template <class Ended>
  bool waitUntil(pthread_cond_t* cond, pthread_mutex_t* mutex, Ended ended) {
    while (!ended()) {
      if (mTimeoutMs == 0) return false;
      if (isInfinite()) {
        pthread_cond_wait(cond, mutex);
        continue;
      }
      if (mStart == kFromEachBlock) mWhen = fromNow(mTimeoutMs);
      if (pthread_cond_timedwait(cond, mutex, &mWhen) == ETIMEDOUT) return ended();
    }
    return true;
  }

 private:
  static timespec fromNow(std::uint64_t timeoutMs) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const std::uint64_t ns =
        static_cast<std::uint64_t>(now.tv_nsec) + (timeoutMs % 1000) * 1000000u;
    timespec when;
    when.tv_sec = now.tv_sec + static_cast<time_t>(timeoutMs / 1000 + ns / 1000000000u);
    when.tv_nsec = static_cast<long>(ns % 1000000000u);
    return when;
  }

  unsigned long mTimeoutMs;
  Start mStart;
  timespec mWhen = {0, 0};
};

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_BASE_DEADLINE_H
