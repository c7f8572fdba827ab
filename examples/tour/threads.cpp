// Threads: tasks on a bounded pool, and a periodic timer on the shared timer
// thread.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "tour.h"
#include "zelkit3/thread_pool.h"
#include "zelkit3/timer.h"

namespace {

// A task that sums a range; it counts its own references, as every task must.
class SumTask final : public zelkit3::IRunnable {
 public:
  SumTask(int from, int to, std::atomic<long long>& total, std::atomic<int>& done)
      : mFrom(from), mTo(to), mTotal(total), mDone(done) {}
  void run() override {
    long long sum = 0;
    for (int i = mFrom; i < mTo; ++i) sum += i;
    mTotal.fetch_add(sum);
    mDone.fetch_add(1);
  }
  void addRef() override { mRefs.fetch_add(1); }
  void release() override {
    if (mRefs.fetch_sub(1) == 1) delete this;
  }

 private:
  ~SumTask() {}
  int mFrom, mTo;
  std::atomic<long long>& mTotal;
  std::atomic<int>& mDone;
  std::atomic<int> mRefs{1};
};

// Counts its firings and tells the waiting tour when it has enough.
class Ticker : public zelkit3::IThreadTimerManagerCallback {
 public:
  void onTimer(unsigned long) override {
    std::lock_guard<std::mutex> lock(mMutex);
    ++mTicks;
    mCv.notify_all();
  }
  bool waitForTicks(int n) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mCv.wait_for(lock, std::chrono::seconds(10), [&] { return mTicks >= n; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mCv;
  int mTicks = 0;
};

int threads() {
  // 100 tasks of 1000 numbers each on four workers. join runs no task that
  // has not begun, so the tour waits for all of them first.
  std::atomic<long long> total{0};
  std::atomic<int> done{0};
  zelkit3::ThreadPool* pool = zelkit3::ThreadPool::create(4, true);
  int accepted = 0;
  for (int i = 0; i < 100; ++i) {
    SumTask* task = new SumTask(i * 1000, (i + 1) * 1000, total, done);
    if (pool->start(task)) ++accepted;
    task->release();  // the pool holds its own reference
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (done.load() < accepted && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  pool->join();
  pool->release();
  const long long expected = 99999LL * 100000LL / 2;
  std::printf("   pool ran %d tasks: sum of 0..99999 = %lld (expected %lld)\n", accepted,
              total.load(), expected);

  // A 50 ms timer, five firings, then killed: its thread goes with it.
  Ticker ticker;
  const auto begin = std::chrono::steady_clock::now();
  const unsigned long id = zelkit3::CThreadTimerManager::setTimer(&ticker, 50);
  const bool ticked = ticker.waitForTicks(5);
  zelkit3::CThreadTimerManager::killTimer(id);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - begin).count();
  std::printf("   timer of 50 ms fired 5 times in %ld ms\n", static_cast<long>(ms));
  return (accepted == 100 && total.load() == expected && ticked && ms > 250) ? 0 : 1;
}

}  // namespace

TOUR_STOP("threads", threads);
