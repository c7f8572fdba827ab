// The count of worker threads that are alive, for the exit of the process.
// Internal.
//
// After an asynchronous end of a pool the last worker frees the pool on its
// own thread, and its owner cannot wait for that. So that a process that
// exits right after such an end does not take the event table away from a
// worker still closing its events, the first worker thread registers an exit
// handler that waits, for a bounded time, until no worker thread is left.
#ifndef ZELKIT3_SRC_THREADS_WORKER_CENSUS_H
#define ZELKIT3_SRC_THREADS_WORKER_CENSUS_H

namespace zelkit3 {
namespace detail {

// First thing a worker thread does.
void workerThreadBegins();
// Last thing a worker thread does with the library's shared state.
void workerThreadEnds();
// Waits until no worker thread is alive, or timeoutMs passes; true if none is.
bool waitForWorkerThreads(unsigned long timeoutMs);

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_THREADS_WORKER_CENSUS_H
