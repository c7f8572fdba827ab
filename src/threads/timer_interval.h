// The poll interval arithmetic of the timer manager. Internal.
#ifndef ZELKIT3_SRC_THREADS_TIMER_INTERVAL_H
#define ZELKIT3_SRC_THREADS_TIMER_INTERVAL_H

namespace zelkit3 {
namespace detail {

// The interval after a setTimer of period when the present one is cur: the
// first halving of cur that is not above period (or cur itself when period
// is not below it, or the first value of 10 or less), halved once more; cur 0
// takes period itself. All divisions truncate towards zero, and the loop
// ends for any inputs, negative ones included.
inline int nextTimerInterval(int cur, int period) {
  int p = period;
  if (cur != 0) {
    if (period >= cur) {
      p = cur;
    } else {
      for (;;) {
        if (cur <= 10) {
          p = cur;
          break;
        }
        cur /= 2;
        if (period >= cur) {
          p = cur;
          break;
        }
      }
    }
  }
  return p / 2;
}

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_THREADS_TIMER_INTERVAL_H
