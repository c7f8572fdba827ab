#include "threads/worker_census.h"

#include <errno.h>
#include <execinfo.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cxxabi.h>

#include "base/deadline.h"
#include "base/mutex_guard.h"
#include "threads/load_steps.h"

// Defined by the C runtime's start files, one per shared object.
extern "C" void* __dso_handle;

namespace zelkit3 {
namespace detail {

namespace {

// Statically initialised, never destroyed: usable from any exit handler.
pthread_mutex_t gCensusMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gCensusCond = PTHREAD_COND_INITIALIZER;
long gAlive = 0;
pthread_once_t gHandlerOnce = PTHREAD_ONCE_INIT;

// Kernel ids of worker threads that have ended their work but may still be
// on their way out through the library's code. Bounded: a thread that finds
// the list full waits until one of those has really gone, which takes
// microseconds, so a burst of many ending pools is slowed, never lost.
const int kMaxLeaving = 256;
pid_t gLeaving[kMaxLeaving];
int gLeavingCount = 0;

// How long the exit of the process waits for worker threads that are still
// ending. Bounded, so that a task that never returns cannot hang the exit.
const unsigned long kExitWaitMs = 5000;

void waitAtExit(void*) { waitForWorkerThreads(kExitWaitMs); }

// Once per load, on the first worker thread, before anything may wait for
// workers to leave:
// - the exit handler, registered after the runtime's own handlers, so that it
//   runs before the library's unload hook at process exit;
// - the C runtime's unwinder. A worker whose object is gone ends through
//   pthread_exit, which loads libgcc_s on its first use in the process, and
//   loading takes the loader's lock. The unload hook runs under that lock
//   while it waits for the worker to leave: loaded any later, the two would
//   wait for each other. A backtrace loads it now (glibc keeps it loaded).
// The handler is registered under this library's own DSO handle, which is
// what atexit() does when it comes from libc_nonshared: the runtime drops it
// when the library is unloaded. Called by name, atexit() may instead resolve
// to a sanitizer's interceptor, which keeps it for process exit, when its code
// is gone.
void prepareForWorkers() {
  abi::__cxa_atexit(&waitAtExit, nullptr, &__dso_handle);
  void* frame;
  backtrace(&frame, 1);
}

pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Whether the kernel still has the thread. Once it says no, the thread runs
// no instruction of ours again. (A tid reused at once by an unrelated thread
// only makes a waiter wait for its bound.)
bool threadExists(pid_t tid) {
  return syscall(SYS_tgkill, static_cast<pid_t>(getpid()), tid, 0) == 0 || errno != ESRCH;
}

// Drops the threads that have gone from gLeaving. Call with gCensusMutex held.
void forgetGoneThreads() {
  int kept = 0;
  for (int i = 0; i < gLeavingCount; ++i) {
    if (threadExists(gLeaving[i])) gLeaving[kept++] = gLeaving[i];
  }
  gLeavingCount = kept;
}

// Waits until at most `most` threads are still leaving, or the deadline (if
// any) passes; true if so. Called and returns with gCensusMutex held; gives it
// up while it pauses, so that other threads can end meanwhile.
bool waitForLeavingAtMost(int most, const Deadline& deadline) {
  for (;;) {
    forgetGoneThreads();
    if (gLeavingCount <= most) return true;
    if (deadline.passed()) return false;
    pthread_mutex_unlock(&gCensusMutex);
    const timespec pause = {0, 50000};  // 50 us: about what the exit of a thread takes
    nanosleep(&pause, nullptr);
    pthread_mutex_lock(&gCensusMutex);
  }
}

}  // namespace

void workerThreadBegins() {
  pthread_once(&gHandlerOnce, &prepareForWorkers);
  PthreadGuard guard(gCensusMutex);
  ++gAlive;
}

void workerThreadEnds() {
  const pid_t self = currentTid();
  PthreadGuard guard(gCensusMutex);
  waitForLeavingAtMost(kMaxLeaving - 1, Deadline(kNoLimit));  // room for this thread
  gLeaving[gLeavingCount++] = self;
  if (--gAlive == 0) pthread_cond_broadcast(&gCensusCond);
}

bool waitForWorkerThreads(unsigned long timeoutMs) {
  Deadline deadline(timeoutMs);
  PthreadGuard guard(gCensusMutex);
  if (!deadline.waitUntil(&gCensusCond, &gCensusMutex, [] { return gAlive == 0; })) return false;
  // The threads have ended their work; now wait until they have left the
  // library's code too, so that the caller may unmap it.
  return waitForLeavingAtMost(0, deadline);
}

void workersAtUnload() { waitForWorkerThreads(kExitWaitMs); }

}  // namespace detail
}  // namespace zelkit3
