// Test helpers for concurrency: a start gate, and a way to know that a
// thread is really blocked before the test goes on, without sleeping.
#ifndef ZELKIT3_TESTS_SUPPORT_SYNC_H
#define ZELKIT3_TESTS_SUPPORT_SYNC_H

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

namespace zk3test {

// Time bounds in tests are scaled by this (larger under sanitizers).
constexpr int kTimeScale = ZK3_TEST_TIME_SCALE;

inline std::chrono::milliseconds scaled(int ms) { return std::chrono::milliseconds(ms * kTimeScale); }

// Lets n threads pass together: the last to arrive opens it for all.
class Gate {
 public:
  explicit Gate(int n) : mLeft(n) {}
  void arriveAndWait() {
    std::unique_lock<std::mutex> lock(mMutex);
    if (--mLeft <= 0) {
      mCv.notify_all();
      return;
    }
    mCv.wait(lock, [this] { return mLeft <= 0; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mCv;
  int mLeft;
};

// Polls pred every millisecond until it holds (true) or ms, scaled, have
// passed (false): for a result that another thread or process brings about.
template <class Pred>
bool eventually(Pred pred, int ms = 10000) {
  const auto end = std::chrono::steady_clock::now() + scaled(ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// The scheduler state letter of one of our threads ('R', 'S', ...).
inline char threadState(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string all((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const std::string::size_type close = all.rfind(')');
  return close == std::string::npos || close + 2 >= all.size() ? '?' : all[close + 2];
}

// Polls until the thread sleeps in the kernel (a futex wait, here): the
// thread has reached its blocking call. False if it never does within the
// bound, so a test fails instead of hanging.
inline bool waitUntilBlocked(pid_t tid, std::chrono::milliseconds bound = scaled(10000)) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  int sleepingSeen = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    // Two readings in a row, so that a thread that just passed through a
    // short sleep on its way is not mistaken for a blocked one.
    sleepingSeen = threadState(tid) == 'S' ? sleepingSeen + 1 : 0;
    if (sleepingSeen >= 3) return true;
    std::this_thread::yield();
  }
  return false;
}

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_SUPPORT_SYNC_H
