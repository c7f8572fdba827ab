// A caller module: it links the library, so that opening it loads the library
// and closing it unloads the library. unload_test calls its one function.
#include "zelkit3/performance.h"
#include "zelkit3/thread_pool.h"

// Fills the report's records with the recording code of the header only, then
// ends a pool asynchronously: it returns while the pool's workers still run
// the task, which the test program owns.
extern "C" void zk3Use(void* task) {
  zelkit3::PerformanceLogger* logger = zelkit3::PerformanceLogger::getInstance();
  // Out of key order, and the extremes not first or last.
  for (double t : {1.0, 6.0, 2.0}) logger->addTime("beta", t);
  for (double t : {1234567.0, 0.25}) logger->addTime("gamma", t);
  // A record printed under another name, one without calls, and no record.
  logger->getRecord("gamma")->mCommandId = "renamed";
  logger->getRecord("zero")->mTotalTime = 3;
  logger->mRecords["eta"] = nullptr;
  // One measured call, whose time is the clock's.
  { performance::ScopedMeasurement measured("~scoped"); }
  zelkit3::ThreadPool* pool = zelkit3::ThreadPool::create(4, false);
  for (int i = 0; i < 16; ++i) pool->start(static_cast<zelkit3::IRunnable*>(task));
  pool->release();
}
