// The logger holder, the idle logger and the library's reference count.
#include "zelkit3/logger.h"

namespace zelkit3 {

// Out of line so that ILogger's vtable and typeinfo live in the library.
ILogger::~ILogger() {}

IdleLogger::IdleLogger() {}
IdleLogger::~IdleLogger() {}

IdleLogger* IdleLogger::getInst() {
  // Thread-safe local static; its destructor is registered with the
  // library's other static objects at the first call.
  static IdleLogger instance;
  return &instance;
}

void IdleLogger::logf(int, const char*, ...) {}
void IdleLogger::log(int, const char*) {}
bool IdleLogger::isPriorityEnabled(int) { return false; }
long IdleLogger::addRef() { return 0; }
long IdleLogger::release() { return 0; }

LoggerHelper::LoggerHelper(ILogger* logger) : mLogger(logger) {
  if (mLogger != nullptr) mLogger->addRef();
}

LoggerHelper::~LoggerHelper() {
  if (mLogger == nullptr) return;
  try {
    mLogger->release();
  } catch (...) {
    // A destructor must not throw; a caller's logger that does is ignored.
  }
}

void LoggerHelper::setLogger(ILogger* logger) {
  // Releasing before adding would destroy a logger whose only reference is
  // ours when it is passed again; holding it already means nothing changes.
  if (logger == mLogger) return;
  if (mLogger != nullptr) mLogger->release();
  mLogger = logger;
  if (mLogger != nullptr) mLogger->addRef();
}

ILogger* LoggerHelper::getLogger() { return mLogger != nullptr ? mLogger : IdleLogger::getInst(); }

ThreadSafeAddRef::ThreadSafeAddRef() : mCount(1) {}
ThreadSafeAddRef::~ThreadSafeAddRef() {}

}  // namespace zelkit3
