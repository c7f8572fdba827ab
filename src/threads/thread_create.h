// The one way the threads family creates a POSIX thread. Internal.
//
// A seam for tests: a test linked against the library's objects may point
// gCreateThread at a function that fails, to reach the failure paths of
// AThread::start and of the timer manager. Nothing else writes it.
#ifndef ZELKIT3_SRC_THREADS_THREAD_CREATE_H
#define ZELKIT3_SRC_THREADS_THREAD_CREATE_H

#include <pthread.h>

#include <atomic>

namespace zelkit3 {
namespace detail {

using CreateThreadFn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

extern std::atomic<CreateThreadFn> gCreateThread;

inline int createThread(pthread_t* thread, const pthread_attr_t* attr, void* (*routine)(void*),
                        void* argument) {
  return gCreateThread.load(std::memory_order_acquire)(thread, attr, routine, argument);
}

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_THREADS_THREAD_CREATE_H
