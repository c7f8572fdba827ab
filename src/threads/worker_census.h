// The worker threads that are alive, for the exit of the process and the
// unload of the library. Internal.
//
// After an asynchronous end of a pool the last worker frees the pool on its
// own thread, and its owner cannot wait for that. So that a process that
// exits right after such an end does not take the event table away from a
// worker still closing its events, and an unload does not unmap code that a
// worker still runs on its way out, the exit handler (registered by the
// first worker thread) and the unload hook wait, for a bounded time, until
// every worker thread has gone.
#ifndef ZELKIT3_SRC_THREADS_WORKER_CENSUS_H
#define ZELKIT3_SRC_THREADS_WORKER_CENSUS_H

namespace zelkit3 {
namespace detail {

// First thing a worker thread does.
void workerThreadBegins();
// Last thing a worker thread does with the library's shared state. The
// thread is then counted as leaving until the kernel no longer knows it.
void workerThreadEnds();
// Waits until every worker thread has ended and left the library's code, or
// timeoutMs passes; true if all have.
bool waitForWorkerThreads(unsigned long timeoutMs);

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_THREADS_WORKER_CENSUS_H
