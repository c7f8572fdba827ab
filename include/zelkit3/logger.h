// zelkit3/logger.h - the logging interface offered to callers, its idle
// implementation, a holder for the current logger, and the library's
// thread-safe reference count.
//
// The library itself never logs. ILogger is implemented by callers; the
// meaning of a priority belongs to their implementation.
//
// Thread-safety: IdleLogger is stateless and safe on any thread, and
// IdleLogger::getInst may be called from any thread. LoggerHelper has no
// lock: concurrent setLogger/getLogger on one holder are the caller's
// business. ThreadSafeAddRef's count is safe on any thread.
//
// Lifetime: a LoggerHelper owns one reference (addRef/release) to the logger
// it holds. The IdleLogger singleton is a function-local static of the
// library and goes with the library's other static objects at unload.
#ifndef ZELKIT3_LOGGER_H
#define ZELKIT3_LOGGER_H

#include <atomic>
#include <cstdint>

#include "zelkit3/export.h"

namespace zelkit3 {

// The logging interface. Implementations are counted by addRef/release;
// whether release destroys the object is up to the implementation.
class ZK3_API ILogger {
 public:
  // Writes a printf-style message at a priority. (No format attribute: old
  // callers built with -Werror must keep building against this header.)
  virtual void logf(int priority, const char* format, ...) = 0;
  // Writes a plain message at a priority.
  virtual void log(int priority, const char* message) = 0;
  // Whether messages of this priority would be written.
  virtual bool isPriorityEnabled(int priority) = 0;
  // Takes a reference. The result is the implementation's; nobody here reads it.
  virtual long addRef() = 0;
  // Drops a reference. The result is the implementation's; nobody here reads it.
  virtual long release() = 0;
  virtual ~ILogger();
};

// A logger that drops everything and is not counted.
class ZK3_API IdleLogger : public ILogger {
 public:
  IdleLogger();

  // The one shared instance, made at the first call (thread-safe). Never null.
  static IdleLogger* getInst();

  // Do nothing.
  void logf(int priority, const char* format, ...) override;
  void log(int priority, const char* message) override;
  // False for every priority.
  bool isPriorityEnabled(int priority) override;
  // Do nothing and return 0: the idle logger is never destroyed by a count.
  long addRef() override;
  long release() override;
  ~IdleLogger() override;
};

// Holds one counted reference to the current logger and answers with the
// idle logger when it holds none, so that its users never test for null.
// Not copyable: a copy would release the same reference twice.
class ZK3_API LoggerHelper {
 public:
  // Stores logger (null means none) and takes a reference on it.
  explicit LoggerHelper(ILogger* logger = nullptr);
  // Drops the reference held, if any. No exception leaves it, even one
  // thrown by the logger's release.
  ~LoggerHelper();
  LoggerHelper(const LoggerHelper&) = delete;
  LoggerHelper& operator=(const LoggerHelper&) = delete;

  // Releases the logger held, then stores logger (null means none) and takes
  // a reference on it. Passing the logger already held changes nothing, so a
  // logger with a single reference survives the call.
  void setLogger(ILogger* logger);
  // The logger held, or IdleLogger::getInst() if none. Never null. No
  // reference is taken for the caller: the result is valid while the holder
  // keeps that logger.
  ILogger* getLogger();

 private:
  ILogger* mLogger;
};

// A heap-allocated 32-bit reference count that starts at 1. Its users hold a
// pointer to it and destroy it (through the virtual destructor) when
// decrementRef reaches 0. Not copyable.
class ZK3_API ThreadSafeAddRef {
 public:
  // Count 1.
  ThreadSafeAddRef();
  // Does nothing; virtual so that derived counters are destroyed whole.
  virtual ~ThreadSafeAddRef();
  ThreadSafeAddRef(const ThreadSafeAddRef&) = delete;
  ThreadSafeAddRef& operator=(const ThreadSafeAddRef&) = delete;

  // Raises the count by one atomically; returns the new count.
  std::uint32_t incrementRef() { return mCount.fetch_add(1, std::memory_order_relaxed) + 1; }
  // Lowers the count by one atomically; returns the new count. When it
  // returns 0, every earlier write by other owners is visible to the caller,
  // who may then destroy what was shared.
  std::uint32_t decrementRef() { return mCount.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  // The count now; a snapshot only while other threads share the object.
  std::uint32_t getCount() const { return mCount.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint32_t> mCount;
};

}  // namespace zelkit3

#endif  // ZELKIT3_LOGGER_H
