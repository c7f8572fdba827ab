// Process-wide state of the event functions, shared with the load hooks.
// Internal: never installed.
#ifndef ZELKIT3_SRC_WIN_EMUL_EVENT_STATE_H
#define ZELKIT3_SRC_WIN_EMUL_EVENT_STATE_H

#include <pthread.h>

#include <set>

#include "zelkit3/lifecycle.h"

namespace zelkit3 {
namespace win_emul {

class CWinEventHandle;

// Recursive; the first lock of every event operation that takes it. Exists
// exactly while gEventLockMarker is non-null (from ZelKit3AtLoad to
// ZelKit3AtUnload).
extern pthread_mutex_t gEventLock;
extern char* gEventLockMarker;
// Every event made by CreateEventW until its last reference goes. Guarded by
// mAccessMutex; null while the library is down.
extern std::set<CWinEventHandle*>* gEventTable;

// Holds gEventLock for its scope.
class EventLockGuard {
 public:
  EventLockGuard() { pthread_mutex_lock(&gEventLock); }
  ~EventLockGuard() { pthread_mutex_unlock(&gEventLock); }
  EventLockGuard(const EventLockGuard&) = delete;
  EventLockGuard& operator=(const EventLockGuard&) = delete;
};

// Holds mAccessMutex for its scope, if it still exists. At process exit the
// runtime may destroy mAccessMutex before the unload hook runs; the hook then
// runs alone on the exiting thread and needs no lock.
class AccessGuard {
 public:
  AccessGuard();
  ~AccessGuard();
  AccessGuard(const AccessGuard&) = delete;
  AccessGuard& operator=(const AccessGuard&) = delete;

 private:
  bool mLocked;
};

}  // namespace win_emul
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_WIN_EMUL_EVENT_STATE_H
