// Internal pieces shared by the set-up and the locking code of
// UnixSharedRWLock. Never installed.
#ifndef ZELKIT3_SRC_RWLOCK_SEMAPHORE_OPS_H
#define ZELKIT3_SRC_RWLOCK_SEMAPHORE_OPS_H

#include <sys/ipc.h>
#include <sys/sem.h>

namespace zelkit3 {
namespace detail {

// Indices of the three semaphores of a set.
enum : unsigned short { kWriterGate = 0, kReaderSlots = 1, kUserCount = 2 };

// SEM_UNDO | IPC_NOWAIT: for steps that never wait.
constexpr short kFixedFlags = SEM_UNDO | IPC_NOWAIT;

// glibc leaves the semctl argument union to the caller.
union SemArg {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

inline sembuf semOp(unsigned short num, int op, int flags) {
  sembuf b;
  b.sem_num = num;
  b.sem_op = static_cast<short>(op);
  b.sem_flg = static_cast<short>(flags);
  return b;
}

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_RWLOCK_SEMAPHORE_OPS_H
