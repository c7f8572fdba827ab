#include "threads/mutex_guard.h"
#include "zelkit3/thread_pool.h"

namespace zelkit3 {

using detail::MutexGuard;

IThreadPoolTaskSource::~IThreadPoolTaskSource() {}

ThreadPoolTaskSource::ThreadPoolTaskSource() : mDeactivated(false) {}

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
  mTasks.push_back(task);
  task->addRef();
  return true;
}

IRunnable* ThreadPoolTaskSource::nextTask() {
  MutexGuard guard(mMutex);
  if (mTasks.empty()) return nullptr;
  IRunnable* task = mTasks.front();
  mTasks.pop_front();
  return task;
}

void ThreadPoolTaskSource::deactivate() { mDeactivated.store(true); }

bool ThreadPoolTaskSource::empty() const {
  MutexGuard guard(mMutex);
  return mTasks.empty();
}

}  // namespace zelkit3
