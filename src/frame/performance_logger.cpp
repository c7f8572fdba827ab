// The report singleton and the report that the unload hook writes.
#include <ios>
#include <map>
#include <ostream>
#include <string>

#include "base/mutex_guard.h"
#include "frame/load_steps.h"
#include "zelkit3/performance.h"

namespace zelkit3 {

PerformanceLogger* PerformanceLogger::mInstance = nullptr;

PerformanceLogger* PerformanceLogger::getInstance() {
  if (mInstance == nullptr) mInstance = new PerformanceLogger();
  return mInstance;
}

namespace {

void writeRecord(const performance::stream_guard& record) {
  std::ostream& out = *record.mOut;
  const double average = record.mTotalTime / record.mCallCount;
  // Without the extremes only where at least one other call remains.
  const double trimmed =
      record.mCallCount > 2
          ? (record.mTotalTime - record.mMaxTime - record.mMinTime) / (record.mCallCount - 2)
          : average;
  out << "CommandID = " << record.mCommandId << std::endl;
  out << "Hole time = " << record.mTotalTime << std::endl;
  out << "Call count = " << record.mCallCount << std::endl;
  out << "Min time = " << record.mMinTime << std::endl;
  out << "Max time = " << record.mMaxTime << std::endl;
  out << "Average time = " << average << std::endl;
  out << "Average time* = " << trimmed << std::endl;
  out << "===============================================" << std::endl;
}

// Frees every record of the map and empties it.
void freeRecords(std::map<std::string, performance::stream_guard*>& records) {
  for (auto& entry : records) {
    delete entry.second;
    entry.second = nullptr;
  }
  records.clear();
}

}  // namespace

namespace detail {

void finishPerformanceReport() {
  PerformanceLogger* logger = PerformanceLogger::getInstance();
  try {
    MutexGuard guard(logger->mMutex);
    if (!logger->mRecords.empty()) {
      // Replaces an earlier report; an open failure only sets the fail bit,
      // which silences every line below.
      logger->mStream.open(logger->mFileName.c_str(), std::ios_base::out);
      for (auto& entry : logger->mRecords) {
        if (entry.second == nullptr) continue;
        writeRecord(*entry.second);
        delete entry.second;
        entry.second = nullptr;
      }
      logger->mRecords.clear();
      logger->mStream.close();
    }
  } catch (...) {
    // Runs inside the unload hook, which must not throw: whatever is left
    // of the report is dropped below with the singleton.
  }
  {
    MutexGuard guard(logger->mMutex);
    freeRecords(logger->mRecords);
  }
  delete PerformanceLogger::mInstance;
  PerformanceLogger::mInstance = nullptr;
}

}  // namespace detail
}  // namespace zelkit3
