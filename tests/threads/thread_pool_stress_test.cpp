// Many pools, many tasks, both ends, under a watchdog.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <thread>

#include "test_util.h"
#include "zelkit3/thread_pool.h"

namespace {

using zelkit3::ThreadPool;
using zk3test::eventually;
using zk3test::scaled;

// About 2 s without sanitizers and 20 s under ThreadSanitizer.
const int kRounds = 200;
const int kTasksPerRound = 10000;

// Aborts the process if the test has not finished in time, so that a hang
// becomes a failure with a core instead of a ctest time-out.
class Watchdog {
 public:
  explicit Watchdog(std::chrono::milliseconds bound)
      : mThread([this, bound] {
          std::unique_lock<std::mutex> lock(mMutex);
          if (!mCv.wait_for(lock, bound, [this] { return mDone; })) {
            std::fprintf(stderr, "watchdog: stress test hangs\n");
            std::abort();
          }
        }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mDone = true;
    }
    mCv.notify_all();
    mThread.join();
  }

 private:
  std::mutex mMutex;
  std::condition_variable mCv;
  bool mDone = false;
  std::thread mThread;
};

// The public pool of one round, with a guard that keeps tasks from calling
// it once its end has begun.
struct Round {
  ThreadPool* pool = nullptr;
  std::shared_mutex guard;
  bool ended = false;
  std::atomic<int> created{0};
  std::atomic<int> ran{0};
  std::atomic<int> destroyed{0};
  std::atomic<int> enders{2};  // EndingTasks yet to run
};

class StressTask : public zelkit3::IRunnable {
 public:
  StressTask(Round& round, int children) : mRound(round), mChildren(children) {
    mRound.created.fetch_add(1);
  }
  void run() override {
    mRound.ran.fetch_add(1);
    for (int i = 0; i < mChildren; ++i) {
      std::shared_lock<std::shared_mutex> lock(mRound.guard);
      if (mRound.ended) return;
      auto* child = new StressTask(mRound, 0);
      mRound.pool->start(child);
      child->release();
    }
  }
  void addRef() override { mRefs.fetch_add(1); }
  void release() override {
    if (mRefs.fetch_sub(1) == 1) {
      Round& round = mRound;
      delete this;
      round.destroyed.fetch_add(1);
    }
  }

 protected:
  virtual ~StressTask() {}
  Round& round() { return mRound; }

 private:
  Round& mRound;
  const int mChildren;
  std::atomic<int> mRefs{1};
};

// Ends the pool of its round from inside its run once both starters have
// queued theirs: so the pool ends while either start may still be inside.
class EndingTask : public StressTask {
 public:
  explicit EndingTask(Round& round) : StressTask(round, 0) {}
  void run() override {
    StressTask::run();
    Round& round = this->round();
    if (round.enders.fetch_sub(1) != 1) return;
    {
      std::unique_lock<std::shared_mutex> lock(round.guard);
      round.ended = true;
    }
    round.pool->release();
  }
};

// How a round ends.
enum class End { kJoin, kAsyncByCaller, kAsyncByTask };

TEST(ThreadPoolStressTest, ManyPoolsEveryEnd) {
  Watchdog watchdog(scaled(50000));  // inside the ctest time-out of 300 s
  const int before = zk3test::settledThreadCount();
  const unsigned seed = 20261123u;
  std::mt19937 random(seed);
  int ends[3] = {0, 0, 0};
  for (int r = 0; r < kRounds; ++r) {
    Round round;
    const unsigned threads = random() % 9;  // 0 asks for the default of 5
    const End end = static_cast<End>(random() % 3);
    ++ends[static_cast<int>(end)];
    round.pool = ThreadPool::create(threads, end == End::kJoin);
    auto startSome = [&round](int from, int to) {
      for (int i = from; i < to; ++i) {
        auto* task = new StressTask(round, i % 97 == 0 ? 3 : 0);
        round.pool->start(task);
        task->release();
      }
    };
    if (end == End::kAsyncByTask) {
      // The caller and a helper each queue half of the tasks and then one
      // ender, at once; the later ender to run ends the pool.
      zk3test::Gate gate(2);
      auto starter = [&](int from, int to) {
        gate.arriveAndWait();
        startSome(from, to);
        auto* ender = new EndingTask(round);
        round.pool->start(ender);
        ender->release();
      };
      std::thread helper(starter, 0, kTasksPerRound / 2);
      starter(kTasksPerRound / 2, kTasksPerRound);
      helper.join();
    } else {
      startSome(0, kTasksPerRound);
      {
        std::unique_lock<std::shared_mutex> lock(round.guard);
        round.ended = true;
      }
      round.pool->release();  // joins, or ends asynchronously
    }
    if (end == End::kJoin) {
      ASSERT_EQ(round.created.load(), round.destroyed.load()) << "round " << r << ", seed " << seed;
    } else {
      ASSERT_TRUE(eventually([&] { return round.destroyed.load() == round.created.load(); },
                             scaled(60000)))
          << "round " << r << ", seed " << seed;
    }
    ASSERT_LE(round.ran.load(), round.created.load());
  }
  for (int count : ends) EXPECT_GT(count, 0);
  // The last asynchronous end finishes on its own thread.
  EXPECT_TRUE(zk3test::threadsDownTo(before));
}

}  // namespace
