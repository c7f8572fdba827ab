#include "threads/worker_census.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include "threads/deadline.h"
#include "threads/mutex_guard.h"

namespace zelkit3 {
namespace detail {

namespace {

// Statically initialised, never destroyed: usable from any exit handler.
pthread_mutex_t gCensusMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gCensusCond = PTHREAD_COND_INITIALIZER;
long gAlive = 0;
pthread_once_t gHandlerOnce = PTHREAD_ONCE_INIT;

// How long the exit of the process waits for worker threads that are still
// ending. Bounded, so that a task that never returns cannot hang the exit.
const unsigned long kExitWaitMs = 5000;

void waitAtExit() { waitForWorkerThreads(kExitWaitMs); }

// Registered on the first worker thread, after the runtime's own handlers,
// so that it runs before the library's unload hook at process exit.
void registerExitHandler() { atexit(&waitAtExit); }

}  // namespace

void workerThreadBegins() {
  pthread_once(&gHandlerOnce, &registerExitHandler);
  PthreadGuard guard(gCensusMutex);
  ++gAlive;
}

void workerThreadEnds() {
  PthreadGuard guard(gCensusMutex);
  if (--gAlive == 0) pthread_cond_broadcast(&gCensusCond);
}

bool waitForWorkerThreads(unsigned long timeoutMs) {
  const timespec deadline = wallClockDeadline(timeoutMs);
  PthreadGuard guard(gCensusMutex);
  while (gAlive > 0) {
    if (pthread_cond_timedwait(&gCensusCond, &gCensusMutex, &deadline) == ETIMEDOUT) break;
  }
  return gAlive == 0;
}

}  // namespace detail
}  // namespace zelkit3
