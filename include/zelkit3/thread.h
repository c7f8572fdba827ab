// zelkit3/thread.h - the thread object and the thread identifier.
//
// AThread is the abstract base of every thread object: a derived class
// supplies run(), start() runs it on one detached POSIX thread, and join()
// waits for the end of that thread with a time-out in milliseconds. An object
// may be started again after its thread has ended. ThreadHandle is a value
// wrapper of a pthread_t.
//
// Thread-safety: start, join, isRunning and the accessors may be called from
// any thread at once. requestStop/isStopRequested and setKeepAlive/isKeepAlive
// are lock-free flags.
//
// Lifetime: the object must outlive its thread's use of it. The destructor of
// a running object without keep-alive releases every joiner, waits until they
// have left, and cancels the thread; a derived class must make its run leave
// the object before the derived destructors run. With keep-alive the thread
// outlives its object, must end with run returning -2, and nobody may be
// waiting in join when the object is destroyed.
#ifndef ZELKIT3_THREAD_H
#define ZELKIT3_THREAD_H

#include <atomic>

#include "zelkit3/export.h"
#include "zelkit3/mutex.h"

// The time-out that never expires, as in zelkit3/win_emul.h.
#ifndef INFINITE
#define INFINITE 0xFFFFFFFFUL
#endif

namespace zelkit3 {

class AThread;

class ZK3_API ThreadHandle {
 public:
  // Holds the calling thread.
  ThreadHandle();
  // Holds the given identifier; 0 means no thread.
  explicit ThreadHandle(unsigned long handle);
  ~ThreadHandle();

  // A new heap object for the calling thread; give it back with release().
  static ThreadHandle* getCurrentThread();
  // Destroys and frees this heap object.
  void release();

  // pthread_self() of the caller, whatever this object holds.
  unsigned long getCurrentThreadHandle() const;
  unsigned long getHandle() const;
  void setHandle(unsigned long handle);
  // Whether this object holds the calling thread.
  bool isCurrentThread() const;
  // False for null; otherwise whether both hold the same identifier.
  bool equals(const ThreadHandle* other) const;
  bool equals(const AThread* thread) const;

  unsigned long mHandle;
};

class ZK3_API AThread {
 public:
  enum PriorityLevel {
    PriorityOther = -1,
    PriorityUnknown = 0,
    PriorityLow = 1,
    PriorityMedium = 2,
    PriorityHigh = 3,
    PriorityDefault = 4
  };

  // Starts no thread; remembers the constructing thread's priority as the
  // default one.
  AThread();
  virtual ~AThread();

  // The thread's work. Return -2 only if this object no longer exists when
  // run returns; any other value is an ordinary end.
  virtual int run() = 0;

  // Makes a thread that calls run(), unless one runs already. Blocks until
  // the new thread has entered its entry routine. True if a thread runs when
  // it returns; false if the thread could not be created (nothing changed).
  bool start();
  // Waits up to timeoutMs (INFINITE, and on x86_64 every value above it: no
  // limit; 0: poll) for the thread to end. True if it has ended, never ran,
  // or is the caller itself; false on time-out. Must not be called from a
  // derived destructor's thread while the object is being destroyed.
  bool join(unsigned long timeoutMs);
  // Whether the thread was started, has not been cleaned up, and still exists.
  bool isRunning() const;

  // Sets a flag that run has to poll; nothing clears it, start included.
  void requestStop();
  bool isStopRequested() const;
  // With keep-alive the destructor leaves a running thread alone.
  void setKeepAlive(bool keepAlive);
  bool isKeepAlive();

  // The identifier of the last thread started (0 before the first start).
  const ThreadHandle* getHandle() const;
  // The thread's priority as a level; PriorityUnknown if it can't be read,
  // also for an object that never ran.
  PriorityLevel getPriority() const;
  // Sets the priority for levels Low to Default, keeping the policy. False
  // for other levels, a never-started object or a refusal by the system.
  bool setPriority(PriorityLevel level);

  // The entry routine given to pthread_create.
  static void* threadRunner(void* startRecord);
  // End-of-thread work: wakes the joiners, waits until they have left,
  // clears the running flag. Call with the object's mutex held; a second call
  // does nothing.
  static void threadCleanup(void* thread);

 protected:
  std::atomic<bool> mStopRequested;
  ThreadHandle mHandle ZK3_GUARDED_BY(mMutex);
  mutable Mutex mMutex;
  int mDefaultPriority;
  bool mRunning ZK3_GUARDED_BY(mMutex);
  PosixCondVar* mFinished;
  std::atomic<bool> mKeepAlive;
  // Threads inside join's wait; guarded by mFinished's mutex. threadCleanup
  // waits for it to drop to 0, so that no woken joiner still touches the
  // pair when the object goes.
  int mJoiners;

 private:
  // mHandle's identifier, read under mMutex.
  __attribute__((visibility("hidden"))) unsigned long lastThreadId() const;

  AThread(const AThread&);
  AThread& operator=(const AThread&);
};

}  // namespace zelkit3

#endif  // ZELKIT3_THREAD_H
