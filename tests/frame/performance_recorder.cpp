// A caller module of the report: it links libzelkit3 and fills records with
// the recording code of zelkit3/performance.h only. The unload helper loads it
// after the library and calls zk3FillRecords.
#include "zelkit3/performance.h"

extern "C" __attribute__((visibility("default"))) void zk3FillRecords() {
  zelkit3::PerformanceLogger* logger = zelkit3::PerformanceLogger::getInstance();
  // Recorded out of key order: the report sorts by key bytes.
  logger->addTime("beta", 1);
  logger->addTime("beta", 2);
  logger->addTime("beta", 6);
  logger->addTime("alpha", 0.5);
  logger->addTime("gamma", 1234567);
  logger->addTime("gamma", 0.25);
  // A record whose name differs from its key, and an entry without a record.
  logger->getRecord("zeta")->mCommandId = "renamed";
  logger->addTime("zeta", 4);
  logger->mMutex.lock();
  logger->mRecords["eta"] = 0;
  logger->mMutex.unlock();
}
