// sharedrwlock: the lock behind a boundary that no exception crosses.
#include <stdio.h>

#include <exception>

#include "zelkit3/rwlock.h"

namespace zelkit3 {

namespace {

// Result codes of the locking operations.
constexpr int kDone = 0;
constexpr int kNotDone = 1;
constexpr int kFailed = 2;

// Runs one locking operation of `impl`. Only std::exception is caught, so a
// thread's forced unwinding (pthread_cancel) still passes through.
template <typename Op>
int guarded(UnixSharedRWLock* impl, Op op) {
  if (impl == nullptr) return kFailed;
  try {
    return op(*impl) ? kDone : kNotDone;
  } catch (const std::exception&) {
    return kFailed;
  }
}

}  // namespace

sharedrwlock::sharedrwlock() : mImpl(nullptr) {}

sharedrwlock::~sharedrwlock() { delete mImpl; }

bool sharedrwlock::init(const char* lockFileName, char* errorBuffer, int errorBufferSize) {
  if (mImpl != nullptr) return false;
  try {
    UnixSharedRWLock* impl = new UnixSharedRWLock(lockFileName);
    mImpl = impl;
    return true;
  } catch (const std::exception& e) {
    const char* text = e.what();
    if (errorBufferSize > 0 && text != nullptr) {
      snprintf(errorBuffer, static_cast<size_t>(errorBufferSize), "%s", text);
    }
    return false;
  }
}

bool sharedrwlock::init(const char* lockFileName) { return init(lockFileName, nullptr, 0); }

int sharedrwlock::lockRead(unsigned long timeout) {
  return guarded(mImpl, [timeout](UnixSharedRWLock& l) { return l.lockRead(timeout); });
}

int sharedrwlock::freeRead() {
  return guarded(mImpl, [](UnixSharedRWLock& l) {
    l.freeRead();
    return true;
  });
}

int sharedrwlock::upgradeToLockRead(unsigned long timeout) {
  return guarded(mImpl, [timeout](UnixSharedRWLock& l) { return l.upgradeToLockRead(timeout); });
}

int sharedrwlock::lockWrite(unsigned long timeout) {
  return guarded(mImpl, [timeout](UnixSharedRWLock& l) { return l.lockWrite(timeout); });
}

int sharedrwlock::freeWrite() {
  return guarded(mImpl, [](UnixSharedRWLock& l) {
    l.freeWrite();
    return true;
  });
}

int sharedrwlock::upgradeToLockWrite(unsigned long timeout) {
  return guarded(mImpl, [timeout](UnixSharedRWLock& l) { return l.upgradeToLockWrite(timeout); });
}

}  // namespace zelkit3
