// Test helpers for concurrency: a start gate, and a way to know that a
// thread is really blocked before the test goes on, without sleeping.
#ifndef ZELKIT3_TESTS_SUPPORT_SYNC_H
#define ZELKIT3_TESTS_SUPPORT_SYNC_H

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <latch>
#include <set>
#include <string>
#include <thread>

#include "support/temp_dir.h"

namespace zk3test {

// Time bounds in tests are scaled by this (larger under sanitizers).
constexpr int kTimeScale = ZK3_TEST_TIME_SCALE;

inline std::chrono::milliseconds scaled(int ms) {
  return std::chrono::milliseconds(ms * kTimeScale);
}

// The start gate: n threads arrive_and_wait, each once, and the last to come
// lets them all pass.
using Gate = std::latch;

// Polls pred every millisecond until it holds (true) or the bound has passed
// (false): for a result that another thread or process brings about. pred is
// asked at least once.
template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds bound = scaled(10000)) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline pid_t currentTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// The ids of this process's threads.
inline std::set<pid_t> threadIds() {
  std::set<pid_t> ids;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    ids.insert(std::stoi(task.path().filename()));
  return ids;
}

// Polls until the thread sleeps in the kernel (a futex wait, here) at three
// readings in a row, so that a thread passing through a short sleep on its
// way is not taken for a blocked one: the thread has reached its blocking
// call. False if it never does within the bound, so a test fails instead of
// hanging.
inline bool waitUntilBlocked(pid_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  int sleepingSeen = 0;
  return eventually([&] {
    const std::string stat = readFile(path);
    const std::string::size_type close = stat.rfind(')');  // the state letter follows ") "
    const bool sleeping =
        close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S';
    sleepingSeen = sleeping ? sleepingSeen + 1 : 0;
    return sleepingSeen >= 3;
  });
}

// Runs call on a thread of its own and gives its result's future once that
// thread is blocked.
template <class F>
auto blocked(F call) -> std::future<decltype(call())> {
  std::promise<pid_t> tid;
  auto result = std::async(std::launch::async, [&tid, call] {
    tid.set_value(currentTid());
    return call();
  });
  EXPECT_TRUE(waitUntilBlocked(tid.get_future().get()));
  return result;
}

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_SUPPORT_SYNC_H
