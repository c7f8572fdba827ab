#include "zelkit3/thread_pool.h"

#include <sched.h>

#include "base/mutex_guard.h"
#include "threads/worker_internal.h"
#include "zelkit3/assert.h"
#include "zelkit3/win_emul.h"

namespace zelkit3 {

using detail::MutexGuard;

namespace {

const unsigned int kDefaultWorkers = 5;
const unsigned int kMaxWorkers = 20;

typedef std::map<WorkerThread*, boost::shared_ptr<WorkerThread> > WorkerMap;

// Asks each worker of a snapshot to stop, without waiting.
void stopAllAsync(const WorkerMap& snapshot) {
  for (WorkerMap::const_iterator it = snapshot.begin(); it != snapshot.end(); ++it) {
    it->second->stopAsync();
  }
}

}  // namespace

IThreadPoolImpl::~IThreadPoolImpl() {}

// ---- ThreadPoolImpl ----------------------------------------------------------

ThreadPoolImpl::ThreadPoolImpl(unsigned int maxThreads)
    : mTaskSource(new ThreadPoolTaskSource()),
      mJoined(false),
      mAnyThreadStarted(false),
      mIdleWorkers(0),
      mStartsInFlight(0) {
  unsigned int count = maxThreads;
  if (count == 0) count = kDefaultWorkers;
  if (count > kMaxWorkers) count = kMaxWorkers;
  try {
    for (unsigned int i = 0; i < count; ++i) {
      boost::shared_ptr<WorkerThread> worker(new WorkerThread(mTaskSource, this));
      mWorkers[worker.get()] = worker;
    }
  } catch (...) {
    // The workers made so far hold references on this object, which is not
    // complete yet: they must go before the exception leaves.
    mWorkers.clear();
    throw;
  }
}

ThreadPoolImpl::~ThreadPoolImpl() {
  // A start that queued a task which then ended the pool may still be on
  // its way out of queueTask. It holds no lock that this thread holds and
  // blocks on nothing but the pool's mutex, so the wait is short.
  while (mStartsInFlight.load(std::memory_order_acquire) != 0) sched_yield();
  mTaskSource.reset();
}

bool ThreadPoolImpl::start(IRunnable* task) {
  if (task == nullptr || mJoined.load()) return false;
  // A free worker takes the task at once, unless tasks are waiting: a new
  // task never overtakes them.
  if (mTaskSource->empty() && offerToWorkers(task)) return true;
  // Without any thread nothing would ever take the task out of the queue.
  // (A queue that holds tasks implies a thread: tasks are queued only then.)
  if (!mAnyThreadStarted.load()) return false;
  return queueTask(task);
}

bool ThreadPoolImpl::offerToWorkers(IRunnable* task) {
  MutexGuard guard(mMutex);
  for (WorkerMap::iterator it = mWorkers.begin(); it != mWorkers.end(); ++it) {
    switch (it->second->start(task)) {
      case WorkerThread::WorkerThreadStarted:
        // Under the same lock as the worker's start: its unregister cannot
        // come before this insertion.
        mAnyThreadStarted.store(true);
        mStartedWorkers.insert(it->first);
        return true;
      case WorkerThread::WorkerTaskAccepted: return true;
      default: break;
    }
  }
  return false;
}

bool ThreadPoolImpl::queueTask(IRunnable* task) {
  // Once pushed, the task may run at once and end the pool (an asynchronous
  // end from inside a task), and the last worker may then destroy this
  // object before the wake-up below. The count keeps the destructor waiting
  // until this call has left the object; it is raised before the push, so a
  // worker that takes the task sees it raised.
  mStartsInFlight.fetch_add(1);
  const bool queued = mTaskSource->pushTask(task);
  if (queued) {
    if (void (*seam)() = detail::gAfterTaskQueued.load(std::memory_order_acquire)) seam();
    wakeFreeWorker();
  }
  mStartsInFlight.fetch_sub(1, std::memory_order_release);  // the last touch of this object
  return queued;
}

void ThreadPoolImpl::wakeFreeWorker() {
  // Every worker is busy or on its way to the queue: no lock, no scan.
  if (mIdleWorkers.load() == 0) return;
  MutexGuard guard(mMutex);
  for (std::set<WorkerThread*>::iterator it = mStartedWorkers.begin(); it != mStartedWorkers.end();
       ++it) {
    if ((*it)->wakeIfIdle()) return;
  }
}

void ThreadPoolImpl::idleSpellBegins() { mIdleWorkers.fetch_add(1); }

void ThreadPoolImpl::idleSpellEnds() { mIdleWorkers.fetch_sub(1); }

WorkerMap ThreadPoolImpl::snapshotWorkers() {
  // The copy keeps the workers alive for whatever the caller does next,
  // outside the lock.
  MutexGuard guard(mMutex);
  return mWorkers;
}

void ThreadPoolImpl::join() {
  bool expected = false;
  if (!mJoined.compare_exchange_strong(expected, true)) return;
  mTaskSource->deactivate();
  WorkerMap snapshot = snapshotWorkers();
  stopAllAsync(snapshot);
  for (WorkerMap::iterator it = snapshot.begin(); it != snapshot.end(); ++it) {
    it->second->stop();
  }
  {
    MutexGuard guard(mMutex);
    mWorkers.clear();
  }
  // The snapshot goes last: the workers are destroyed here.
}

void ThreadPoolImpl::finalizeAsync() {
  mTaskSource->deactivate();
  WorkerMap snapshot = snapshotWorkers();
  stopAllAsync(snapshot);
  {
    MutexGuard guard(mMutex);
    if (!mAnyThreadStarted.load()) mWorkers.clear();
  }
  // If the last worker has already passed unregister, dropping the snapshot
  // destroys workers here; a worker's destructor waits until its thread has
  // left the object, so this overlap is safe.
}

bool ThreadPoolImpl::unregister(WorkerThread* worker) {
  addRef();
  // Gives back the reference of the first step on every way out, also when
  // the assertion below throws.
  struct Release {
    ThreadPoolImpl* pool;
    ~Release() { pool->release(); }
  } releaseAtEnd = {this};

  boost::shared_ptr<WorkerThread> holder;
  bool last;
  {
    MutexGuard guard(mMutex);
    WorkerMap::iterator it = mWorkers.find(worker);
    if (it == mWorkers.end()) {
      assert_zk3::isTrue(false, "logic error in thread pool implementation");
    }
    holder = it->second;
    mStartedWorkers.erase(worker);
    last = mStartedWorkers.empty();
  }
  if (last) {
    WorkerMap snapshot = snapshotWorkers();
    for (WorkerMap::iterator it = snapshot.begin(); it != snapshot.end(); ++it) {
      it->second->AThread::join(INFINITE);
    }
    {
      MutexGuard guard(mMutex);
      mWorkers.clear();
    }
  }
  // Destroys the calling worker here, on its own thread, if nobody else
  // holds it. If a finalizeAsync snapshot still holds it, the result is true
  // and whoever drops that snapshot waits in the worker's destructor until
  // this thread has left the object.
  detail::tReleasingOwnWorker = worker;
  holder.reset();
  const bool survives = detail::tReleasingOwnWorker != nullptr;
  detail::tReleasingOwnWorker = nullptr;
  return survives;
}

// ---- ThreadPool --------------------------------------------------------------

ThreadPool::ThreadPool(unsigned int maxThreads, bool joinOnDestroy)
    : mImpl(new ThreadPoolImpl(maxThreads)), mJoinOnDestroy(joinOnDestroy) {}

ThreadPool* ThreadPool::create(unsigned int maxThreads, bool joinOnDestroy) {
  return new ThreadPool(maxThreads, joinOnDestroy);
}

ThreadPool::~ThreadPool() {
  if (mJoinOnDestroy) {
    mImpl->join();
  } else {
    mImpl->finalizeAsync();
  }
  mImpl->release();
}

void ThreadPool::release() { delete this; }

bool ThreadPool::start(IRunnable* task) { return mImpl->start(task); }

void ThreadPool::join() { mImpl->join(); }

}  // namespace zelkit3
