// UnixSharedRWLock: finding, making, counting and removing the semaphore set
// of a lock file. Everything here runs under an exclusive flock on the file.
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <sstream>

#include "rwlock/semaphore_ops.h"
#include "zelkit3/rwlock.h"

namespace zelkit3 {

unsigned short gReadersCount = 10000;
unsigned short gWritersCount = 1;

namespace {

using detail::SemArg;
using detail::semOp;

// ftok project identifier of every lock file.
constexpr int kProjectId = 0x43;
// How long the exclusive flock is tried before giving up, in milliseconds.
constexpr unsigned long kFlockSpinMs = 100;

[[noreturn]] void throwWithCode(const char* text, int code) {
  std::ostringstream message;
  message << text << code;
  throw RWLockException(message.str(), code);
}

[[noreturn]] void throwPlain(const char* text, int code) {
  std::ostringstream message;
  message << text << code;
  throw std::runtime_error(message.str());
}

// Holds the exclusive flock on a lock file and owns its descriptor. The
// constructor spins (no sleep) for at most 100 ms on a busy file; on failure
// it closes the descriptor itself and throws code errno (11 when busy).
class LockFileGuard {
 public:
  explicit LockFileGuard(int fd) : mFd(fd) {
    const timespec deadline = getTimeout(kFlockSpinMs);
    for (;;) {
      if (flock(mFd, LOCK_EX | LOCK_NB) == 0) return;
      const int error = errno;
      if (error != EAGAIN || isTimeoutExpired(deadline)) {
        close(mFd);
        UnixSharedRWLock::throwException(error);
      }
    }
  }
  ~LockFileGuard() {
    flock(mFd, LOCK_UN | LOCK_NB);
    close(mFd);
  }
  LockFileGuard(const LockFileGuard&) = delete;
  LockFileGuard& operator=(const LockFileGuard&) = delete;

 private:
  int mFd;
};

}  // namespace

UnixSharedRWLock::UnixSharedRWLock(const char* lockFileName) : mLockFileName(), mSemId(-1) {
  init(lockFileName);
}

UnixSharedRWLock::~UnixSharedRWLock() {
  try {
    const int fd = open(mLockFileName.c_str(), O_RDWR | O_CREAT, 0660);
    if (fd == -1) return;  // The count stays; SEM_UNDO lowers it at exit.
    LockFileGuard guard(fd);
    if (isLastProcess()) {
      deleteSemathore();
    } else {
      sembuf leave = semOp(detail::kUserCount, -1, SEM_UNDO | IPC_NOWAIT);
      semop(mSemId, &leave, 1);
    }
  } catch (const std::runtime_error&) {
    // A busy lock file: leave the set and the count to the kernel's undo.
  }
}

void UnixSharedRWLock::init(const char* lockFileName) {
  if (lockFileName == nullptr) throw std::runtime_error("The Lock file name is empty");
  mLockFileName = lockFileName;
  const int fd = open(lockFileName, O_RDWR | O_CREAT, 0660);
  if (fd == -1) {
    const int error = errno;
    std::ostringstream message;
    message << "Could not create/open file " << mLockFileName
            << " for ftok function call, errno = " << error;
    throw RWLockException(message.str(), error);
  }
  const key_t key = ftok(lockFileName, kProjectId);
  if (key == -1) {
    const int error = errno;
    close(fd);
    throwWithCode("Getting file identifier failed, errno = ", error);
  }
  LockFileGuard guard(fd);
  if (!createSemathore(key)) openSemathore(key);
  tryUseSemaphore();
}

bool UnixSharedRWLock::createSemathore(int key) {
  const int id = semget(key, 3, IPC_CREAT | IPC_EXCL | 0666);
  if (id == -1) {
    if (errno == EEXIST) return false;
    throwWithCode("Semaphore create/open failed, errno = ", errno);
  }
  initSemathoreSet(id);
  mSemId = id;
  return true;
}

void UnixSharedRWLock::openSemathore(int key) {
  const int id = semget(key, 3, 0666);
  if (id == -1) throwPlain("Open semaphore set failed errno = ", errno);
  semid_ds ds;
  SemArg arg;
  arg.buf = &ds;
  if (semctl(id, 0, IPC_STAT, arg) == -1) throwWithCode("Validate semaphor failed errno = ", errno);
  if (ds.sem_nsems != 3) {
    throw std::runtime_error("Semaphor open failed. Semaphor set is not initialized properly.");
  }
  // No semop ever ran on the set: its creator stopped before the ready mark.
  // The flock held here excludes a creator that is still at work.
  if (ds.sem_otime == 0) initSemathoreSet(id);
  mSemId = id;
}

void UnixSharedRWLock::initSemathoreSet(int semId) {
  unsigned short values[3] = {gWritersCount, gReadersCount, 1};
  SemArg arg;
  arg.array = values;
  if (semctl(semId, 0, SETALL, arg) == -1)
    throwWithCode("Initialize semathor failed errno = ", errno);
  // The ready mark: the first semop sets sem_otime, which openers look at.
  // No SEM_UNDO, so it is never reversed.
  sembuf mark = semOp(detail::kUserCount, -1, IPC_NOWAIT);
  if (semop(semId, &mark, 1) == -1 && errno != EAGAIN) {
    throwWithCode("Initialize semaphor failed errno = ", errno);
  }
}

void UnixSharedRWLock::tryUseSemaphore() {
  sembuf use = semOp(detail::kUserCount, +1, getSemFlags(false));
  if (semop(mSemId, &use, 1) == -1)
    throwWithCode("The trying to use semaphor is failed, errno = ", errno);
}

bool UnixSharedRWLock::isLastProcess() {
  if (mSemId == -1) return false;
  const int users = semctl(mSemId, detail::kUserCount, GETVAL);
  if (users == -1) return false;
  return users <= 1;
}

void UnixSharedRWLock::deleteSemathore() {
  if (mSemId == -1) return;
  semctl(mSemId, 0, IPC_RMID, 0);
}

void UnixSharedRWLock::throwException(int code) {
  std::ostringstream message;
  message << "operation failed errno = " << code << '\n';
  throw RWLockException(message.str(), code);
}

}  // namespace zelkit3
