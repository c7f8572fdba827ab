#include <stdio.h>

#include <cstdint>

#include "base/deadline.h"
#include "base/mutex_guard.h"
#include "base/recursive_mutex.h"
#include "win_emul/event_handle.h"
#include "win_emul/event_state.h"
#include "zelkit3/win_emul.h"

namespace zelkit3 {
namespace win_emul {

using detail::PthreadGuard;

bool CBaseHandle::wait(unsigned long) { return false; }

bool CBaseHandle::close() { return false; }

CWinEventHandle::CWinEventHandle(bool manualReset, bool initialState, const wchar_t* name)
    : mManualReset(manualReset),
      mSignaled(initialState),
      mSetCount(0),
      mRefCount(1),
      mListenerCount(0),
      mName(name ? name : L"") {
  detail::initRecursiveMutex(&mStateMutex);
  detail::initRecursiveMutex(&mListenersMutex);
  pthread_cond_init(&mCondition, nullptr);
}

CWinEventHandle::~CWinEventHandle() {
  pthread_cond_destroy(&mCondition);
  pthread_mutex_destroy(&mStateMutex);
  pthread_mutex_destroy(&mListenersMutex);
}

void CWinEventHandle::set() { signal(/*wakeUnderLock=*/false); }

void CWinEventHandle::signal(bool wakeUnderLock) {
  pthread_mutex_lock(&mStateMutex);
  mSignaled.store(true, std::memory_order_seq_cst);
  mSetCount.fetch_add(1, std::memory_order_relaxed);
  // Registered listeners are counted, so that the common set with nobody
  // waiting for any skips the listener lock. A registration that races with
  // this sees mSignaled in its re-scan instead (both sides sequentially
  // consistent). Read before the unlock: a pulse holds no lock that close()
  // needs, and a thread it releases may close the event at once, so for an
  // event without listeners the unlock must be the pulse's last touch. (An
  // event with a listener is in the list of a running wait for any, and
  // closing it then is the caller's error.)
  const bool listened = mListenerCount.load(std::memory_order_seq_cst) != 0;
  // Waking after the unlock spares each woken waiter a second sleep on
  // mStateMutex, which roughly triples the cost of a hand-over otherwise.
  // That is safe only while the event cannot be destroyed in between: a
  // caller of SetEvent holds the event lock that close() needs, and a
  // listener is set under the listener lock that its removal needs. A pulse
  // holds neither, so it wakes under the lock.
  if (wakeUnderLock) pthread_cond_broadcast(&mCondition);
  pthread_mutex_unlock(&mStateMutex);
  if (!wakeUnderLock) pthread_cond_broadcast(&mCondition);
  if (!listened) return;
  PthreadGuard listeners(mListenersMutex);
  for (CWinEventHandle* listener : mListeners) listener->set();
}

bool CWinEventHandle::pulse() {
  signal(/*wakeUnderLock=*/true);
  return true;
}

void CWinEventHandle::reset() {
  PthreadGuard state(mStateMutex);
  mSignaled.store(false, std::memory_order_release);
}

void CWinEventHandle::addRef() { mRefCount.fetch_add(1, std::memory_order_relaxed); }

long CWinEventHandle::release() { return mRefCount.fetch_sub(1, std::memory_order_acq_rel) - 1; }

void CWinEventHandle::addListener(CWinEventHandle* listener) {
  PthreadGuard listeners(mListenersMutex);
  if (mListeners.insert(listener).second) mListenerCount.fetch_add(1, std::memory_order_seq_cst);
}

void CWinEventHandle::removeListener(CWinEventHandle* listener) {
  PthreadGuard listeners(mListenersMutex);
  if (mListeners.erase(listener) != 0) mListenerCount.fetch_sub(1, std::memory_order_seq_cst);
}

void CWinEventHandle::consumeSignal() {
  if (mManualReset) return;
  PthreadGuard state(mStateMutex);
  mSignaled.store(false, std::memory_order_release);
}

bool CWinEventHandle::wait(unsigned long timeoutMs) {
  PthreadGuard state(mStateMutex);
  const std::uint32_t startCount = mSetCount.load(std::memory_order_relaxed);
  auto released = [&] {
    return mSignaled.load(std::memory_order_relaxed) ||
           mSetCount.load(std::memory_order_relaxed) != startCount;
  };
  // A wake-up without a set starts the whole time-out over. A set that comes
  // between the expiry and the retaking of the mutex is honoured rather than
  // consumed by a wait that reports a time-out.
  const bool result = detail::Deadline(timeoutMs, detail::Deadline::kFromEachBlock)
                          .waitUntil(&mCondition, &mStateMutex, released);
  if (result && !mManualReset) mSignaled.store(false, std::memory_order_relaxed);
  return result;
}

bool CWinEventHandle::close() {
  EventLockGuard eventLock;
  if (release() != 0) return true;
  if (gEventTable == nullptr) gEventTable = new std::set<CWinEventHandle*>();
  {
    AccessGuard access;
    if (gEventTable != nullptr) gEventTable->erase(this);
  }
  delete this;
  return true;
}

void* CreateEventW(_SECURITY_ATTRIBUTES*, int manualReset, int initialState, const wchar_t* name) {
  CWinEventHandle* event = new CWinEventHandle(manualReset != 0, initialState != 0, name);
  try {
    EventLockGuard eventLock;
    if (gEventTable == nullptr) gEventTable = new std::set<CWinEventHandle*>();
    AccessGuard access;
    gEventTable->insert(event);
  } catch (...) {
    // No handle exists if the table could not take it.
    delete event;
    throw;
  }
  return event;
}

void* OpenEventW(unsigned long, int, const wchar_t* name) {
  // A null name is outside the Win32 contract; it finds nothing here.
  if (name == nullptr) return nullptr;
  EventLockGuard eventLock;
  AccessGuard access;
  if (gEventTable == nullptr) return nullptr;
  for (CWinEventHandle* event : *gEventTable) {
    if (event->name() == name) {
      event->addRef();
      return event;
    }
  }
  return nullptr;
}

int SetEvent(void* event) {
  EventLockGuard eventLock;
  static_cast<CWinEventHandle*>(event)->set();
  return 1;
}

int ResetEvent(void* event) {
  static_cast<CWinEventHandle*>(event)->reset();
  return 1;
}

int PulseEvent(void* event) {
  static_cast<CWinEventHandle*>(event)->pulse();
  return 1;
}

int CloseHandle(void* handle) {
  if (handle == nullptr) return 0;
  if (!static_cast<CBaseHandle*>(handle)->close()) puts("Closing unknown HANDLE type");
  return 1;
}

unsigned long WaitForSingleObject(void* handle, unsigned long timeoutMs) {
  return static_cast<CBaseHandle*>(handle)->wait(timeoutMs) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

}  // namespace win_emul
}  // namespace zelkit3
