// The exception of the cross-process lock and the deadlines of its waits.
#include <stdint.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/time.h>

#include "zelkit3/rwlock.h"

namespace zelkit3 {

RWLockException::RWLockException(const std::string& message, int errorCode)
    : std::runtime_error(message), mErrorCode(errorCode) {}

RWLockException::~RWLockException() noexcept {}

int RWLockException::getErrorCode() const { return mErrorCode; }

timespec getTimeout(unsigned long milliseconds) {
  timeval now;
  gettimeofday(&now, nullptr);
  // 32-bit arithmetic on both ABIs, so a lock behaves the same for i386 and
  // x86_64 callers: exact up to 4,293,967 ms, wrapping beyond.
  const uint32_t total =
      static_cast<uint32_t>(now.tv_usec) + static_cast<uint32_t>(milliseconds) * 1000u;
  timespec deadline;
  deadline.tv_sec = now.tv_sec + static_cast<time_t>(total / 1000000u);
  deadline.tv_nsec = static_cast<long>(total % 1000000u) * 1000L;
  return deadline;
}

bool isTimeoutExpired(timespec deadline) {
  timeval now;
  if (gettimeofday(&now, nullptr) != 0) return true;
  if (deadline.tv_sec < now.tv_sec) return true;
  if (deadline.tv_sec > now.tv_sec) return false;
  return static_cast<long>(now.tv_usec) * 1000L > deadline.tv_nsec;
}

int getSemFlags(bool infinite) { return infinite ? SEM_UNDO : (SEM_UNDO | IPC_NOWAIT); }

}  // namespace zelkit3
