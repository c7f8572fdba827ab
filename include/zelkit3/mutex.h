// zelkit3/mutex.h - the library's lock and the condition pair of its threads.
//
// Mutex is the one lock class of libzelkit3: always recursive, lock and unlock
// only, no try-lock, no time-out. A thread that locks it n times owns it until
// it has unlocked it n times. Objects are embedded by value in their users.
//
// PosixCondVar bundles a condition variable, its own plain (non-recursive)
// mutex and the predicate flag that waiters test. It enforces no discipline:
// the user takes the raw pointers and calls pthread_* directly, sets
// mSignaled and broadcasts with the pair's mutex held, and never takes that
// mutex twice on one thread.
//
// Both classes are safe to use from any thread; neither is copyable.
//
// Fields of the library's classes that a Mutex guards are marked
// ZK3_GUARDED_BY; a caller built with clang -Wthread-safety is warned when it
// touches one (PerformanceLogger::mRecords, say) without holding the lock.
#ifndef ZELKIT3_MUTEX_H
#define ZELKIT3_MUTEX_H

#include <pthread.h>

#include "zelkit3/export.h"

// Lock annotations: under clang, -Wthread-safety checks that data marked
// ZK3_GUARDED_BY(m) is touched only with m held. Other compilers ignore them.
#if defined(__clang__)
#define ZK3_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZK3_THREAD_ANNOTATION(x)
#endif
#define ZK3_CAPABILITY(name) ZK3_THREAD_ANNOTATION(capability(name))
#define ZK3_SCOPED_CAPABILITY ZK3_THREAD_ANNOTATION(scoped_lockable)
#define ZK3_GUARDED_BY(m) ZK3_THREAD_ANNOTATION(guarded_by(m))
#define ZK3_ACQUIRE(...) ZK3_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZK3_RELEASE(...) ZK3_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZK3_NO_THREAD_SAFETY_ANALYSIS ZK3_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zelkit3 {

class ZK3_CAPABILITY("mutex") Mutex {
 public:
  // Initialises a PTHREAD_MUTEX_RECURSIVE mutex.
  ZK3_API Mutex();
  ZK3_API ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // Blocks until the calling thread owns the mutex (again, if it already does).
  ZK3_API void lock() ZK3_ACQUIRE();
  // Gives up one level of ownership. Only the owning thread may call it.
  ZK3_API void unlock() ZK3_RELEASE();

  pthread_mutex_t mMutex;
};

}  // namespace zelkit3

class PosixCondVar {
 public:
  // mSignaled false; condition variable and plain mutex with default attributes.
  ZK3_API PosixCondVar();
  ZK3_API ~PosixCondVar();
  PosixCondVar(const PosixCondVar&) = delete;
  PosixCondVar& operator=(const PosixCondVar&) = delete;

  ZK3_API pthread_cond_t* getCondVar();
  ZK3_API pthread_mutex_t* getMutex();

  // The predicate; read and written by the user under getMutex().
  bool mSignaled;
  pthread_cond_t mCondVar;
  pthread_mutex_t mMutex;
};

#endif  // ZELKIT3_MUTEX_H
