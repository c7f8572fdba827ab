// Scoped guards for the library's locks. Internal: never installed.
#ifndef ZELKIT3_SRC_BASE_MUTEX_GUARD_H
#define ZELKIT3_SRC_BASE_MUTEX_GUARD_H

#include <pthread.h>

#include "zelkit3/mutex.h"

namespace zelkit3 {
namespace detail {

// Holds a zelkit3::Mutex for its scope, so that every way out of a guarded
// section, an exception included, releases it.
class ZK3_SCOPED_CAPABILITY MutexGuard {
 public:
  explicit MutexGuard(Mutex& m) ZK3_ACQUIRE(m) : mMutex(m) { mMutex.lock(); }
  ~MutexGuard() ZK3_RELEASE() { mMutex.unlock(); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  Mutex& mMutex;
};

// The same for a raw pthread mutex.
class PthreadGuard {
 public:
  explicit PthreadGuard(pthread_mutex_t& m) : mMutex(m) { pthread_mutex_lock(&mMutex); }
  ~PthreadGuard() { pthread_mutex_unlock(&mMutex); }
  PthreadGuard(const PthreadGuard&) = delete;
  PthreadGuard& operator=(const PthreadGuard&) = delete;

 private:
  pthread_mutex_t& mMutex;
};

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_BASE_MUTEX_GUARD_H
