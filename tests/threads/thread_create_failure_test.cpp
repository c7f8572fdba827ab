// What happens when the system refuses a new thread, through the library's
// thread-creation seam.
#include <gtest/gtest.h>

#include <atomic>

#include "test_util.h"
#include "threads/thread_create.h"
#include "zelkit3/lifecycle.h"
#include "zelkit3/thread.h"
#include "zelkit3/thread_pool.h"

namespace {

using zelkit3::AThread;
using zelkit3::IThreadPoolTaskSource;
using zelkit3::ThreadPool;
using zelkit3::ThreadPoolTaskSource;
using zelkit3::WorkerThread;
using zk3test::BlockingTask;
using zk3test::CountingTask;
using zk3test::eventually;
using zk3test::Flag;
using zk3test::TaskCounters;

// Linked statically, the load hook comes in only if called.
const bool gLoaded = (ZelKit3AtLoad(), true);

// Lets the first `allowed` creations through, refuses the rest.
std::atomic<int> gAllowed{0};
int limitedCreate(pthread_t* t, const pthread_attr_t* a, void* (*f)(void*), void* arg) {
  if (gAllowed.fetch_sub(1) <= 0) return EAGAIN;
  return pthread_create(t, a, f, arg);
}

class FailingCreation : public ::testing::Test {
 protected:
  void allow(int n) {
    gAllowed = n;
    zelkit3::detail::gCreateThread = &limitedCreate;
  }
  void TearDown() override { zelkit3::detail::gCreateThread = &pthread_create; }
};

class Counting : public AThread {
 public:
  int run() override {
    runs.fetch_add(1);
    return 0;
  }
  std::atomic<int> runs{0};
};

TEST_F(FailingCreation, StartReportsFalseAndCanBeRetried) {
  Counting t;
  allow(0);
  EXPECT_FALSE(t.start());
  EXPECT_FALSE(t.isRunning());
  EXPECT_TRUE(t.join(0));  // nothing to wait for
  allow(1);
  EXPECT_TRUE(t.start());
  EXPECT_TRUE(t.join(INFINITE));
  EXPECT_EQ(1, t.runs.load());
}

// A stand-in pool for a lone worker.
class StandInPool : public zelkit3::IThreadPoolImpl {
 public:
  bool start(zelkit3::IRunnable*) override { return false; }
  void join() override {}
  void finalizeAsync() override {}
  bool unregister(WorkerThread*) override { return true; }
  int addRef() override { return ++refs; }
  int release() override { return --refs; }
  std::atomic<int> refs{0};
};

TEST_F(FailingCreation, FailedWorkerNeverAcceptsATask) {
  StandInPool pool;
  TaskCounters counters;
  boost::shared_ptr<IThreadPoolTaskSource> queue(new ThreadPoolTaskSource());
  WorkerThread worker(queue, &pool);
  auto* t = new CountingTask(counters);
  allow(0);
  EXPECT_EQ(WorkerThread::WorkerRefused, worker.start(t));
  EXPECT_EQ(1, t->refs());
  allow(10);
  // Started and stopped events are set, no stop was asked: no thread will
  // ever come, so a task must not be taken.
  EXPECT_EQ(WorkerThread::WorkerRefused, worker.start(t));
  EXPECT_EQ(WorkerThread::WorkerRefused, worker.start(t));
  EXPECT_EQ(1, t->refs());
  worker.stop();  // returns at once
  t->release();
  EXPECT_EQ(0, counters.runs.load());
}

TEST_F(FailingCreation, PoolWithoutAnyThreadRefusesTheTask) {
  TaskCounters counters;
  {
    ThreadPool pool(3, true);
    allow(0);
    auto* t = new CountingTask(counters);
    EXPECT_FALSE(pool.start(t));  // the task stays the caller's
    EXPECT_EQ(1, t->refs());
    allow(10);
    // Every worker is in its failed state now: still no thread, still refused.
    EXPECT_FALSE(pool.start(t));
    EXPECT_EQ(1, t->refs());
    t->release();
  }
  EXPECT_EQ(0, counters.runs.load());
  EXPECT_EQ(1, counters.destroyed.load());
}

TEST_F(FailingCreation, PoolWithOneThreadQueuesWhatOthersCannotTake) {
  TaskCounters counters;
  Flag go;
  std::atomic<int> entered{0};
  {
    ThreadPool pool(4, true);
    allow(1);
    auto* first = new BlockingTask(counters, go, &entered);
    ASSERT_TRUE(pool.start(first));
    first->release();
    ASSERT_TRUE(eventually([&] { return entered.load() == 1; }));
    for (int i = 0; i < 10; ++i) {
      auto* t = new CountingTask(counters);
      EXPECT_TRUE(pool.start(t));  // the other workers fail; queued
      t->release();
    }
    go.set();
    ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 11; }));
  }
  EXPECT_EQ(11, counters.runs.load());
}

TEST_F(FailingCreation, AsynchronousEndWithFailedWorkers) {
  const int before = zk3test::settledThreadCount();
  TaskCounters counters;
  allow(1);
  ThreadPool* pool = ThreadPool::create(3, false);
  for (int i = 0; i < 5; ++i) {
    auto* t = new CountingTask(counters);
    EXPECT_TRUE(pool->start(t));
    t->release();
  }
  pool->release();
  ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 5; }));
  EXPECT_TRUE(zk3test::threadsDownTo(before));
}

}  // namespace
