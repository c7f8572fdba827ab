// UnixSharedRWLock: the six locking operations on semaphores 0 (writer gate)
// and 1 (reader slots). Every step carries SEM_UNDO, so the kernel reverses a
// dead process's net hold. No mutex: the semaphores are the only state.
#include <errno.h>
#include <unistd.h>

#include "base/deadline.h"
#include "base/init_order.h"
#include "rwlock/semaphore_ops.h"
#include "zelkit3/rwlock.h"

namespace zelkit3 {
namespace {

using detail::kFixedFlags;
using detail::kReaderSlots;
using detail::kWriterGate;
using detail::semOp;

// The steps that depend on the reader capacity, fixed from gReadersCount once
// at load (a later write to it does not change them).
int gLockWriteOp;
int gFreeWriteOp;
int gUpgradeToWriteOp;
int gUpgradeToReadOp;

struct SemaphoreSteps {
  SemaphoreSteps() {
    const int readers = gReadersCount;
    gLockWriteOp = -readers;
    gFreeWriteOp = readers;
    gUpgradeToWriteOp = 1 - readers;
    gUpgradeToReadOp = readers - 1;
  }
};
SemaphoreSteps gSemaphoreSteps ZK3_INIT_PRIORITY(ZK3_INIT_SEMAPHORE_STEPS);

enum class Step { kDone, kTimedOut, kFailed };

// The deadline of a limited wait is the exported getTimeout's: gettimeofday,
// 32-bit arithmetic, the same for i386 and x86_64 callers.
//
// One step of a wait: an unlimited wait blocks in semop; a limited one tries,
// then looks at the deadline, then sleeps 10 us and tries again. On kFailed
// errno holds the cause.
Step waitStep(int semId, sembuf* ops, size_t count, const timespec& deadline) {
  for (;;) {
    if (semop(semId, ops, count) == 0) return Step::kDone;
    if (errno != EAGAIN) return Step::kFailed;
    if (isTimeoutExpired(deadline)) return Step::kTimedOut;
    usleep(10);
  }
}

// The two stages of taking the write lock: the writer gate, then `slotOp` on
// the reader slots within the same deadline. A failed or timed-out second
// stage gives the gate back. True when both stages are done.
bool takeGateThenSlots(int semId, int slotOp, unsigned long timeout, void (*fail)(int)) {
  const int flags = getSemFlags(detail::isInfinite(timeout));
  const timespec deadline = getTimeout(timeout);
  sembuf gate = semOp(kWriterGate, -1, flags);
  Step step = waitStep(semId, &gate, 1, deadline);
  if (step == Step::kFailed) fail(errno);
  if (step == Step::kTimedOut) return false;
  sembuf slots = semOp(kReaderSlots, slotOp, flags);
  step = waitStep(semId, &slots, 1, deadline);
  if (step == Step::kDone) return true;
  const int error = errno;
  sembuf giveBack = semOp(kWriterGate, +1, flags);
  semop(semId, &giveBack, 1);
  if (step == Step::kFailed) fail(error);
  return false;
}

}  // namespace

bool UnixSharedRWLock::lockRead(unsigned long timeout) {
  const int flags = getSemFlags(detail::isInfinite(timeout));
  const timespec deadline = getTimeout(timeout);
  // Gate and slot in one atomic step: no reader passes a writer at the gate.
  sembuf take[2] = {semOp(kWriterGate, -1, flags), semOp(kReaderSlots, -1, flags)};
  const Step step = waitStep(mSemId, take, 2, deadline);
  if (step == Step::kFailed) throwException(errno);
  if (step == Step::kTimedOut) return false;
  sembuf giveBack = semOp(kWriterGate, +1, kFixedFlags);
  semop(mSemId, &giveBack, 1);
  return true;
}

void UnixSharedRWLock::freeRead() {
  sembuf release = semOp(kReaderSlots, +1, kFixedFlags);
  if (semop(mSemId, &release, 1) == -1) throwException(errno);
}

bool UnixSharedRWLock::lockWrite(unsigned long timeout) {
  return takeGateThenSlots(mSemId, gLockWriteOp, timeout, &throwException);
}

void UnixSharedRWLock::freeWrite() {
  sembuf release[2] = {semOp(kReaderSlots, gFreeWriteOp, kFixedFlags),
                       semOp(kWriterGate, +1, kFixedFlags)};
  if (semop(mSemId, release, 2) == -1) throwException(errno);
}

bool UnixSharedRWLock::upgradeToLockRead(unsigned long timeout) {
  const int flags = getSemFlags(detail::isInfinite(timeout));
  const int gate = semctl(mSemId, kWriterGate, GETVAL);
  const int slots = semctl(mSemId, kReaderSlots, GETVAL);
  if (gate != 0 || slots != 0) return false;
  // Keeps one slot and gives the gate back atomically: no writer can get in
  // between the write hold and the read hold.
  sembuf change[2] = {semOp(kReaderSlots, gUpgradeToReadOp, flags), semOp(kWriterGate, +1, flags)};
  if (semop(mSemId, change, 2) == -1) throwException(errno);
  return true;
}

bool UnixSharedRWLock::upgradeToLockWrite(unsigned long timeout) {
  const int slotsNow = semctl(mSemId, kReaderSlots, GETVAL);
  if (slotsNow == -1 || slotsNow >= static_cast<int>(gReadersCount)) return false;
  // Needs every slot but the caller's own.
  return takeGateThenSlots(mSemId, gUpgradeToWriteOp, timeout, &throwException);
}

}  // namespace zelkit3
