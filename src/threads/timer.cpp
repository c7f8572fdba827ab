#include "zelkit3/timer.h"

#include <cxxabi.h>

#include <memory>

#include "base/init_order.h"
#include "base/mutex_guard.h"
#include "threads/thread_create.h"
#include "threads/timer_interval.h"
#include "zelkit3/win_emul.h"

namespace zelkit3 {

using detail::MutexGuard;
using win_emul::CloseHandle;
using win_emul::CreateEventW;
using win_emul::GetTickCount;
using win_emul::SetEvent;
using win_emul::WaitForMultipleObjects;

CThreadTimerManagerImpl CThreadTimerManagerImpl::c_inst ZK3_INIT_PRIORITY(ZK3_INIT_TIMER_MANAGER);

namespace {

void* newAutoResetEvent() { return CreateEventW(nullptr, 0, 0, nullptr); }

// A negative interval (from a negative period) polls at once instead of
// turning into an almost endless unsigned wait.
unsigned long waitTime(int interval) {
  return interval < 0 ? 0UL : static_cast<unsigned long>(interval);
}

bool isThread(const pthread_t* thread, pthread_t self) {
  return thread != nullptr && pthread_equal(*thread, self) != 0;
}

}  // namespace

// ---- CThreadTimerManager -----------------------------------------------------

unsigned long CThreadTimerManager::setTimer(IThreadTimerManagerCallback* callback, int period) {
  return CThreadTimerManagerImpl::setTimer(callback, period);
}

void CThreadTimerManager::killTimer(unsigned long id) { CThreadTimerManagerImpl::killTimer(id); }

// ---- CThreadTimerManagerImpl -------------------------------------------------

CThreadTimerManagerImpl::CThreadTimerManagerImpl()
    : mThread(nullptr),
      mStopEvent(nullptr),
      mChangedEvent(nullptr),
      mInterval(0),
      mSelfStop(false),
      mEndedThread(nullptr) {}

CThreadTimerManagerImpl::~CThreadTimerManagerImpl() {
  // A thread that ended itself has nothing left to do but return; joining it
  // keeps it from running library code after the library is gone.
  if (mEndedThread != nullptr) {
    pthread_join(*mEndedThread, nullptr);
    delete mEndedThread;
    mEndedThread = nullptr;
  }
}

unsigned long CThreadTimerManagerImpl::setTimer(IThreadTimerManagerCallback* callback, int period) {
  CThreadTimerManagerImpl& m = c_inst;
  MutexGuard guard(m.mMutex);
  std::unique_ptr<_TimerDesc> desc(new _TimerDesc());
  desc->period = period;
  desc->callback = callback;

  if (m.mThread == nullptr) {
    if (m.mEndedThread != nullptr) {
      // It released the lock for the last time before we got it.
      pthread_join(*m.mEndedThread, nullptr);
      delete m.mEndedThread;
      m.mEndedThread = nullptr;
    }
    std::unique_ptr<pthread_t> thread(new pthread_t());
    m.mStopEvent = newAutoResetEvent();
    m.mInterval = period / 2;
    m.mChangedEvent = newAutoResetEvent();
    if (detail::createThread(thread.get(), nullptr, &threadTimer, nullptr) != 0) {
      // No thread, no timer: 0 tells the caller, and the next setTimer tries
      // again from a clean state.
      CloseHandle(m.mStopEvent);
      CloseHandle(m.mChangedEvent);
      m.mStopEvent = nullptr;
      m.mChangedEvent = nullptr;
      return 0;
    }
    m.mThread = thread.release();
  } else if (m.mSelfStop) {
    // A callback killed the last timer and now sets a new one: the thread
    // stays, with new events, and starts over as for a first timer.
    m.mSelfStop = false;
    m.mStopEvent = newAutoResetEvent();
    m.mInterval = period / 2;
    m.mChangedEvent = newAutoResetEvent();
  }

  desc->lastTick = static_cast<uint32_t>(GetTickCount());
  const unsigned long id = reinterpret_cast<unsigned long>(desc.get());
  m.mTimers[id] = desc.get();
  desc.release();  // NOLINT(bugprone-unused-return-value): the map owns it now
  m.mInterval = detail::nextTimerInterval(m.mInterval, period);
  SetEvent(m.mChangedEvent);
  return id;
}

void CThreadTimerManagerImpl::killTimer(unsigned long id) {
  CThreadTimerManagerImpl& m = c_inst;
  pthread_t* thread;
  void* stopEvent;
  void* changedEvent;
  {
    MutexGuard guard(m.mMutex);
    std::map<unsigned long, _TimerDesc*>::iterator it = m.mTimers.find(id);
    if (it != m.mTimers.end()) {
      delete it->second;
      m.mTimers.erase(it);
    }
    if (!m.mTimers.empty()) {
      int smallest = m.mTimers.begin()->second->period;
      for (it = m.mTimers.begin(); it != m.mTimers.end(); ++it) {
        if (it->second->period < smallest) smallest = it->second->period;
      }
      m.mInterval = smallest / 2;
      return;
    }
    if (m.mThread == nullptr || m.mSelfStop) return;

    if (isThread(m.mThread, pthread_self())) {
      // The last timer, killed from a callback: the thread can't join itself.
      // It ends after the present pass; the events go now, while the thread
      // is not waiting on them.
      m.mSelfStop = true;
      CloseHandle(m.mStopEvent);
      CloseHandle(m.mChangedEvent);
      m.mStopEvent = nullptr;
      m.mChangedEvent = nullptr;
      return;
    }
    // Detached from the manager under the lock, so that a setTimer that
    // comes during the teardown below makes a thread of its own.
    thread = m.mThread;
    stopEvent = m.mStopEvent;
    changedEvent = m.mChangedEvent;
    m.mThread = nullptr;
    m.mStopEvent = nullptr;
    m.mChangedEvent = nullptr;
  }
  SetEvent(stopEvent);
  pthread_join(*thread, nullptr);
  delete thread;
  CloseHandle(stopEvent);
  CloseHandle(changedEvent);
}

void* CThreadTimerManagerImpl::threadTimer(void*) {
  CThreadTimerManagerImpl& m = c_inst;
  const pthread_t self = pthread_self();
  void* handles[2];
  unsigned long wait;
  {
    // setTimer is still inside its section when this thread starts; by the
    // time the lock comes, a killTimer may already have taken the thread out.
    MutexGuard guard(m.mMutex);
    if (!isThread(m.mThread, self)) return nullptr;
    handles[0] = m.mStopEvent;
    handles[1] = m.mChangedEvent;
    wait = waitTime(m.mInterval);
  }
  for (;;) {
    if (WaitForMultipleObjects(2, handles, 0, wait) == WAIT_OBJECT_0) return nullptr;

    MutexGuard guard(m.mMutex);
    // A killTimer on another thread has taken this thread out of the manager
    // and is joining it.
    if (!isThread(m.mThread, self)) return nullptr;

    const uint32_t now = static_cast<uint32_t>(GetTickCount());
    // Walks by key, not by iterator: a callback may kill any timer, its own
    // included, or set new ones.
    std::map<unsigned long, _TimerDesc*>::iterator it = m.mTimers.begin();
    while (it != m.mTimers.end()) {
      const unsigned long id = it->first;
      _TimerDesc* desc = it->second;
      const int32_t elapsed = static_cast<int32_t>(now - desc->lastTick);
      if (elapsed > desc->period) {
        desc->lastTick = now;
        try {
          desc->callback->onTimer(id);
        } catch (abi::__forced_unwind&) {
          throw;
        } catch (...) {
          // Swallowed: the thread and the other timers go on.
        }
      }
      it = m.mTimers.upper_bound(id);
    }

    if (m.mSelfStop) {
      m.mSelfStop = false;
      m.mEndedThread = m.mThread;
      m.mThread = nullptr;
      return nullptr;
    }
    handles[0] = m.mStopEvent;
    handles[1] = m.mChangedEvent;
    wait = waitTime(m.mInterval);
  }
}

}  // namespace zelkit3
