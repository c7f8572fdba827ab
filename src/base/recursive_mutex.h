// The one way the library sets up a recursive pthread mutex. Internal.
#ifndef ZELKIT3_SRC_BASE_RECURSIVE_MUTEX_H
#define ZELKIT3_SRC_BASE_RECURSIVE_MUTEX_H

#include <pthread.h>

namespace zelkit3 {
namespace detail {

// Initialises *m as a recursive mutex. The results of the pthread calls are
// not examined: with valid storage and a recursive type none can fail in a
// way the caller could act on.
inline void initRecursiveMutex(pthread_mutex_t* m) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(m, &attr);
  pthread_mutexattr_destroy(&attr);
}

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_BASE_RECURSIVE_MUTEX_H
