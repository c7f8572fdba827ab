#include <cxxabi.h>

#include "threads/mutex_guard.h"
#include "threads/worker_census.h"
#include "threads/worker_internal.h"
#include "zelkit3/thread_pool.h"
#include "zelkit3/win_emul.h"

namespace zelkit3 {

namespace detail {
thread_local WorkerThread* tReleasingOwnWorker = nullptr;
}

using detail::MutexGuard;
using win_emul::CloseHandle;
using win_emul::CreateEventW;
using win_emul::SetEvent;
using win_emul::WaitForSingleObject;

namespace {

// How long a free worker sleeps before it looks into the queue by itself.
const unsigned long kIdleWaitMs = 5000;

}  // namespace

WorkerThread::WorkerThread(boost::shared_ptr<IThreadPoolTaskSource> taskSource,
                           IThreadPoolImpl* pool)
    : mTask(nullptr),
      mTaskSource(taskSource),
      mPool(pool),
      mStopping(false),
      mThreadClaimed(false),
      mBusy(false),
      mWakeEvent(CreateEventW(nullptr, 0, 0, nullptr)),
      mStoppedEvent(CreateEventW(nullptr, 1, 0, nullptr)),
      mStartedEvent(CreateEventW(nullptr, 1, 0, nullptr)),
      mThreadFailed(false) {
  mPool->addRef();
}

WorkerThread::~WorkerThread() {
  if (detail::tReleasingOwnWorker == this) {
    detail::tReleasingOwnWorker = nullptr;
    // The last worker of an asynchronous end frees itself on its own thread.
    // It cleans up here instead of letting the base destructor cancel the
    // thread: no cancellation may hit the queued tasks' release calls that
    // still run on this thread.
    MutexGuard guard(mMutex);
    threadCleanup(this);
  } else {
    // Whoever drops the last reference elsewhere (a pool snapshot, most
    // often) waits until the thread has left the object; for a thread that
    // is past its loop already this is short, and without a thread it is
    // immediate.
    stop();
  }
  CloseHandle(mWakeEvent);
  CloseHandle(mStoppedEvent);
  CloseHandle(mStartedEvent);
  mPool->release();
  mTaskSource.reset();
  if (mTask != nullptr) mTask->release();
  mTask = nullptr;
}

int WorkerThread::run() {
  detail::workerThreadBegins();
  SetEvent(mStartedEvent);
  for (;;) {
    WaitForSingleObject(mWakeEvent, kIdleWaitMs);
    if (mStopping.load()) break;
    IRunnable* task = nextTask();
    if (task != nullptr) {
      try {
        task->run();
      } catch (abi::__forced_unwind&) {
        task->release();
        detail::workerThreadEnds();
        throw;  // Cancellation must unwind all the way.
      } catch (...) {
        // Contained: the task counts as done, and the worker stays in
        // service with its flags and the pool's sets in order.
      }
      becomeFree();
    }
    touchTaskSource();
    if (task != nullptr) task->release();
  }
  SetEvent(mStoppedEvent);
  IThreadPoolImpl* pool = mPool;
  const bool alive = pool->unregister(this);
  detail::workerThreadEnds();  // No event function runs on this thread after this.
  return alive ? 0 : -2;
}

IRunnable* WorkerThread::nextTask() {
  MutexGuard guard(mTaskMutex);
  if (mTask != nullptr) mTask->addRef();
  return mTask;
}

void WorkerThread::becomeFree() {
  {
    MutexGuard guard(mTaskMutex);
    if (mTask != nullptr) {
      mTask->release();
      mTask = nullptr;
    }
  }
  mBusy.store(false);
}

bool WorkerThread::setNewTask(IRunnable* task) {
  bool expected = false;
  if (!mBusy.compare_exchange_strong(expected, true)) return false;
  {
    MutexGuard guard(mTaskMutex);
    task->addRef();
    mTask = task;
  }
  SetEvent(mWakeEvent);
  return true;
}

void WorkerThread::touchTaskSource() {
  boost::shared_ptr<IThreadPoolTaskSource> source = mTaskSource.lock();
  if (!source) return;
  ThreadPoolTaskSource* queue = dynamic_cast<ThreadPoolTaskSource*>(source.get());
  for (;;) {
    bool expected = false;
    if (!mBusy.compare_exchange_strong(expected, true)) return;
    IRunnable* task = source->nextTask();
    if (task != nullptr) {
      {
        MutexGuard guard(mTaskMutex);
        mTask = task;  // The queue's reference becomes mTask's.
      }
      SetEvent(mWakeEvent);
      return;
    }
    mBusy.store(false);
    // A task pushed after the look above, by a caller that still saw this
    // worker busy, would otherwise wait for the idle time-out: look again.
    // Either this look sees it, or the pusher sees the worker free and
    // wakes it.
    if (queue == nullptr || queue->empty()) return;
  }
}

int WorkerThread::start(IRunnable* task) {
  if (mStopping.load()) return WorkerRefused;
  // Only a worker whose thread is not yet claimed can win the claim; testing
  // the flag first spares the pool's hot path a lock and a system call per
  // worker (isRunning) without changing any result.
  if (!mThreadClaimed.load()) {
    bool expected = false;
    if (mThreadClaimed.compare_exchange_strong(expected, true)) {
      setNewTask(task);
      if (AThread::start()) return WorkerThreadStarted;
      // No thread, and none will come: from here the worker is in state
      // Failed, with both events set.
      becomeFree();
      mThreadFailed.store(true);
      SetEvent(mStartedEvent);
      SetEvent(mStoppedEvent);
      return WorkerRefused;
    }
  }
  // A busy worker refuses anyway (setNewTask would fail): say so at once.
  if (mBusy.load()) return WorkerRefused;
  if (WaitForSingleObject(mStartedEvent, 0) != WAIT_OBJECT_0) return WorkerRefused;
  // In the Failed state (both events set, no stop request) no thread exists
  // to run a task, so none is accepted. A flag, not a poll of the stopped
  // event: a poll of an unset event costs a timed wait.
  if (mThreadFailed.load()) return WorkerRefused;
  return setNewTask(task) ? WorkerTaskAccepted : WorkerRefused;
}

void WorkerThread::stopAsync() {
  mStopping.store(true);
  SetEvent(mWakeEvent);
  bool expected = false;
  if (mThreadClaimed.compare_exchange_strong(expected, true)) {
    SetEvent(mStartedEvent);
    SetEvent(mStoppedEvent);
    return;
  }
  WaitForSingleObject(mStartedEvent, INFINITE);
}

void WorkerThread::stop() {
  stopAsync();
  WaitForSingleObject(mStoppedEvent, INFINITE);
  AThread::join(INFINITE);
}

}  // namespace zelkit3
