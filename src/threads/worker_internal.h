// What the pool and its workers share beyond the exported interface. Internal.
#ifndef ZELKIT3_SRC_THREADS_WORKER_INTERNAL_H
#define ZELKIT3_SRC_THREADS_WORKER_INTERNAL_H

#include <atomic>

namespace zelkit3 {

class WorkerThread;

namespace detail {

// Set by ThreadPoolImpl::unregister on a worker's own thread just before it
// drops its holder of that worker. The worker's destructor clears it when it
// runs there, which tells unregister, without a race on use counts, that the
// object is gone; and it tells the destructor that it runs on the worker's
// own thread, so it must not wait for that thread to end.
extern thread_local WorkerThread* tReleasingOwnWorker;

// A seam for tests: when set, ThreadPoolImpl::start calls it after it has
// queued a task and before it wakes a worker, to widen that window. Nothing
// else writes it.
extern std::atomic<void (*)()> gAfterTaskQueued;

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_THREADS_WORKER_INTERNAL_H
