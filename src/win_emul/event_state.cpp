#include "win_emul/event_state.h"

#include "base/init_order.h"
#include "base/recursive_mutex.h"
#include "win_emul/load_steps.h"

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

namespace detail {

using win_emul::AccessGuard;
using win_emul::CWinEventHandle;
using win_emul::gEventLock;
using win_emul::gEventLockMarker;
using win_emul::gEventTable;

void eventsAtLoad() {
  if (gEventLockMarker == nullptr) {
    char* marker = new char(0);
    initRecursiveMutex(&gEventLock);
    gEventLockMarker = marker;
  }
  if (gEventTable == nullptr) gEventTable = new std::set<CWinEventHandle*>();
}

void eventsAtUnload() {
  {
    AccessGuard access;
    delete gEventTable;  // The events in it are neither closed nor destroyed.
    gEventTable = nullptr;
  }
  if (gEventLockMarker != nullptr) {
    pthread_mutex_destroy(&gEventLock);
    delete gEventLockMarker;
    gEventLockMarker = nullptr;
  }
}

}  // namespace detail
}  // namespace zelkit3

zelkit3::Mutex mAccessMutex ZK3_INIT_PRIORITY(ZK3_INIT_ACCESS_MUTEX);
