// zelkit3/thread_pool.h - tasks, the task queue, worker threads and the pool.
//
// ThreadPool runs IRunnable tasks on a bounded set of worker threads: at most
// 20 (5 if asked for 0). All workers are made with the pool; a worker's thread
// is created when a task first reaches that worker, and lives until the pool
// ends. A task goes straight to a free worker, or waits in the pool's queue
// (first in, first out) until a worker takes it.
//
// The pool ends one of two ways, chosen at construction: join() (or the
// destructor with joinOnDestroy) stops every worker and waits for running
// tasks; the asynchronous end (destructor without joinOnDestroy) returns at
// once and the last worker thread frees the workers and the pool. Either way
// tasks that have not begun to run (queued, or handed to a worker that had
// not yet picked them up) are not run: each gets exactly one release(). A
// process may exit right after an asynchronous end: the exit waits up to 5 s
// for worker threads that are still ending.
//
// Thread-safety: ThreadPool::start may be called from any thread, a task of
// the same pool included. join must not be called from a task of the same
// pool. Nothing may overlap the destructor of a ThreadPool.
//
// Tasks: the pool takes its own reference (addRef) on a task it accepts and
// gives it back (release) when done; it never deletes a task. A task's
// addRef, release and destructor must not call back into the pool. An
// exception that leaves a task's run is swallowed; the worker goes on.
#ifndef ZELKIT3_THREAD_POOL_H
#define ZELKIT3_THREAD_POOL_H

#include <atomic>
#include <cstddef>
#include <list>
#include <map>
#include <set>

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "zelkit3/export.h"
#include "zelkit3/mutex.h"
#include "zelkit3/thread.h"

namespace zelkit3 {

namespace detail {
struct ThreadPoolTestAccess;
}

// A unit of work, shared by reference counts that the task implements.
class IRunnable {
 public:
  // Does the task's work, once, on a worker thread. Should not throw.
  virtual void run() = 0;
  virtual void addRef() = 0;
  // Gives one reference back; the task ends its own life at the last one.
  virtual void release() = 0;

 protected:
  ~IRunnable() {}
};

class WorkerThread;
class ThreadPoolImpl;

// How a worker calls back into its pool. Implemented by ThreadPoolImpl.
class ZK3_API IThreadPoolImpl : private boost::noncopyable {
 public:
  virtual bool start(IRunnable* task) = 0;
  virtual void join() = 0;
  virtual void finalizeAsync() = 0;
  // Called by a worker's thread as the last thing it does with its object.
  // True if the worker still exists when it returns, false if the call has
  // destroyed it.
  virtual bool unregister(WorkerThread* worker) = 0;
  // Counted references; release destroys the object at 0. Both return the
  // new count.
  virtual int addRef() = 0;
  virtual int release() = 0;
  virtual ~IThreadPoolImpl();
};

// Where workers find queued work.
class ZK3_API IThreadPoolTaskSource {
 public:
  virtual ~IThreadPoolTaskSource();
  // The oldest queued task, whose reference passes to the caller, or null.
  virtual IRunnable* nextTask() = 0;
};

// The pool's first-in, first-out task queue. All operations are thread-safe.
class ZK3_API ThreadPoolTaskSource : public IThreadPoolTaskSource, private boost::noncopyable {
 public:
  ThreadPoolTaskSource();
  // Releases every task still queued, oldest first; none of them runs.
  virtual ~ThreadPoolTaskSource();
  // Removes the oldest task and hands its reference to the caller; null if
  // empty. Works on a deactivated queue too.
  virtual IRunnable* nextTask();

  // Appends task with a reference of its own (addRef). False, with no
  // addRef, once the queue is deactivated.
  bool pushTask(IRunnable* task);
  // Refuses every later pushTask, for good. Queued tasks stay.
  void deactivate();
  bool empty() const;

 private:
  std::list<IRunnable*> mTasks ZK3_GUARDED_BY(mMutex);
  mutable Mutex mMutex;
  std::atomic<bool> mDeactivated;
  // The size of mTasks, written under mMutex and read without it by empty.
  std::atomic<std::size_t> mQueued;
  // Nodes of dequeued tasks, kept for reuse; their values mean nothing.
  std::list<IRunnable*> mSpareNodes ZK3_GUARDED_BY(mMutex);
};

// One worker of a pool: an AThread whose run takes tasks from its pool. Used
// by ThreadPoolImpl; start, stopAsync and stop are for the pool only.
class ZK3_API WorkerThread : public AThread, private boost::noncopyable {
 public:
  enum StartResult {
    WorkerThreadStarted = 0,  // the thread was created just now and has the task
    WorkerTaskAccepted = 1,   // a running thread has taken the task
    WorkerRefused = 2         // not taken; no reference to it remains here
  };

  // Keeps the queue weakly and a counted reference on pool. Starts no thread.
  WorkerThread(boost::shared_ptr<IThreadPoolTaskSource> taskSource, IThreadPoolImpl* pool);
  // Waits for the worker's thread to leave the object if it runs elsewhere;
  // releases an assigned task and the reference on the pool.
  virtual ~WorkerThread();

  // Offers task to this worker. Called with the pool's mutex held.
  int start(IRunnable* task);
  // Tells the thread to stop after its present task; waits only for a thread
  // that is just starting. Idempotent.
  void stopAsync();
  // stopAsync, then waits until the thread has ended. Never from the
  // worker's own thread.
  void stop();

  // Claims the worker for task (addRef) and wakes the thread; false if busy.
  bool setNewTask(IRunnable* task);
  // The thread's loop.
  virtual int run();
  // The assigned task with one more reference, or null.
  IRunnable* nextTask();
  // Drops the assigned task and frees the worker.
  void becomeFree();
  // If free, takes the oldest queued task. The worker's own thread only.
  void touchTaskSource();

 private:
  friend struct detail::ThreadPoolTestAccess;
  friend class ThreadPoolImpl;

  IRunnable* mTask ZK3_GUARDED_BY(mTaskMutex);
  Mutex mTaskMutex;
  boost::weak_ptr<IThreadPoolTaskSource> mTaskSource;
  IThreadPoolImpl* mPool;
  std::atomic<bool> mStopping;
  std::atomic<bool> mThreadClaimed;
  std::atomic<bool> mBusy;
  void* mWakeEvent;
  void* mStoppedEvent;
  void* mStartedEvent;
  // The thread could not be created: the worker refuses every task.
  std::atomic<bool> mThreadFailed;
  // touchTaskSource took a queued task: the next pass need not wait. Only
  // the worker's own thread touches it.
  bool mQueuedTaskTaken;
  // The thread is about to sleep or sleeps in its idle wait.
  std::atomic<bool> mIdle;
  // The pool whose count of idle workers this worker's idle spells enter,
  // or null for a worker of another IThreadPoolImpl. The constructor finds
  // it; the worker's reference on its pool keeps it valid.
  ThreadPoolImpl* mIdlePool;

  // Marks the start and the end of an idle spell (mIdle and the pool's count).
  __attribute__((visibility("hidden"))) void enterIdle();
  __attribute__((visibility("hidden"))) void leaveIdle();
  // Wakes the thread if it is free and idle; true if it did.
  __attribute__((visibility("hidden"))) bool wakeIfIdle();
};

// Supplies an atomic reference count (starting at 1) for T.
template <class T>
class TThreadSafeAddRefImpl : public T {
 public:
  TThreadSafeAddRefImpl() : mRefCount(1) {}
  virtual int addRef() { return mRefCount.fetch_add(1) + 1; }
  virtual int release() {
    const int count = mRefCount.fetch_sub(1) - 1;
    if (count == 0) delete this;
    return count;
  }

 protected:
  virtual ~TThreadSafeAddRefImpl() {}

 private:
  std::atomic<int> mRefCount;
};

// The pool itself; see ThreadPool for the contract.
class ZK3_API ThreadPoolImpl : public TThreadSafeAddRefImpl<IThreadPoolImpl> {
 public:
  // 0 workers gives 5; more than 20 gives 20. Creates no thread.
  explicit ThreadPoolImpl(unsigned int maxThreads);

  // False for null, after join, or when no worker could ever run it.
  virtual bool start(IRunnable* task);
  // Deactivates the queue, stops every worker and waits for it. Only the
  // first call does anything; later ones return at once.
  virtual void join();
  // Deactivates the queue and asks every worker to stop, without waiting.
  virtual void finalizeAsync();
  virtual bool unregister(WorkerThread* worker);

 protected:
  virtual ~ThreadPoolImpl();

 private:
  // Offers task to each worker by ascending address, under mMutex; true if
  // one took it (the pool notes a worker whose thread was made just now).
  __attribute__((visibility("hidden"))) bool offerToWorkers(IRunnable* task);
  // Queues task and wakes a free worker, so that the task does not wait for
  // a worker's idle time-out; the result of pushTask.
  __attribute__((visibility("hidden"))) bool queueTask(IRunnable* task);
  // Wakes a free worker with a thread after a task was queued.
  __attribute__((visibility("hidden"))) void wakeFreeWorker();
  // A copy of mWorkers, taken under mMutex.
  __attribute__((visibility("hidden"))) std::map<WorkerThread*, boost::shared_ptr<WorkerThread> >
  snapshotWorkers();

  friend struct detail::ThreadPoolTestAccess;
  friend class WorkerThread;

  // The count of idle workers is the pool's: each idle spell of a worker
  // enters it once and leaves it once, whoever ends the spell.
  __attribute__((visibility("hidden"))) void idleSpellBegins();
  __attribute__((visibility("hidden"))) void idleSpellEnds();

  std::set<WorkerThread*> mStartedWorkers ZK3_GUARDED_BY(mMutex);
  std::map<WorkerThread*, boost::shared_ptr<WorkerThread> > mWorkers ZK3_GUARDED_BY(mMutex);
  Mutex mMutex;
  boost::shared_ptr<ThreadPoolTaskSource> mTaskSource;
  std::atomic<bool> mJoined;
  std::atomic<bool> mAnyThreadStarted;
  // Workers in their idle spell; while it is 0 a queued task needs no wake-up.
  std::atomic<int> mIdleWorkers;
  // start calls between queueing a task and their last touch of this
  // object; the destructor waits for 0.
  std::atomic<int> mStartsInFlight;
};

// The public face of a pool.
class ZK3_API ThreadPool {
 public:
  // joinOnDestroy true: the destructor joins; false: it ends asynchronously.
  ThreadPool(unsigned int maxThreads, bool joinOnDestroy);
  static ThreadPool* create(unsigned int maxThreads, bool joinOnDestroy);
  // Joins, or ends asynchronously (returns while tasks still run). Harmless
  // after join.
  ~ThreadPool();
  // Destroys an object made by create.
  void release();

  // Runs task on a worker, now or after the tasks queued before it. True if
  // accepted (the pool then holds its own reference); false for null, after
  // join, or if no worker thread can be created at all.
  bool start(IRunnable* task);
  // Runs no task that has not begun, waits for running ones and for every
  // worker thread to end. A second call returns at once.
  void join();

 private:
  ThreadPool(const ThreadPool&);
  ThreadPool& operator=(const ThreadPool&);
  friend struct detail::ThreadPoolTestAccess;

  IThreadPoolImpl* mImpl;
  bool mJoinOnDestroy;
};

}  // namespace zelkit3

#endif  // ZELKIT3_THREAD_POOL_H
