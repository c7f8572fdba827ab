// Helpers for the tests of the threads family.
#ifndef ZELKIT3_TESTS_THREADS_TEST_UTIL_H
#define ZELKIT3_TESTS_THREADS_TEST_UTIL_H

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "support/sync.h"
#include "zelkit3/thread_pool.h"

namespace zk3test {

// A manual-reset flag that threads can wait for with a bound.
class Flag {
 public:
  void set() {
    std::lock_guard<std::mutex> lock(mMutex);
    mSet = true;
    mCv.notify_all();
  }
  bool isSet() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mSet;
  }
  // False if the bound passed first.
  bool waitFor(std::chrono::milliseconds bound = scaled(10000)) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mCv.wait_for(lock, bound, [this] { return mSet; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mCv;
  bool mSet = false;
};

// Waits until pred() holds, polling; false if the bound passes first.
template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds bound = scaled(10000)) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// The number of threads of this process.
inline int threadCount() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
  }
  return count;
}

// The thread count once threads that were ended just now have gone. A first
// thread is made and joined, so that helpers of the runtime that come with
// the first thread (a sanitizer's, for one) are already counted.
inline int settledThreadCount() {
  std::thread([] {}).join();
  int last = threadCount();
  for (int i = 0; i < 200; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const int now = threadCount();
    if (now == last && i > 4) break;
    last = now;
  }
  return last;
}

// Waits until no more than `count` threads are left: after an asynchronous
// end, the last worker frees the pool on its own thread, and the process must
// not exit before it has done so.
inline bool threadsDownTo(int count, std::chrono::milliseconds bound = scaled(20000)) {
  return eventually([count] { return threadCount() <= count; }, bound);
}

// A task with a reference count that counts its runs and releases. It
// deletes itself at its last release, like a real task; the counters live
// outside so that tests can read them afterwards.
struct TaskCounters {
  std::atomic<int> runs{0};
  std::atomic<int> releases{0};   // calls of release
  std::atomic<int> destroyed{0};  // last releases
};

class CountingTask : public zelkit3::IRunnable {
 public:
  explicit CountingTask(TaskCounters& counters) : mCounters(counters) {}
  void run() override {
    mCounters.runs.fetch_add(1);
    work();
  }
  void addRef() override { mRefs.fetch_add(1); }
  void release() override {
    mCounters.releases.fetch_add(1);
    if (mRefs.fetch_sub(1) == 1) {
      mCounters.destroyed.fetch_add(1);
      delete this;
    }
  }
  int refs() const { return mRefs.load(); }

 protected:
  virtual ~CountingTask() {}
  virtual void work() {}
  TaskCounters& mCounters;

 private:
  std::atomic<int> mRefs{1};
};

// A counting task that also notes its number, in the order tasks run.
class RecordingTask : public CountingTask {
 public:
  RecordingTask(TaskCounters& c, std::vector<int>& order, std::mutex& m, int n)
      : CountingTask(c), mOrder(order), mMutex(m), mN(n) {}

 protected:
  void work() override {
    std::lock_guard<std::mutex> lock(mMutex);
    mOrder.push_back(mN);
  }

 private:
  std::vector<int>& mOrder;
  std::mutex& mMutex;
  int mN;
};

// A counting task that blocks in run until its flag is set.
class BlockingTask : public CountingTask {
 public:
  BlockingTask(TaskCounters& counters, Flag& go, std::atomic<int>* entered = nullptr)
      : CountingTask(counters), mGo(go), mEntered(entered) {}

 protected:
  void work() override {
    if (mEntered) mEntered->fetch_add(1);
    mGo.waitFor(scaled(60000));
  }

 private:
  Flag& mGo;
  std::atomic<int>* mEntered;
};

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_THREADS_TEST_UTIL_H
