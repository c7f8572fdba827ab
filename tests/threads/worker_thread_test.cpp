// The queue and the worker, against a stand-in pool.
#include <gtest/gtest.h>

#include <atomic>
#include <type_traits>

#include "test_util.h"
#include "zelkit3/thread_pool.h"

namespace {

using zk3test::RecordingTask;

using zelkit3::IRunnable;
using zelkit3::IThreadPoolImpl;
using zelkit3::IThreadPoolTaskSource;
using zelkit3::ThreadPoolTaskSource;
using zelkit3::WorkerThread;
using zk3test::BlockingTask;
using zk3test::CountingTask;
using zk3test::Flag;
using zk3test::TaskCounters;

static_assert(!std::is_copy_constructible<ThreadPoolTaskSource>::value, "not copyable");
static_assert(!std::is_copy_constructible<WorkerThread>::value, "not copyable");

// A pool that only counts: unregister keeps the worker alive.
class StandInPool : public IThreadPoolImpl {
 public:
  bool start(IRunnable*) override { return false; }
  void join() override {}
  void finalizeAsync() override {}
  bool unregister(WorkerThread*) override {
    unregistered.fetch_add(1);
    return true;
  }
  int addRef() override { return ++refs; }
  int release() override { return --refs; }
  std::atomic<int> refs{0};
  std::atomic<int> unregistered{0};
};

TEST(TaskSourceTest, FirstInFirstOutAndNullWhenEmpty) {
  TaskCounters counters;
  ThreadPoolTaskSource queue;
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(nullptr, queue.nextTask());
  auto* a = new CountingTask(counters);
  auto* b = new CountingTask(counters);
  EXPECT_TRUE(queue.pushTask(a));
  EXPECT_TRUE(queue.pushTask(b));
  EXPECT_EQ(2, a->refs());
  EXPECT_FALSE(queue.empty());
  EXPECT_EQ(a, queue.nextTask());  // the reference passes to the caller
  EXPECT_EQ(2, a->refs());
  queue.deactivate();
  EXPECT_EQ(b, queue.nextTask());  // a deactivated queue still hands out
  EXPECT_EQ(nullptr, queue.nextTask());
  for (int i = 0; i < 2; ++i) {
    a->release();
    b->release();
  }
  EXPECT_EQ(2, counters.destroyed.load());
}

// Rounds of filling and draining, longer than the queue keeps spare nodes
// for and interleaved, so that reused and new nodes mix: the order and the
// emptiness seen without the lock stay right.
TEST(TaskSourceTest, OrderHoldsAcrossReusedNodes) {
  TaskCounters counters;
  std::vector<CountingTask*> tasks;
  for (int i = 0; i < 600; ++i) tasks.push_back(new CountingTask(counters));
  ThreadPoolTaskSource queue;
  size_t next = 0;
  for (size_t round : {600, 1, 300, 0, 599}) {
    for (size_t i = 0; i < round; ++i) ASSERT_TRUE(queue.pushTask(tasks[(next + i) % 600]));
    // Take half, put one more behind, then take the rest.
    for (size_t i = 0; i < round / 2; ++i) ASSERT_EQ(tasks[(next + i) % 600], queue.nextTask());
    ASSERT_TRUE(queue.pushTask(tasks[(next + round) % 600]));
    for (size_t i = round / 2; i <= round; ++i) {
      ASSERT_FALSE(queue.empty());
      ASSERT_EQ(tasks[(next + i) % 600], queue.nextTask());
    }
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(nullptr, queue.nextTask());
    next = (next + round + 1) % 600;
  }
  // Each push took a reference that the caller of nextTask now owns.
  for (CountingTask* t : tasks) {
    while (t->refs() > 1) t->release();
    t->release();
  }
  EXPECT_EQ(600, counters.destroyed.load());
}

TEST(TaskSourceTest, DeactivatedQueueRefusesWithoutAddRef) {
  TaskCounters counters;
  auto* t = new CountingTask(counters);
  {
    ThreadPoolTaskSource queue;
    EXPECT_TRUE(queue.pushTask(t));
    queue.deactivate();
    EXPECT_FALSE(queue.pushTask(t));
    EXPECT_EQ(2, t->refs());
  }  // the destructor releases what is queued, without running it
  EXPECT_EQ(1, t->refs());
  EXPECT_EQ(0, counters.runs.load());
  t->release();
}

TEST(WorkerThreadTest, CodesThroughALifetime) {
  StandInPool pool;
  TaskCounters counters;
  Flag go;
  std::atomic<int> entered{0};
  {
    boost::shared_ptr<IThreadPoolTaskSource> queue(new ThreadPoolTaskSource());
    WorkerThread worker(queue, &pool);
    EXPECT_EQ(1, pool.refs.load());
    auto* blocking = new BlockingTask(counters, go, &entered);
    EXPECT_EQ(WorkerThread::WorkerThreadStarted, worker.start(blocking));
    EXPECT_TRUE(worker.isRunning());
    auto* other = new CountingTask(counters);
    EXPECT_EQ(WorkerThread::WorkerRefused, worker.start(other));  // busy
    EXPECT_EQ(1, other->refs());
    ASSERT_TRUE(zk3test::eventually([&] { return entered.load() == 1; }));
    go.set();
    blocking->release();
    // Free again once the task's last reference is gone.
    ASSERT_TRUE(zk3test::eventually([&] { return counters.destroyed.load() == 1; }));
    EXPECT_EQ(WorkerThread::WorkerTaskAccepted, worker.start(other));
    other->release();
    ASSERT_TRUE(zk3test::eventually([&] { return counters.destroyed.load() == 2; }));
    EXPECT_EQ(2, counters.runs.load());

    worker.stopAsync();
    worker.stopAsync();  // harmless
    worker.stop();
    EXPECT_FALSE(worker.isRunning());
    EXPECT_EQ(1, pool.unregistered.load());
    auto* late = new CountingTask(counters);
    EXPECT_EQ(WorkerThread::WorkerRefused, worker.start(late));
    EXPECT_EQ(1, late->refs());
    late->release();
  }
  EXPECT_EQ(0, pool.refs.load());
}

TEST(WorkerThreadTest, StopWithoutAThreadReturnsAtOnce) {
  StandInPool pool;
  boost::shared_ptr<IThreadPoolTaskSource> queue(new ThreadPoolTaskSource());
  WorkerThread worker(queue, &pool);
  worker.stop();
  EXPECT_TRUE(worker.join(INFINITE));
  TaskCounters counters;
  auto* t = new CountingTask(counters);
  EXPECT_EQ(WorkerThread::WorkerRefused, worker.start(t));
  EXPECT_EQ(1, t->refs());
  t->release();
  EXPECT_EQ(0, pool.unregistered.load());
}

TEST(WorkerThreadTest, PullsQueuedWorkInOrderAfterItsTask) {
  StandInPool pool;
  TaskCounters counters;
  Flag go;
  std::vector<int> order;
  std::mutex orderMutex;
  boost::shared_ptr<ThreadPoolTaskSource> queue(new ThreadPoolTaskSource());
  WorkerThread worker(queue, &pool);
  auto* first = new BlockingTask(counters, go);
  ASSERT_EQ(WorkerThread::WorkerThreadStarted, worker.start(first));
  first->release();
  for (int i = 0; i < 20; ++i) {
    auto* t = new RecordingTask(counters, order, orderMutex, i);
    ASSERT_TRUE(queue->pushTask(t));
    t->release();
  }
  go.set();
  // Each finished task pulls the next one at once, well within the idle wait.
  ASSERT_TRUE(zk3test::eventually([&] { return counters.destroyed.load() == 21; },
                                  zk3test::scaled(4000)));
  worker.stop();
  ASSERT_EQ(20u, order.size());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(i, order[i]);
}

TEST(WorkerThreadTest, ATaskLeftInTheWorkerIsReleasedByItsDestructor) {
  StandInPool pool;
  TaskCounters counters;
  auto* t = new CountingTask(counters);
  {
    boost::shared_ptr<IThreadPoolTaskSource> queue(new ThreadPoolTaskSource());
    WorkerThread worker(queue, &pool);
    worker.stopAsync();
    EXPECT_TRUE(worker.setNewTask(t));  // lands in the worker, never runs
  }
  EXPECT_EQ(0, counters.runs.load());
  EXPECT_EQ(1, t->refs());
  t->release();
}

}  // namespace
