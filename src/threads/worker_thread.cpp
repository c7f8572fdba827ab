#include <cxxabi.h>

#include "base/mutex_guard.h"
#include "threads/worker_census.h"
#include "threads/worker_internal.h"
#include "zelkit3/thread_pool.h"
#include "zelkit3/win_emul.h"

namespace zelkit3 {

namespace detail {
thread_local WorkerThread* tReleasingOwnWorker = nullptr;
std::atomic<void (*)()> gAfterTaskQueued{nullptr};
}  // namespace detail

using detail::MutexGuard;
using win_emul::CloseHandle;
using win_emul::CreateEventW;
using win_emul::SetEvent;
using win_emul::WaitForSingleObject;

namespace {

// How long a free worker sleeps before it looks into the queue by itself.
const unsigned long kIdleWaitMs = 5000;

}  // namespace

// The queue comes by value: the exported signature is fixed.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
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
      mThreadFailed(false),
      mQueuedTaskTaken(false),
      mIdle(false),
      // Also inside the constructor of a ThreadPoolImpl, whose type the
      // object already has there.
      mIdlePool(dynamic_cast<ThreadPoolImpl*>(pool)) {
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
    // After a task taken from the queue the pass follows at once, as if the
    // wake event had been set, without the event's round trip.
    if (!mQueuedTaskTaken) {
      // Idle first, then one more look into the queue: a caller that queued
      // a task and still saw this worker awake did not wake it, and this
      // look finds that task; a later one sees the worker idle and wakes it.
      enterIdle();
      touchTaskSource();
      // No spin before the sleep: a pool usually has more workers than the
      // machine has cores, and a spinning worker takes the core that the
      // caller or a busy worker needs (measured: slower hand-overs, not
      // faster ones, even on an idle pool).
      if (!mQueuedTaskTaken) WaitForSingleObject(mWakeEvent, kIdleWaitMs);
      leaveIdle();
    }
    mQueuedTaskTaken = false;
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
  bool expected = false;
  if (!mBusy.compare_exchange_strong(expected, true)) return;
  boost::shared_ptr<IThreadPoolTaskSource> source = mTaskSource.lock();
  IRunnable* task = source ? source->nextTask() : nullptr;
  if (task == nullptr) {
    mBusy.store(false);
    return;
  }
  {
    MutexGuard guard(mTaskMutex);
    mTask = task;  // The queue's reference becomes mTask's.
  }
  mQueuedTaskTaken = true;  // The loop's next pass does not wait.
}

void WorkerThread::enterIdle() {
  // Both before the worker's next look into the queue: a caller that queued
  // a task and then reads the count as zero queued it before that look,
  // which finds it. The count comes first, so that a waker's decrement
  // (after it has seen mIdle) never runs ahead of the increment.
  if (mIdlePool != nullptr) mIdlePool->idleSpellBegins();
  mIdle.store(true);
}

void WorkerThread::leaveIdle() {
  // Whoever turns mIdle off, this thread or a waking caller, takes the
  // worker out of the count, so that it is counted once per idle spell.
  if (mIdle.exchange(false) && mIdlePool != nullptr) mIdlePool->idleSpellEnds();
}

bool WorkerThread::wakeIfIdle() {
  bool idle = true;
  // One caller per idle spell wins, so that a burst of queued tasks wakes
  // one sleeping worker each instead of the same one again and again. mBusy
  // is not consulted: it is true for a moment inside the worker's own last
  // look into the queue, and a wake-up lost there would leave the task
  // waiting for the idle time-out. A needless wake costs one empty pass.
  if (!mIdle.load(std::memory_order_relaxed)) return false;
  if (!mIdle.compare_exchange_strong(idle, false)) return false;
  if (mIdlePool != nullptr) mIdlePool->idleSpellEnds();
  SetEvent(mWakeEvent);
  return true;
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
