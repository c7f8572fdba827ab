#include "zelkit3/thread_pool.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/child.h"
#include "test_util.h"
#include "threads/worker_internal.h"

namespace zelkit3 {
namespace detail {

struct ThreadPoolTestAccess {
  static size_t workers(ThreadPool& pool) {
    return static_cast<ThreadPoolImpl*>(pool.mImpl)->mWorkers.size();
  }
  static int idleWorkers(ThreadPool& pool) {
    return static_cast<ThreadPoolImpl*>(pool.mImpl)->mIdleWorkers.load();
  }
  static int startedWorkers(ThreadPool& pool) {
    ThreadPoolImpl* impl = static_cast<ThreadPoolImpl*>(pool.mImpl);
    impl->mMutex.lock();
    const int started = static_cast<int>(impl->mStartedWorkers.size());
    impl->mMutex.unlock();
    return started;
  }
};

}  // namespace detail
}  // namespace zelkit3

namespace {

using zk3test::RecordingTask;

using zelkit3::IRunnable;
using zelkit3::ThreadPool;
using zelkit3::detail::ThreadPoolTestAccess;
using zk3test::BlockingTask;
using zk3test::CountingTask;
using zk3test::eventually;
using zk3test::Flag;
using zk3test::TaskCounters;
using zk3test::settledThreadCount;
using zk3test::threadCount;
using zk3test::threadsDownTo;

// Starts a task made here and gives up the creator's reference at once.
template <class Task, class... Args>
bool startNew(ThreadPool& pool, Args&&... args) {
  Task* task = new Task(std::forward<Args>(args)...);
  const bool accepted = pool.start(task);
  task->release();
  return accepted;
}

struct SizeCase {
  unsigned int asked;
  size_t workers;
};

TEST(ThreadPoolTest, WorkerCounts) {
  const SizeCase cases[] = {{0, 5}, {1, 1}, {4, 4}, {20, 20}, {21, 20}, {1000, 20}};
  for (const SizeCase& c : cases) {
    ThreadPool pool(c.asked, true);
    EXPECT_EQ(c.workers, ThreadPoolTestAccess::workers(pool)) << "asked for " << c.asked;
  }
}

TEST(ThreadPoolTest, APoolWithoutTasksMakesNoThread) {
  const int before = settledThreadCount();
  for (bool join : {true, false}) {
    ThreadPool* pool = ThreadPool::create(8, join);
    EXPECT_LE(threadCount(), before);
    pool->release();
    EXPECT_LE(threadCount(), before);
  }
}

TEST(ThreadPoolTest, ThreadsAreMadeLazilyAtMostOnePerStart) {
  const int before = settledThreadCount();
  TaskCounters counters;
  Flag go;
  std::atomic<int> entered{0};
  ThreadPool pool(3, true);
  for (int i = 1; i <= 3; ++i) {
    ASSERT_TRUE(startNew<BlockingTask>(pool, counters, go, &entered));
    ASSERT_TRUE(eventually([&] { return entered.load() == i; }));
    EXPECT_EQ(before + i, threadCount());
  }
  // All busy: queued, no further thread.
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(startNew<CountingTask>(pool, counters));
  EXPECT_EQ(before + 3, threadCount());
  go.set();
  ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 8; }));
  EXPECT_EQ(8, counters.runs.load());
  pool.join();
}

TEST(ThreadPoolTest, AFreeWorkerWithAThreadIsReused) {
  const int before = settledThreadCount();
  TaskCounters counters;
  ThreadPool pool(4, true);
  for (int i = 1; i <= 20; ++i) {
    ASSERT_TRUE(startNew<CountingTask>(pool, counters));
    ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == i; }));
  }
  EXPECT_EQ(before + 1, threadCount());
}

TEST(ThreadPoolTest, QueuedTasksRunInTheOrderTheyCame) {
  TaskCounters counters;
  Flag go;
  std::atomic<int> entered{0};
  std::vector<int> order;
  std::mutex orderMutex;
  ThreadPool pool(1, true);
  ASSERT_TRUE(startNew<BlockingTask>(pool, counters, go, &entered));
  ASSERT_TRUE(eventually([&] { return entered.load() == 1; }));
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(startNew<RecordingTask>(pool, counters, order, orderMutex, i));
  }
  go.set();
  ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 51; }));
  pool.join();
  ASSERT_EQ(50u, order.size());
  for (int i = 0; i < 50; ++i) EXPECT_EQ(i, order[i]);
}

TEST(ThreadPoolTest, QueuedTasksNeverRunAfterJoinAndAreReleasedOnce) {
  TaskCounters blockingCounters, queuedCounters;
  Flag go;
  std::atomic<int> entered{0};
  auto* pool = new ThreadPool(1, true);
  ASSERT_TRUE(startNew<BlockingTask>(*pool, blockingCounters, go, &entered));
  ASSERT_TRUE(eventually([&] { return entered.load() == 1; }));
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(startNew<CountingTask>(*pool, queuedCounters));

  std::atomic<pid_t> joiner{0};
  std::thread joining([&] {
    joiner = zk3test::currentTid();
    pool->join();
  });
  ASSERT_TRUE(eventually([&] { return joiner.load() != 0; }));
  ASSERT_TRUE(zk3test::waitUntilBlocked(joiner));  // join waits for the running task
  go.set();
  joining.join();
  EXPECT_EQ(1, blockingCounters.runs.load());
  EXPECT_EQ(0, queuedCounters.runs.load());
  EXPECT_FALSE(startNew<CountingTask>(*pool, queuedCounters));  // after join
  delete pool;  // frees the queue with the pool
  EXPECT_EQ(0, queuedCounters.runs.load());
  EXPECT_EQ(11, queuedCounters.destroyed.load());
  // One release by the creator, one by the queue, for each queued task.
  EXPECT_EQ(21, queuedCounters.releases.load());
}

TEST(ThreadPoolTest, BadInputIsHarmless) {
  TaskCounters counters;
  int round = 0;
  for (bool joinOnDestroy : {true, false}) {
    ThreadPool* pool = ThreadPool::create(2, joinOnDestroy);
    EXPECT_FALSE(pool->start(nullptr));
    EXPECT_TRUE(startNew<CountingTask>(*pool, counters));
    ++round;
    ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 2 * round - 1; }));
    pool->join();
    pool->join();  // returns at once
    EXPECT_FALSE(startNew<CountingTask>(*pool, counters));
    pool->release();  // after join: nothing left to wait for
  }
  EXPECT_EQ(2, counters.runs.load());
  EXPECT_EQ(4, counters.destroyed.load());
}

// Starts further tasks on its own pool.
class SpawningTask : public CountingTask {
 public:
  SpawningTask(TaskCounters& c, ThreadPool& pool, int children)
      : CountingTask(c), mPool(pool), mChildren(children) {}

 protected:
  void work() override {
    for (int i = 0; i < mChildren; ++i) {
      if (startNew<SpawningTask>(mPool, mCounters, mPool, 0)) accepted.fetch_add(1);
    }
  }

 public:
  static std::atomic<int> accepted;

 private:
  ThreadPool& mPool;
  int mChildren;
};
std::atomic<int> SpawningTask::accepted{0};

TEST(ThreadPoolTest, StartFromInsideATask) {
  TaskCounters counters;
  SpawningTask::accepted = 0;
  {
    ThreadPool pool(2, true);
    ASSERT_TRUE(startNew<SpawningTask>(pool, counters, pool, 30));
    ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 31; }));
  }
  EXPECT_EQ(30, SpawningTask::accepted.load());
  EXPECT_EQ(31, counters.runs.load());
}

class ThrowingTask : public CountingTask {
 public:
  using CountingTask::CountingTask;

 protected:
  void work() override { throw std::runtime_error("task failed"); }
};

TEST(ThreadPoolTest, ATaskThatThrowsLeavesTheWorkerInService) {
  TaskCounters thrown, normal;
  {
    ThreadPool pool(1, true);
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(startNew<ThrowingTask>(pool, thrown));
      ASSERT_TRUE(startNew<CountingTask>(pool, normal));
    }
    ASSERT_TRUE(eventually([&] { return normal.destroyed.load() == 5; }));
  }
  EXPECT_EQ(5, thrown.runs.load());
  EXPECT_EQ(5, thrown.destroyed.load());
  EXPECT_EQ(5, normal.runs.load());
}

TEST(ThreadPoolTest, AsynchronousEndWhileTasksRun) {
  const int before = settledThreadCount();
  TaskCounters counters;
  Flag go;
  std::atomic<int> entered{0};
  ThreadPool* pool = ThreadPool::create(4, false);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(startNew<BlockingTask>(*pool, counters, go, &entered));
  ASSERT_TRUE(eventually([&] { return entered.load() == 4; }));
  for (int i = 0; i < 96; ++i) ASSERT_TRUE(startNew<CountingTask>(*pool, counters));
  pool->release();  // returns while four tasks still block
  EXPECT_FALSE(go.isSet());
  EXPECT_EQ(4, counters.runs.load());
  go.set();
  // Every task ran once or was released without running, and the last
  // worker has freed the workers, the queue and the pool.
  ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 100; }));
  EXPECT_EQ(4, counters.runs.load());
  EXPECT_TRUE(threadsDownTo(before));
}

TEST(ThreadPoolTest, AsynchronousEndFromInsideATask) {
  const int before = settledThreadCount();
  TaskCounters counters;
  class Ending : public CountingTask {
   public:
    Ending(TaskCounters& c, ThreadPool* p) : CountingTask(c), mPool(p) {}

   protected:
    void work() override { mPool->release(); }

   private:
    ThreadPool* mPool;
  };
  ThreadPool* pool = ThreadPool::create(3, false);
  ASSERT_TRUE(startNew<Ending>(*pool, counters, pool));
  ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 1; }));
  EXPECT_TRUE(threadsDownTo(before));
}

// Ends its pool from inside its run, then says so.
class PoolEndingTask : public CountingTask {
 public:
  PoolEndingTask(TaskCounters& c, ThreadPool* pool, Flag& ended)
      : CountingTask(c), mPool(pool), mEnded(ended) {}

 protected:
  void work() override {
    mPool->release();
    mEnded.set();
  }

 private:
  ThreadPool* mPool;
  Flag& mEnded;
};

// What the seam in start's window between queueing and waking works with.
struct QueuedWindow {
  Flag* go = nullptr;     // lets the blocking task end, so the queued one runs
  Flag* ended = nullptr;  // the queued task has ended the pool
  int threadsBefore = 0;
  std::atomic<bool> poolThreadGone{false};
};
QueuedWindow gWindow;

// Runs inside start, after the push: lets the queued task run and end the
// pool, then gives the last worker ample time to destroy it.
void holdStartAfterQueueing() {
  gWindow.go->set();
  gWindow.ended->waitFor();
  gWindow.poolThreadGone.store(threadsDownTo(gWindow.threadsBefore, zk3test::scaled(300)));
}

// The task that start has just queued ends the pool before start returns:
// the pool must not be destroyed under the start call (under ASan a use
// after free otherwise).
TEST(ThreadPoolTest, AQueuedTaskThatEndsThePoolWaitsForItsStartToLeave) {
  gWindow.threadsBefore = settledThreadCount();
  TaskCounters counters;
  Flag go, ended;
  std::atomic<int> entered{0};
  gWindow.go = &go;
  gWindow.ended = &ended;
  ThreadPool* pool = ThreadPool::create(1, false);
  ASSERT_TRUE(startNew<BlockingTask>(*pool, counters, go, &entered));
  ASSERT_TRUE(eventually([&] { return entered.load() == 1; }));
  zelkit3::detail::gAfterTaskQueued.store(&holdStartAfterQueueing);
  // The only worker is busy: this one goes through the queue.
  EXPECT_TRUE(startNew<PoolEndingTask>(*pool, counters, pool, ended));
  zelkit3::detail::gAfterTaskQueued.store(nullptr);
  EXPECT_TRUE(ended.isSet());
  EXPECT_FALSE(gWindow.poolThreadGone.load()) << "the pool was destroyed inside start";
  ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 2; }));
  EXPECT_TRUE(threadsDownTo(gWindow.threadsBefore));
}

TEST(ThreadPoolTest, AsynchronousEndRightAfterTheFirstTask) {
  // The last worker's unregister and the ending thread's snapshot overlap in
  // some of these rounds; either side may free the workers.
  const int before = settledThreadCount();
  TaskCounters counters;
  for (int i = 0; i < 300; ++i) {
    ThreadPool* pool = ThreadPool::create(1 + i % 3, false);
    ASSERT_TRUE(startNew<CountingTask>(*pool, counters));
    pool->release();
  }
  ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 300; }));
  EXPECT_TRUE(threadsDownTo(before));
}

// Its last release blocks in a cancellation point before it finishes.
class SlowReleaseTask final : public zelkit3::IRunnable {
 public:
  explicit SlowReleaseTask(std::atomic<int>& finished) : mFinished(finished) {}
  void run() override {}
  void addRef() override { mRefs.fetch_add(1); }
  void release() override {
    if (mRefs.fetch_sub(1) != 1) return;
    usleep(2000);
    mFinished.fetch_add(1);
    delete this;
  }

 private:
  std::atomic<int>& mFinished;
  std::atomic<int> mRefs{1};
};

TEST(ThreadPoolTest, LastWorkerDoesNotCancelTheQueuedTasksRelease) {
  const int before = settledThreadCount();
  TaskCounters counters;
  Flag go;
  std::atomic<int> entered{0};
  std::atomic<int> finished{0};
  ThreadPool* pool = ThreadPool::create(1, false);
  ASSERT_TRUE(startNew<BlockingTask>(*pool, counters, go, &entered));
  ASSERT_TRUE(eventually([&] { return entered.load() == 1; }));
  std::vector<SlowReleaseTask*> queued;
  for (int i = 0; i < 5; ++i) {
    auto* t = new SlowReleaseTask(finished);
    ASSERT_TRUE(pool->start(t));
    queued.push_back(t);
  }
  for (auto* t : queued) t->release();  // the queue holds the last references
  pool->release();
  go.set();
  // The queue is freed on the last worker's thread, after it has freed itself.
  EXPECT_TRUE(eventually([&] { return finished.load() == 5; }));
  EXPECT_TRUE(threadsDownTo(before));
}

// Sleeps a little in run, so that the pool is still ending when the
// process exits.
class NappingTask : public CountingTask {
 public:
  using CountingTask::CountingTask;

 protected:
  void work() override { usleep(1000); }
};

TEST(ThreadPoolTest, ProcessExitsCleanlyRightAfterAnAsynchronousEnd) {
  const zk3test::ChildResult child = zk3test::runInChild(
      [] {
        // Static: the tasks still count after the body has returned, while
        // the exit waits for the pool's threads.
        static TaskCounters counters;
        ThreadPool* pool = ThreadPool::create(4, false);
        for (int i = 0; i < 50; ++i) startNew<NappingTask>(*pool, counters);
        pool->release();  // and exit at once
      },
      zk3test::ChildExit::kRunExitHandlers);
  EXPECT_TRUE(child.exitedWith(0)) << child.describe();
}

// Many starters keep the workers going idle and being woken: each idle spell
// is counted once, whoever ends it, so once the pool is quiet again every
// started worker is counted as idle, and the count never drops below zero.
TEST(ThreadPoolTest, ConcurrentStartsFromManyThreads) {
  TaskCounters counters;
  {
    ThreadPool pool(4, true);
    zk3test::Gate gate(5);
    std::atomic<bool> startersDone{false};
    std::atomic<int> lowestIdleCount{0};
    std::vector<std::thread> starters;
    for (int s = 0; s < 4; ++s) {
      starters.emplace_back([&] {
        gate.arriveAndWait();
        for (int i = 0; i < 500; ++i) EXPECT_TRUE(startNew<CountingTask>(pool, counters));
      });
    }
    std::thread sampler([&] {
      gate.arriveAndWait();
      while (!startersDone.load()) {
        const int idle = ThreadPoolTestAccess::idleWorkers(pool);
        if (idle < lowestIdleCount.load()) lowestIdleCount.store(idle);
      }
    });
    for (auto& t : starters) t.join();
    startersDone.store(true);
    sampler.join();
    ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 2000; }));
    EXPECT_EQ(0, lowestIdleCount.load());
    ASSERT_TRUE(eventually([&] {
      return ThreadPoolTestAccess::idleWorkers(pool) == ThreadPoolTestAccess::startedWorkers(pool);
    }));
    // A task queued behind a busy pool needs no wake-up; one given to an idle
    // pool still runs.
    EXPECT_TRUE(startNew<CountingTask>(pool, counters));
    ASSERT_TRUE(eventually([&] { return counters.destroyed.load() == 2001; }));
  }
  EXPECT_EQ(2001, counters.runs.load());
}

}  // namespace
