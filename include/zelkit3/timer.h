// zelkit3/timer.h - periodic callbacks on one shared timer thread.
//
// All timers of a process share one thread, which exists only while at least
// one timer is set: the first setTimer creates it, the killTimer of the last
// timer ends it. The thread polls at an interval derived from the periods
// (each setTimer at least halves it) and fires every timer whose period has
// run out, in the order of their ids, all with the same "now". A period is a
// lower bound on the time between two callbacks; missed periods are not made
// up.
//
// Thread-safety: setTimer and killTimer may be called from any thread, and
// from inside a callback (the manager's lock is recursive), including
// killTimer of the calling timer itself. Callbacks run one after the other on
// the timer thread with the manager's lock held, so a killTimer that has
// returned on another thread guarantees that the timer's callback neither
// runs nor will run again.
//
// Lifetime: a callback object must stay valid until its timer is killed. All
// timers must be killed before the library is unloaded.
#ifndef ZELKIT3_TIMER_H
#define ZELKIT3_TIMER_H

#include <pthread.h>
#include <stdint.h>

#include <map>

#include "zelkit3/export.h"
#include "zelkit3/mutex.h"

namespace zelkit3 {

namespace detail {
struct TimerTestAccess;
}

// Implemented by the caller.
class IThreadTimerManagerCallback {
 public:
  // Timer id has fired. Runs on the timer thread with the manager's lock
  // held; should return soon, since it delays every other timer. An
  // exception that leaves it is swallowed and the timer stays set.
  virtual void onTimer(unsigned long id) = 0;

 protected:
  ~IThreadTimerManagerCallback() {}
};

// The public face: forwards to CThreadTimerManagerImpl.
class ZK3_API CThreadTimerManager {
 public:
  // See CThreadTimerManagerImpl::setTimer and killTimer.
  static unsigned long setTimer(IThreadTimerManagerCallback* callback, int period);
  static void killTimer(unsigned long id);
};

class ZK3_API CThreadTimerManagerImpl {
 public:
  struct _TimerDesc {
    int period;
    uint32_t lastTick;
    IThreadTimerManagerCallback* callback;
  };

  // Starts no thread.
  CThreadTimerManagerImpl();
  // Leaves the descriptors of timers still set; waits only for a timer
  // thread that has already ended itself.
  ~CThreadTimerManagerImpl();

  // Sets a periodic timer of period milliseconds (should be positive) and
  // returns its id, never 0. The first firing comes only after more than one
  // period. Returns 0, and sets nothing, if the timer thread can't be created.
  static unsigned long setTimer(IThreadTimerManagerCallback* callback, int period);
  // Removes a timer; an unknown id is harmless. Killing the last timer ends
  // the thread: from another thread this returns after the thread has ended;
  // from inside a callback the thread ends when the present pass is over.
  static void killTimer(unsigned long id);
  // The timer thread's entry routine; works on c_inst, ignores its argument.
  static void* threadTimer(void* unused);

  static CThreadTimerManagerImpl c_inst;

 private:
  CThreadTimerManagerImpl(const CThreadTimerManagerImpl&);
  CThreadTimerManagerImpl& operator=(const CThreadTimerManagerImpl&);
  friend struct detail::TimerTestAccess;

  std::map<unsigned long, _TimerDesc*> mTimers ZK3_GUARDED_BY(mMutex);
  pthread_t* mThread ZK3_GUARDED_BY(mMutex);
  void* mStopEvent ZK3_GUARDED_BY(mMutex);
  Mutex mMutex;
  void* mChangedEvent ZK3_GUARDED_BY(mMutex);
  int mInterval ZK3_GUARDED_BY(mMutex);
  // The last timer was killed from its own callback: the thread ends itself
  // after the present pass unless a new timer comes first.
  bool mSelfStop ZK3_GUARDED_BY(mMutex);
  // A thread that ended itself and still has to be joined.
  pthread_t* mEndedThread ZK3_GUARDED_BY(mMutex);
};

}  // namespace zelkit3

#endif  // ZELKIT3_TIMER_H
