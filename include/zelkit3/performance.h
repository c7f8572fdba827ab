// zelkit3/performance.h - a per-command timing report, written at unload.
//
// PerformanceLogger keeps one record (performance::stream_guard) per command
// name: the total, smallest and largest measured time and the number of
// calls. When the library is unloaded it writes the records to
// "performance.log" in the working directory of that moment, eight lines per
// record in byte order of the command names, and destroys itself. With no
// records no file is made and an existing one is left alone.
//
// The recording code is inline here and is compiled into the caller, who
// measures with performance::ScopedMeasurement or adds times of its own with
// PerformanceLogger::addTime. The unit of a time is the recording code's:
// ScopedMeasurement records milliseconds.
//
// Thread-safety: every access to the records takes mMutex, and the report
// holds it while it writes, so recording may run on any thread. The first
// getInstance must not overlap another one (it takes no lock): make the first
// call before starting threads that record.
//
// Lifetime: the singleton is made by the first getInstance and destroyed by
// the unload hook, which frees every record. A record pointer is valid until
// then; a getInstance after the hook makes a fresh, empty instance.
#ifndef ZELKIT3_PERFORMANCE_H
#define ZELKIT3_PERFORMANCE_H

#include <stdint.h>

#include <chrono>
#include <fstream>
#include <map>
#include <new>
#include <ostream>
#include <string>

#include "zelkit3/export.h"
#include "zelkit3/mutex.h"

namespace performance {

// The record of one command. Once in the logger's map, it belongs to the map
// and its fields are read and written under the logger's mMutex only.
class stream_guard {
 public:
  // A record without calls whose report lines go to out (the logger's
  // mStream, for them to reach the file).
  stream_guard(const std::string& commandId, std::ostream* out)
      : mTotalTime(0), mMinTime(0), mMaxTime(0), mCallCount(0), mCommandId(commandId), mOut(out) {}

  // Adds one measured time to the total, the count and the extremes.
  void addTime(double elapsed) {
    if (mCallCount == 0 || elapsed < mMinTime) mMinTime = elapsed;
    if (mCallCount == 0 || elapsed > mMaxTime) mMaxTime = elapsed;
    mTotalTime += elapsed;
    ++mCallCount;
  }

  // The fields the report reads, in this order.
  double mTotalTime;
  double mMinTime;
  double mMaxTime;
  uint32_t mCallCount;
  std::string mCommandId;  // printed as the command's name
  std::ostream* mOut;      // where the record's lines go; valid until unload
};

}  // namespace performance

namespace zelkit3 {

class PerformanceLogger;

namespace detail {
// The unload hook's report step: writes the records and destroys the singleton.
void finishPerformanceReport();
}  // namespace detail

class ZK3_API PerformanceLogger {
 public:
  // The singleton, made on the first call with no records and a closed stream.
  // Takes no lock; see the banner for the first call.
  static PerformanceLogger* getInstance();

  // Finds the record of commandId or makes it (printing to mStream), under
  // mMutex. A null entry in the map is replaced by a new record. The pointer
  // stays valid until unload. Throws std::bad_alloc; the map is then unchanged.
  performance::stream_guard* getRecord(const std::string& commandId) {
    Lock lock(mMutex);
    performance::stream_guard*& slot = mRecords[commandId];
    if (slot == 0) slot = new performance::stream_guard(commandId, &mStream);
    return slot;
  }

  // Adds one measured time to the record of commandId, made if need be.
  void addTime(const std::string& commandId, double elapsed) {
    Lock lock(mMutex);
    getRecord(commandId)->addTime(elapsed);
  }

  // The report's path, "performance.log", relative to the working directory.
  std::string mFileName;
  // One record per command, owned by the map. Callers may add entries of
  // their own (new-allocated; a null value prints nothing).
  std::map<std::string, performance::stream_guard*> mRecords ZK3_GUARDED_BY(mMutex);
  // The report file; closed except while the unload hook writes it.
  std::ofstream mStream ZK3_GUARDED_BY(mMutex);
  Mutex mMutex;

  // The singleton; null before the first getInstance and after unload.
  static PerformanceLogger* mInstance;

 private:
  friend void detail::finishPerformanceReport();

  PerformanceLogger() : mFileName("performance.log") {}
  ~PerformanceLogger() {}
  PerformanceLogger(const PerformanceLogger&) = delete;
  PerformanceLogger& operator=(const PerformanceLogger&) = delete;

  // Holds mMutex for a scope, exceptions included.
  class ZK3_SCOPED_CAPABILITY Lock {
   public:
    explicit Lock(Mutex& m) ZK3_ACQUIRE(m) : mLocked(m) { mLocked.lock(); }
    ~Lock() ZK3_RELEASE() { mLocked.unlock(); }

   private:
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    Mutex& mLocked;
  };
};

}  // namespace zelkit3

namespace performance {

// Measures the time from its construction to its destruction on the steady
// clock and adds it, in milliseconds, to the record of its command. A
// measurement that cannot be stored for lack of memory is dropped: the
// destructor never throws.
class ScopedMeasurement {
 public:
  explicit ScopedMeasurement(const std::string& commandId)
      : mCommandId(commandId), mStart(std::chrono::steady_clock::now()) {}

  ~ScopedMeasurement() {
    const std::chrono::duration<double, std::milli> elapsed =
        std::chrono::steady_clock::now() - mStart;
    try {
      zelkit3::PerformanceLogger::getInstance()->addTime(mCommandId, elapsed.count());
    } catch (const std::bad_alloc&) {
    }
  }

 private:
  ScopedMeasurement(const ScopedMeasurement&) = delete;
  ScopedMeasurement& operator=(const ScopedMeasurement&) = delete;

  std::string mCommandId;
  std::chrono::steady_clock::time_point mStart;
};

}  // namespace performance

#endif  // ZELKIT3_PERFORMANCE_H
