// A caller module: it links the library, so that opening it loads the library
// and closing it unloads the library. unload_test calls its functions, each
// with a pointer of its own.
#include "zelkit3/performance.h"
#include "zelkit3/thread_pool.h"

// Fills the report's records with the recording code of the header only.
extern "C" void zk3Record(void*) {
  zelkit3::PerformanceLogger* logger = zelkit3::PerformanceLogger::getInstance();
  // Out of key order, and the extremes not first or last.
  for (double t : {1.0, 6.0, 2.0}) logger->addTime("beta", t);
  logger->addTime("gamma", 1234567);
  logger->addTime("gamma", 0.25);
  // A record printed under another name, one without calls, and no record.
  logger->getRecord("zeta")->mCommandId = "renamed";
  logger->addTime("zeta", 4);
  logger->getRecord("zero")->mTotalTime = 3;
  logger->mMutex.lock();
  logger->mRecords["eta"] = nullptr;
  logger->mMutex.unlock();
  // One measured call, whose time is the clock's.
  { performance::ScopedMeasurement measured("~scoped"); }
}

// Ends a pool asynchronously: it returns while the pool's workers still run
// the task, which the test program owns.
extern "C" void zk3EndPoolAsync(void* task) {
  zelkit3::ThreadPool* pool = zelkit3::ThreadPool::create(4, false);
  for (int i = 0; i < 16; ++i) pool->start(static_cast<zelkit3::IRunnable*>(task));
  pool->release();
}
