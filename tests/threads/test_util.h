// Helpers for the tests of the threads family.
#ifndef ZELKIT3_TESTS_THREADS_TEST_UTIL_H
#define ZELKIT3_TESTS_THREADS_TEST_UTIL_H

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

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
