#include "base/mutex_guard.h"
#include "zelkit3/thread_pool.h"

namespace zelkit3 {

using detail::MutexGuard;

IThreadPoolTaskSource::~IThreadPoolTaskSource() {}

namespace {
// List nodes kept for reuse after their task has left the queue: a busy pool
// then queues and dequeues without touching the allocator. The bound caps
// what an emptied queue holds on to (a few kilobytes).
const std::size_t kMaxSpareNodes = 256;
}  // namespace

ThreadPoolTaskSource::ThreadPoolTaskSource() : mDeactivated(false), mQueued(0) {}

ThreadPoolTaskSource::~ThreadPoolTaskSource() {
  MutexGuard guard(mMutex);
  for (std::list<IRunnable*>::iterator it = mTasks.begin(); it != mTasks.end(); ++it) {
    (*it)->release();
  }
  mTasks.clear();
}

bool ThreadPoolTaskSource::pushTask(IRunnable* task) {
  if (mDeactivated.load()) return false;
  MutexGuard guard(mMutex);
  // The node first: if it can't be allocated, no reference has been taken.
  if (mSpareNodes.empty()) {
    mTasks.push_back(task);
  } else {
    mSpareNodes.front() = task;
    mTasks.splice(mTasks.end(), mSpareNodes, mSpareNodes.begin());
  }
  mQueued.store(mTasks.size(), std::memory_order_release);
  task->addRef();
  return true;
}

IRunnable* ThreadPoolTaskSource::nextTask() {
  MutexGuard guard(mMutex);
  if (mTasks.empty()) return nullptr;
  IRunnable* task = mTasks.front();
  if (mSpareNodes.size() < kMaxSpareNodes) {
    mSpareNodes.splice(mSpareNodes.begin(), mTasks, mTasks.begin());
  } else {
    mTasks.pop_front();
  }
  mQueued.store(mTasks.size(), std::memory_order_release);
  return task;
}

void ThreadPoolTaskSource::deactivate() { mDeactivated.store(true); }

bool ThreadPoolTaskSource::empty() const {
  // A mirror of the size, written under mMutex: the answer is the queue's
  // state at one moment during the call, as with the lock, but the pool's
  // start path does not contend with the workers for mMutex to get it.
  return mQueued.load(std::memory_order_acquire) == 0;
}

}  // namespace zelkit3
