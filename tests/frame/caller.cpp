// A caller module: it links the library, so that opening it loads the library
// and closing it unloads the library. unload_test calls its functions.
#include <thread>

#include "support/sync.h"
#include "zelkit3/performance.h"
#include "zelkit3/thread_pool.h"

// Fills the report's records with the recording code of the header only.
extern "C" void zk3Record() {
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
  // Measured on two threads at once.
  zk3test::Gate gate(2);
  auto measure = [&gate] {
    gate.arriveAndWait();
    for (int n = 0; n < 1000; ++n) performance::ScopedMeasurement measured("~scoped");
  };
  std::thread other(measure);
  measure();
  other.join();
}

struct NoOpTask : zelkit3::IRunnable {
  void run() override {}
  void addRef() override {}
  void release() override {}
} gTask;

// Ends a pool asynchronously: it returns while the pool's tasks may run.
extern "C" void zk3EndPoolAsync() {
  zelkit3::ThreadPool* pool = zelkit3::ThreadPool::create(4, false);
  for (int i = 0; i < 16; ++i) pool->start(&gTask);
  pool->release();
}
