// The one way tests run code in a child process: fork, a watchdog in the
// child, a bounded wait in the parent, the end decoded (exit code or signal),
// and the child's stdout and stderr kept aside, to be shown only when the
// test's expectation about the child fails:
//
//   zk3test::Child child([&] { ...; return 0; });
//   EXPECT_EQ(0, child.wait()) << child.describe();
//
//   const zk3test::ChildResult r = zk3test::runInChild([] { ... });
//   EXPECT_EQ(0, r.status()) << r.describe();
#ifndef ZELKIT3_TESTS_SUPPORT_CHILD_H
#define ZELKIT3_TESTS_SUPPORT_CHILD_H

#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>

#include "support/sync.h"

namespace zk3test {

// How the child leaves once its body has returned.
enum class ChildExit {
  kImmediate,        // _exit: no exit handlers, no unload, no flush
  kRunExitHandlers,  // exit: handlers, static destructors and the library's unload run
};

// How a child ended.
struct ChildResult {
  enum class End { kNotStarted, kRunning, kExited, kSignalled, kTimedOut };
  End end = End::kNotStarted;
  int code = -1;       // the exit code, or the signal's number
  std::string output;  // what the child wrote to stdout and stderr

  bool killedBy(int sig) const { return end == End::kSignalled && code == sig; }
  // One number for one assertion: the exit code, 128 + the signal, or -1
  // when the child did not start or did not end within the bound.
  int status() const {
    return end == End::kExited ? code : end == End::kSignalled ? 128 + code : -1;
  }
  std::string describe() const {
    std::string text;
    switch (end) {
      case End::kNotStarted: text = "child: fork failed"; break;
      case End::kRunning: text = "child: still running"; break;
      case End::kExited: text = "child: exited with " + std::to_string(code); break;
      case End::kSignalled:
        text = "child: killed by signal " + std::to_string(code) + " (" + strsignal(code) + ")";
        if (code == SIGALRM) text += ", its watchdog";
        break;
      case End::kTimedOut: text = "child: still running at the bound, killed"; break;
    }
    if (output.empty()) return text + ", no output";
    return text + ", its output:\n" + output;
  }
};

// A forked child that runs body (a callable giving the exit code, or giving
// nothing for 0; 99 when it throws) under alarm(watchdog), then leaves as
// `how` says. Destroying an unfinished child kills and reaps it.
class Child {
 public:
  template <class Body>
  explicit Child(Body body, std::chrono::seconds watchdog = std::chrono::seconds(20 * kTimeScale),
                 ChildExit how = ChildExit::kImmediate) {
    mOutput = memfd_create("zk3-child-output", MFD_CLOEXEC);
    std::fflush(stdout);
    std::fflush(stderr);
    mPid = fork();
    if (mPid == 0) {
      signal(SIGALRM, SIG_DFL);  // a watchdog handler of the parent is not ours
      alarm(static_cast<unsigned>(watchdog.count()));
      if (mOutput >= 0) {
        dup2(mOutput, 1);
        dup2(mOutput, 2);
        close(mOutput);
      }
      int code = 99;
      try {
        if constexpr (std::is_void<decltype(body())>::value) {
          body();
          code = 0;
        } else {
          code = static_cast<int>(body());
        }
      } catch (...) {
      }
      // Through a pointer the compiler cannot see as noreturn: ASan's hook
      // before a noreturn call crashes at random in a child forked from a
      // multi-threaded parent, while the exit itself runs fine.
      void (*volatile leave)(int) = how == ChildExit::kImmediate ? _exit : exit;
      leave(code);
    }
    mResult.end = mPid < 0 ? ChildResult::End::kNotStarted : ChildResult::End::kRunning;
  }
  ~Child() {
    if (running()) {
      kill(mPid, SIGKILL);
      waitpid(mPid, nullptr, 0);
    }
    if (mOutput >= 0) close(mOutput);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return mPid; }

  // Waits for the end within bound (then kills the child), looking every
  // millisecond; the status as ChildResult::status gives it.
  int wait(std::chrono::milliseconds bound = scaled(10000)) {
    if (!running()) return mResult.status();
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!reap(WNOHANG)) {
      if (std::chrono::steady_clock::now() >= deadline) {
        kill(mPid, SIGKILL);
        reap(0);
        mResult.end = ChildResult::End::kTimedOut;
        mResult.code = -1;
        break;
      }
      usleep(1000);
    }
    return mResult.status();
  }
  // SIGKILL and reap; true when it died by that signal.
  bool killNow() {
    if (running()) kill(mPid, SIGKILL);
    wait();
    return mResult.killedBy(SIGKILL);
  }

  const ChildResult& result() const { return mResult; }
  std::string describe() const { return mResult.describe(); }

 private:
  bool running() const { return mResult.end == ChildResult::End::kRunning; }

  // True once the child is reaped; its end and output are then kept.
  bool reap(int flags) {
    int status = 0;
    const pid_t r = waitpid(mPid, &status, flags);
    if (r == 0) return false;
    if (r != mPid) {
      mResult.end = ChildResult::End::kTimedOut;  // lost: nothing to wait for
      return true;
    }
    if (WIFEXITED(status)) {
      mResult.end = ChildResult::End::kExited;
      mResult.code = WEXITSTATUS(status);
    } else {
      mResult.end = ChildResult::End::kSignalled;
      mResult.code = WTERMSIG(status);
    }
    readOutput();
    return true;
  }
  void readOutput() {
    if (mOutput < 0) return;
    char buffer[4096];
    off_t at = 0;
    ssize_t n;
    while ((n = pread(mOutput, buffer, sizeof buffer, at)) > 0) {
      mResult.output.append(buffer, static_cast<size_t>(n));
      at += n;
    }
  }

  pid_t mPid = -1;
  int mOutput = -1;
  ChildResult mResult;
};

// Runs body in a child to its end, within bound (the child's watchdog
// included).
template <class Body>
ChildResult runInChild(Body body, ChildExit how = ChildExit::kImmediate,
                       std::chrono::milliseconds bound = scaled(20000)) {
  Child child(std::move(body),
              std::chrono::duration_cast<std::chrono::seconds>(bound) + std::chrono::seconds(1),
              how);
  child.wait(bound);
  return child.result();
}

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_SUPPORT_CHILD_H
