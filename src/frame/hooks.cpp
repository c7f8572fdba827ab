#include <pthread.h>

#include <set>

#include "frame/init_order.h"
#include "frame/lifecycle_internal.h"
#include "threads/worker_census.h"
#include "win_emul/event_state.h"
#include "zelkit3/lifecycle.h"
#include "zelkit3/timezone.h"

using zelkit3::win_emul::AccessGuard;
using zelkit3::win_emul::CWinEventHandle;
using zelkit3::win_emul::gEventLock;
using zelkit3::win_emul::gEventLockMarker;
using zelkit3::win_emul::gEventTable;

// First in .init_array after the runtime's own entry: runs before every
// static object of the library, so it touches none of them.
__attribute__((constructor(ZK3_INIT_AT_LOAD))) void ZelKit3AtLoad() {
  if (gEventLockMarker == nullptr) {
    char* marker = new char(0);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&gEventLock, &attr);
    pthread_mutexattr_destroy(&attr);
    gEventLockMarker = marker;
  }
  if (gEventTable == nullptr) gEventTable = new std::set<CWinEventHandle*>();
  HistoricalTZHelpersFactory::addRef();
}

// Last in .fini_array, so it runs first when the library is closed, before
// the registered destructors. At process exit the runtime may have run those
// destructors already; AccessGuard then skips the destroyed mAccessMutex.
__attribute__((destructor)) void ZelKit3AtUnload() {
  // Workers of a pool that ended asynchronously may still be closing their
  // events: let them finish (for a bounded time) before the table goes. At
  // process exit an exit handler has done this already; on dlclose it would
  // run only after this hook.
  zelkit3::detail::waitForWorkerThreads(5000);
  HistoricalTZHelpersFactory::release();
  {
    AccessGuard access;
    delete gEventTable;  // The events in it are neither closed nor destroyed.
    gEventTable = nullptr;
  }
  if (gEventLockMarker != nullptr) {
    pthread_mutex_destroy(&gEventLock);
    delete gEventLockMarker;
    gEventLockMarker = nullptr;
  }
  zelkit3::detail::finishPerformanceReport();
}
