// zelkit3/rwlock.h - a read-write lock shared by the processes of one machine.
//
// A lock is named by a file path: every object built on the same path, in any
// process, works on one System V semaphore set (3 semaphores: writer gate,
// reader slots, user count). Every operation carries SEM_UNDO, so the kernel
// takes back whatever a process held when it dies, even by SIGKILL. Making,
// attaching to and removing the set is serialised by an exclusive flock on the
// lock file. The lock file is created on first use and never deleted.
//
// Thread-safety: once constructed, an object may be used from any thread; the
// destructor must not run while another thread uses it. There is no owner:
// a hold is a change of the semaphore values, so callers must free only what
// they hold, in the process that took it.
//
// Lifetime: the set lives until the destructor of its last user removes it.
// A set whose users all died stays in the kernel and is taken over by the next
// user of the same lock file.
//
// UnixSharedRWLock reports failures by RWLockException (or std::runtime_error
// for a few set-up failures) and a time-out by false; sharedrwlock turns all
// of that into result codes and never throws.
#ifndef ZELKIT3_RWLOCK_H
#define ZELKIT3_RWLOCK_H

#include <time.h>

#include <stdexcept>
#include <string>

#include "zelkit3/export.h"

namespace zelkit3 {

// Capacities written into every new semaphore set: the writer gate starts at
// gWritersCount (1), the reader slots at gReadersCount (10000). The library
// reads gReadersCount once at load to derive its semaphore steps, so every
// process using a lock file must agree on it and never change it afterwards.
ZK3_API extern unsigned short gReadersCount;
ZK3_API extern unsigned short gWritersCount;

// The exception of the lock: a message and the errno value it came with.
class ZK3_API RWLockException : public std::runtime_error {
 public:
  // Keeps `message` for what() and `errorCode` for getErrorCode().
  RWLockException(const std::string& message, int errorCode);
  virtual ~RWLockException() noexcept;
  // The errno value given to the constructor.
  int getErrorCode() const;

 private:
  int mErrorCode;
};

// The deadline `milliseconds` from now on the gettimeofday clock. The sum of
// the current microseconds and the time-out is computed in 32 bits on every
// ABI, so time-outs are exact up to 4,293,967 ms; larger ones wrap to an
// earlier deadline. Never throws.
ZK3_API timespec getTimeout(unsigned long milliseconds);

// True once the gettimeofday clock is past `deadline` (a deadline equal to the
// current microsecond has not expired), or when the clock cannot be read.
ZK3_API bool isTimeoutExpired(timespec deadline);

// Flags for a semaphore step: SEM_UNDO for an unlimited wait (blocks in the
// kernel), SEM_UNDO | IPC_NOWAIT for a limited one (polled).
ZK3_API int getSemFlags(bool infinite);

// The lock itself. Time-outs are milliseconds; (unsigned long)-1 and
// 0xFFFFFFFF (on x86_64 also every value above it) mean no limit and block in
// the kernel. A limited wait polls every 10 microseconds; keep it below
// 4,293,967 ms (see getTimeout).
class ZK3_API UnixSharedRWLock {
 public:
  // Opens or creates the lock file, then finds, makes or repairs the set and
  // counts this object as a user. Throws std::runtime_error for a null name
  // and for a set with the wrong number of semaphores, RWLockException for
  // the other failures (a flock busy for 100 ms gives code 11). May block for
  // up to 100 ms on a busy lock file.
  explicit UnixSharedRWLock(const char* lockFileName);
  // Stops counting this object; the last user removes the set. Never throws
  // and releases no hold of the caller. If the lock file cannot be locked
  // within 100 ms nothing changes until the process exits.
  ~UnixSharedRWLock();

  // Takes one read slot. True when held, false when `timeout` ran out first.
  // A writer at the gate keeps new readers out. Throws RWLockException.
  bool lockRead(unsigned long timeout);
  // Gives one read slot back. Throws RWLockException.
  void freeRead();
  // Takes the gate, then waits for the readers that are in to leave; the
  // time-out bounds both stages together. False on time-out, with nothing
  // held. Not reentrant. Throws RWLockException.
  bool lockWrite(unsigned long timeout);
  // Ends a write hold. Throws RWLockException.
  void freeWrite();
  // Turns the caller's write hold into a read hold in one atomic step.
  // False, with nothing changed, when no write lock is in force.
  bool upgradeToLockRead(unsigned long timeout);
  // Turns the caller's read hold into the write hold. False when no read lock
  // is in force or the time-out ran out; the read hold is then kept. Two
  // upgraders meeting each other wait until one of them times out.
  bool upgradeToLockWrite(unsigned long timeout);

  // Builds the RWLockException "operation failed errno = <code>\n".
  static void throwException(int code);

 protected:
  // The set-up steps of the constructor and destructor, reachable by derived
  // classes (and tests) only: calling them on a working object would break
  // its user count.
  void init(const char* lockFileName);
  bool createSemathore(int key);
  void openSemathore(int key);
  void initSemathoreSet(int semId);
  void tryUseSemaphore();
  bool isLastProcess();
  void deleteSemathore();

 private:
  // Not copyable: each object counts once in the set's user count.
  UnixSharedRWLock(const UnixSharedRWLock&) = delete;
  UnixSharedRWLock& operator=(const UnixSharedRWLock&) = delete;

  std::string mLockFileName;
  int mSemId;
};

// The facade of the lock: no exceptions cross it. The six locking operations
// return 0 when done, 1 when not done (time-out, or no state to upgrade from)
// and 2 when they failed or init has not succeeded. Call init until it returns
// true, before other threads use the object; then the locking operations may
// be called from any thread. Not copyable: it owns its lock alone.
class ZK3_API sharedrwlock {
 public:
  // Touches no file or semaphore.
  sharedrwlock();
  // Destroys the lock, if init succeeded (see ~UnixSharedRWLock).
  ~sharedrwlock();

  // Attaches to the lock named by `lockFileName`. False if already attached
  // (nothing written, lock kept) or on failure; then, if errorBufferSize > 0,
  // the message is copied into errorBuffer, cut to fit and terminated.
  bool init(const char* lockFileName, char* errorBuffer, int errorBufferSize);
  // As above, without a text.
  bool init(const char* lockFileName);

  int lockRead(unsigned long timeout);
  int freeRead();
  int upgradeToLockRead(unsigned long timeout);
  int lockWrite(unsigned long timeout);
  int freeWrite();
  int upgradeToLockWrite(unsigned long timeout);

 private:
  sharedrwlock(const sharedrwlock&) = delete;
  sharedrwlock& operator=(const sharedrwlock&) = delete;

  UnixSharedRWLock* mImpl;
};

}  // namespace zelkit3

#endif  // ZELKIT3_RWLOCK_H
