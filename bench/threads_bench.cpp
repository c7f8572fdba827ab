// Thread pool throughput and latency against boost::asio::thread_pool and a
// plain std::thread pool; timer jitter of the shared timer thread.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include "ratio_reporter.h"
#include "zelkit3/thread_pool.h"
#include "zelkit3/timer.h"

namespace {

constexpr int kTasks = 1000000;
constexpr unsigned kThreads = 4;

// A task without a count of its own: the same object is started again and
// again, so that only the pool's work is measured.
class TrivialTask : public zelkit3::IRunnable {
 public:
  explicit TrivialTask(std::atomic<int>& done) : mDone(done) {}
  void run() override { mDone.fetch_add(1, std::memory_order_relaxed); }
  void addRef() override {}
  void release() override {}

 private:
  std::atomic<int>& mDone;
};

void waitFor(std::atomic<int>& done, int n) {
  while (done.load(std::memory_order_acquire) < n) std::this_thread::yield();
}

// The obvious pool: one mutex, one deque, one condition variable.
class PlainPool {
 public:
  explicit PlainPool(unsigned n) {
    for (unsigned i = 0; i < n; ++i) {
      mThreads.emplace_back([this] {
        for (;;) {
          std::function<void()> job;
          {
            std::unique_lock<std::mutex> lock(mMutex);
            mCv.wait(lock, [this] { return mStop || !mJobs.empty(); });
            if (mJobs.empty()) return;
            job = std::move(mJobs.front());
            mJobs.pop_front();
          }
          job();
        }
      });
    }
  }
  ~PlainPool() {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mStop = true;
    }
    mCv.notify_all();
    for (auto& t : mThreads) t.join();
  }
  void post(std::function<void()> job) {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mJobs.push_back(std::move(job));
    }
    mCv.notify_one();
  }

 private:
  std::mutex mMutex;
  std::condition_variable mCv;
  std::deque<std::function<void()> > mJobs;
  bool mStop = false;
  std::vector<std::thread> mThreads;
};

// ---- throughput: 1,000,000 trivial tasks from one producer ---------------------

void BM_Throughput_ZelKit3Pool(benchmark::State& state) {
  for (auto _ : state) {
    std::atomic<int> done{0};
    TrivialTask task(done);
    zelkit3::ThreadPool pool(kThreads, true);
    for (int i = 0; i < kTasks; ++i) pool.start(&task);
    waitFor(done, kTasks);
    pool.join();
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}

void BM_Throughput_AsioPool(benchmark::State& state) {
  for (auto _ : state) {
    std::atomic<int> done{0};
    boost::asio::thread_pool pool(kThreads);
    for (int i = 0; i < kTasks; ++i) {
      boost::asio::post(pool, [&done] { done.fetch_add(1, std::memory_order_relaxed); });
    }
    waitFor(done, kTasks);
    pool.join();
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}

void BM_Throughput_PlainPool(benchmark::State& state) {
  for (auto _ : state) {
    std::atomic<int> done{0};
    PlainPool pool(kThreads);
    for (int i = 0; i < kTasks; ++i) {
      pool.post([&done] { done.fetch_add(1, std::memory_order_relaxed); });
    }
    waitFor(done, kTasks);
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}

// ---- latency: one task on an idle pool, from start to its run ------------------

void BM_Latency_ZelKit3Pool(benchmark::State& state) {
  std::atomic<int> done{0};
  TrivialTask task(done);
  zelkit3::ThreadPool pool(kThreads, true);
  pool.start(&task);  // the first thread exists before the measurement
  waitFor(done, 1);
  int n = 1;
  for (auto _ : state) {
    pool.start(&task);
    waitFor(done, ++n);
    state.PauseTiming();
    std::this_thread::sleep_for(std::chrono::microseconds(200));  // idle again
    state.ResumeTiming();
  }
}

void BM_Latency_AsioPool(benchmark::State& state) {
  std::atomic<int> done{0};
  boost::asio::thread_pool pool(kThreads);
  int n = 0;
  for (auto _ : state) {
    boost::asio::post(pool, [&done] { done.fetch_add(1, std::memory_order_release); });
    waitFor(done, ++n);
    state.PauseTiming();
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    state.ResumeTiming();
  }
  pool.join();
}

void BM_Latency_PlainPool(benchmark::State& state) {
  std::atomic<int> done{0};
  PlainPool pool(kThreads);
  int n = 0;
  for (auto _ : state) {
    pool.post([&done] { done.fetch_add(1, std::memory_order_release); });
    waitFor(done, ++n);
    state.PauseTiming();
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    state.ResumeTiming();
  }
}

// ---- timer jitter: a 100 ms timer alone and among ten ---------------------------

class Recorder : public zelkit3::IThreadTimerManagerCallback {
 public:
  void onTimer(unsigned long) override {
    std::lock_guard<std::mutex> lock(mMutex);
    mTimes.push_back(std::chrono::steady_clock::now());
    mCv.notify_all();
  }
  void waitForFirings(size_t n) {
    std::unique_lock<std::mutex> lock(mMutex);
    mCv.wait(lock, [&] { return mTimes.size() >= n; });
  }
  std::vector<double> gapsMs() {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<double> gaps;
    for (size_t i = 1; i < mTimes.size(); ++i) {
      gaps.push_back(std::chrono::duration<double, std::milli>(mTimes[i] - mTimes[i - 1]).count());
    }
    return gaps;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mCv;
  std::vector<std::chrono::steady_clock::time_point> mTimes;
};

class Idle : public zelkit3::IThreadTimerManagerCallback {
 public:
  void onTimer(unsigned long) override {}
};

// Reports the mean gap between firings and its spread beyond the period.
void timerJitter(benchmark::State& state, int companions) {
  const int firings = 20;
  double meanSum = 0, maxLate = 0, sdSum = 0;
  for (auto _ : state) {
    Idle idle;
    std::vector<unsigned long> others;
    // Companions of longer periods: they only shrink the poll interval.
    for (int i = 0; i < companions; ++i) {
      others.push_back(zelkit3::CThreadTimerManager::setTimer(&idle, 1000 + 100 * i));
    }
    Recorder recorder;
    const unsigned long id = zelkit3::CThreadTimerManager::setTimer(&recorder, 100);
    recorder.waitForFirings(firings + 1);
    zelkit3::CThreadTimerManager::killTimer(id);
    for (unsigned long other : others) zelkit3::CThreadTimerManager::killTimer(other);
    const std::vector<double> gaps = recorder.gapsMs();
    double mean = 0;
    for (double g : gaps) mean += g;
    mean /= gaps.size();
    double var = 0;
    for (double g : gaps) {
      var += (g - mean) * (g - mean);
      maxLate = std::max(maxLate, g - 100.0);
    }
    meanSum += mean;
    sdSum += std::sqrt(var / gaps.size());
  }
  state.counters["mean_gap_ms"] = meanSum / state.iterations();
  state.counters["stddev_ms"] = sdSum / state.iterations();
  state.counters["max_late_ms"] = maxLate;
}

void BM_TimerJitter_100msAlone(benchmark::State& state) { timerJitter(state, 0); }
void BM_TimerJitter_100msAmongTen(benchmark::State& state) { timerJitter(state, 9); }

}  // namespace

BENCHMARK(BM_Throughput_ZelKit3Pool)->Name("pool_1M_tasks/ours")->Unit(benchmark::kMillisecond)
    ->UseRealTime()->Iterations(3);
BENCHMARK(BM_Throughput_AsioPool)->Name("pool_1M_tasks/asio")->Unit(benchmark::kMillisecond)
    ->UseRealTime()->Iterations(3);
BENCHMARK(BM_Throughput_PlainPool)->Name("pool_1M_tasks/plain")->Unit(benchmark::kMillisecond)
    ->UseRealTime()->Iterations(3);
BENCHMARK(BM_Latency_ZelKit3Pool)->Name("idle_pool_latency/ours")->Unit(benchmark::kMicrosecond)
    ->UseRealTime()->Iterations(2000);
BENCHMARK(BM_Latency_AsioPool)->Name("idle_pool_latency/asio")->Unit(benchmark::kMicrosecond)
    ->UseRealTime()->Iterations(2000);
BENCHMARK(BM_Latency_PlainPool)->Name("idle_pool_latency/plain")->Unit(benchmark::kMicrosecond)
    ->UseRealTime()->Iterations(2000);
BENCHMARK(BM_TimerJitter_100msAlone)->Name("timer_100ms_alone")->Unit(benchmark::kMillisecond)
    ->UseRealTime()->Iterations(1);
BENCHMARK(BM_TimerJitter_100msAmongTen)->Name("timer_100ms_among_ten")
    ->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

ZK3_BENCHMARK_MAIN();
