#include "win_emul/event_state.h"

#include "frame/init_order.h"

namespace zelkit3 {
namespace win_emul {

pthread_mutex_t gEventLock;
char* gEventLockMarker = nullptr;
std::set<CWinEventHandle*>* gEventTable = nullptr;

namespace {

// True from the construction of mAccessMutex until its destructor has run.
// Constant-initialised, so it is valid before and after both.
bool gAccessMutexAlive = false;

// Built just before mAccessMutex, so that it is destroyed just after it.
struct AccessMutexLifetime {
  AccessMutexLifetime() { gAccessMutexAlive = true; }
  ~AccessMutexLifetime() { gAccessMutexAlive = false; }
};

AccessMutexLifetime gAccessMutexLifetime ZK3_INIT_PRIORITY(ZK3_INIT_ACCESS_MUTEX);

}  // namespace

AccessGuard::AccessGuard() : mLocked(gAccessMutexAlive) {
  if (mLocked) mAccessMutex.lock();
}

AccessGuard::~AccessGuard() {
  if (mLocked) mAccessMutex.unlock();
}

}  // namespace win_emul
}  // namespace zelkit3

zelkit3::Mutex mAccessMutex ZK3_INIT_PRIORITY(ZK3_INIT_ACCESS_MUTEX);
