#include "zelkit3/thread.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include "base/deadline.h"
#include "base/mutex_guard.h"
#include "threads/thread_create.h"

namespace zelkit3 {
namespace detail {

std::atomic<CreateThreadFn> gCreateThread(&pthread_create);

}  // namespace detail

namespace {

using detail::MutexGuard;
using detail::PthreadGuard;

// What start hands to the new thread, on start's own stack: valid until the
// thread has set the start signal.
struct StartRecord {
  AThread* thread;
  PosixCondVar* started;
};

pthread_t toPthread(unsigned long handle) { return static_cast<pthread_t>(handle); }

}  // namespace

// ---- ThreadHandle ------------------------------------------------------------

ThreadHandle::ThreadHandle() : mHandle(static_cast<unsigned long>(pthread_self())) {}

ThreadHandle::ThreadHandle(unsigned long handle) : mHandle(handle) {}

ThreadHandle::~ThreadHandle() {}

ThreadHandle* ThreadHandle::getCurrentThread() { return new ThreadHandle(); }

void ThreadHandle::release() { delete this; }

unsigned long ThreadHandle::getCurrentThreadHandle() const {
  return static_cast<unsigned long>(pthread_self());
}

unsigned long ThreadHandle::getHandle() const { return mHandle; }

void ThreadHandle::setHandle(unsigned long handle) { mHandle = handle; }

bool ThreadHandle::isCurrentThread() const {
  return mHandle == static_cast<unsigned long>(pthread_self());
}

bool ThreadHandle::equals(const ThreadHandle* other) const {
  return other != nullptr && other->mHandle == mHandle;
}

bool ThreadHandle::equals(const AThread* thread) const {
  return thread != nullptr && equals(thread->getHandle());
}

// ---- AThread -----------------------------------------------------------------

AThread::AThread()
    : mStopRequested(false),
      mHandle(0UL),
      mDefaultPriority(-1),
      mRunning(false),
      mFinished(new PosixCondVar()),
      mKeepAlive(false),
      mJoiners(0) {
  int policy = 0;
  sched_param param;
  if (pthread_getschedparam(pthread_self(), &policy, &param) == 0) {
    mDefaultPriority = param.sched_priority;
  }
}

AThread::~AThread() {
  {
    MutexGuard guard(mMutex);
    if (mRunning && !mKeepAlive.load()) {
      threadCleanup(this);
      pthread_cancel(toPthread(mHandle.mHandle));
    }
    mHandle.mHandle = 0;
    delete mFinished;
    mFinished = nullptr;
  }
}

bool AThread::isRunning() const {
  MutexGuard guard(mMutex);
  if (!mRunning) return false;
  return pthread_kill(toPthread(mHandle.mHandle), 0) == 0;
}

bool AThread::start() {
  MutexGuard guard(mMutex);
  if (isRunning()) return true;
  mFinished->mSignaled = false;

  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  PosixCondVar* started;
  try {
    started = new PosixCondVar();
  } catch (...) {
    pthread_attr_destroy(&attr);
    throw;
  }
  StartRecord record = {this, started};
  pthread_t thread;
  if (detail::createThread(&thread, &attr, &AThread::threadRunner, &record) != 0) {
    delete started;
    pthread_attr_destroy(&attr);
    return false;
  }
  {
    PthreadGuard wait(started->mMutex);
    while (!started->mSignaled) pthread_cond_wait(&started->mCondVar, &started->mMutex);
  }
  delete started;
  pthread_attr_destroy(&attr);
  mHandle.mHandle = static_cast<unsigned long>(thread);
  mRunning = true;
  return true;
}

void* AThread::threadRunner(void* argument) {
  if (argument == nullptr) pthread_exit(nullptr);
  StartRecord* record = static_cast<StartRecord*>(argument);
  AThread* self = record->thread;
  PosixCondVar* started = record->started;
  pthread_mutex_lock(&started->mMutex);
  started->mSignaled = true;
  pthread_cond_broadcast(&started->mCondVar);
  pthread_mutex_unlock(&started->mMutex);
  // From here on the record and the start signal belong to start again.

  if (self->run() == -2) pthread_exit(nullptr);  // The object is gone: touch nothing.

  MutexGuard guard(self->mMutex);
  threadCleanup(self);
  return nullptr;
}

// Its callers hold the object's mMutex, which the analysis cannot see
// through the untyped argument.
ZK3_NO_THREAD_SAFETY_ANALYSIS void AThread::threadCleanup(void* object) {
  AThread* self = static_cast<AThread*>(object);
  if (self == nullptr || !self->mRunning || self->mFinished == nullptr) return;
  PosixCondVar* finished = self->mFinished;
  pthread_mutex_lock(&finished->mMutex);
  finished->mSignaled = true;
  pthread_cond_broadcast(&finished->mCondVar);
  pthread_mutex_unlock(&finished->mMutex);
  sched_yield();
  // Not only until the joiners that hold the pair's mutex let go, but until
  // every woken joiner has left join: the object may be destroyed right after.
  for (;;) {
    if (pthread_mutex_trylock(&finished->mMutex) == 0) {
      const bool joinersLeft = self->mJoiners == 0;
      pthread_mutex_unlock(&finished->mMutex);
      if (joinersLeft) break;
    }
    sched_yield();
  }
  self->mRunning = false;
}

bool AThread::join(unsigned long timeoutMs) {
  // Locked by hand: once the pair's mutex is given back at the end, the
  // object may already be destroyed, so nothing of it is touched after that.
  mMutex.lock();
  PosixCondVar* finished = mFinished;
  if (finished == nullptr) {
    mMutex.unlock();
    return false;
  }
  pthread_mutex_lock(&finished->mMutex);
  if (!isRunning() || mHandle.isCurrentThread()) {
    pthread_mutex_unlock(&finished->mMutex);
    mMutex.unlock();
    return true;
  }
  ++mJoiners;
  mMutex.unlock();  // Keeps the pair's mutex; the wait gives that up.

  const bool ended = detail::Deadline(timeoutMs).waitUntil(
      &finished->mCondVar, &finished->mMutex, [finished] { return finished->mSignaled; });
  --mJoiners;
  pthread_mutex_unlock(&finished->mMutex);
  return ended;
}

void AThread::requestStop() { mStopRequested.store(true); }

bool AThread::isStopRequested() const { return mStopRequested.load(); }

void AThread::setKeepAlive(bool keepAlive) { mKeepAlive.store(keepAlive); }

bool AThread::isKeepAlive() { return mKeepAlive.load(); }

const ThreadHandle* AThread::getHandle() const { return &mHandle; }

unsigned long AThread::lastThreadId() const {
  // Under the lock: a start on another thread may be writing it.
  MutexGuard guard(mMutex);
  return mHandle.mHandle;
}

AThread::PriorityLevel AThread::getPriority() const {
  // An object that never ran has no thread to ask: identifier 0 is not one.
  const unsigned long id = lastThreadId();
  if (id == 0) return PriorityUnknown;
  int policy = 0;
  sched_param param;
  if (pthread_getschedparam(toPthread(id), &policy, &param) != 0) {
    return PriorityUnknown;
  }
  const int min = sched_get_priority_min(policy);
  const int max = sched_get_priority_max(policy);
  const int priority = param.sched_priority;
  if (priority == mDefaultPriority) return PriorityDefault;
  if (priority == min) return PriorityLow;
  if (priority == max) return PriorityHigh;
  if (priority == (min + max) / 2) return PriorityMedium;
  return PriorityOther;
}

bool AThread::setPriority(PriorityLevel level) {
  const unsigned long id = lastThreadId();
  if (id == 0) return false;
  int policy = 0;
  sched_param param;
  if (pthread_getschedparam(toPthread(id), &policy, &param) != 0) return false;
  const int min = sched_get_priority_min(policy);
  const int max = sched_get_priority_max(policy);
  switch (level) {
    case PriorityLow: param.sched_priority = min; break;
    case PriorityMedium: param.sched_priority = (min + max) / 2; break;
    case PriorityHigh: param.sched_priority = max; break;
    case PriorityDefault:
      if (mDefaultPriority == -1) return false;
      param.sched_priority = mDefaultPriority;
      break;
    default: return false;
  }
  return pthread_setschedparam(toPthread(id), policy, &param) == 0;
}

}  // namespace zelkit3
