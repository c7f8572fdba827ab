// The one way tests run code in a child process: fork, a watchdog in the
// child, a bounded wait in the parent, the end decoded (exit code or signal),
// and the child's stdout and stderr kept aside, to be shown only when the
// test's expectation about the child fails:
//
//   zk3test::Child child([&] { ...; return 0; });
//   EXPECT_EQ(0, child.wait()) << child.describe();
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
#include <string>
#include <type_traits>

#include "support/sync.h"

namespace zk3test {

// A forked child that runs body (a callable giving the exit code, or giving
// nothing for 0; 99 when it throws) under a watchdog alarm of 20 s, scaled.
// It leaves through _exit, or, with runExitHandlers, through exit, so that
// exit handlers, static destructors and the library's unload run. Destroying
// an unfinished child kills and reaps it.
class Child {
 public:
  template <class Body>
  explicit Child(Body body, bool runExitHandlers = false) {
    std::fflush(nullptr);
    mPid = fork();
    if (mPid < 0) mStatus = -1;
    if (mPid != 0) return;
    signal(SIGALRM, SIG_DFL);  // a watchdog handler of the parent is not ours
    alarm(20 * kTimeScale);
    dup2(mFd, 1);
    dup2(mFd, 2);
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
    void (*volatile leave)(int) = runExitHandlers ? exit : _exit;
    leave(code);
  }
  ~Child() {
    wait(std::chrono::milliseconds(0));
    close(mFd);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return mPid; }
  const std::string& output() const { return mOutput; }

  // Waits for the end, looking every millisecond, and kills the child at the
  // bound. Gives the exit code, 128 + the signal, or -1 when the child did
  // not start, was killed at the bound or was reaped by someone else.
  int wait(std::chrono::milliseconds bound = scaled(10000)) {
    if (mStatus != kRunning) return mStatus;
    int status = 0;
    pid_t r = 0;
    if (!eventually([&] { return (r = waitpid(mPid, &status, WNOHANG)) != 0; }, bound)) {
      kill(mPid, SIGKILL);  // at the bound
      waitpid(mPid, nullptr, 0);
    }
    // -1 also when waitpid failed: the child is not ours to wait for any more.
    mStatus = r != mPid ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    char buffer[4096];
    for (ssize_t n; (n = pread(mFd, buffer, sizeof buffer, mOutput.size())) > 0;)
      mOutput.append(buffer, static_cast<size_t>(n));
    return mStatus;
  }
  // SIGKILL and reap; true when that signal ended it.
  bool killNow() {
    if (mStatus == kRunning) kill(mPid, SIGKILL);
    return wait() == 128 + SIGKILL;
  }

  // How it ended (SIGALRM: its watchdog), and its output.
  std::string describe() const {
    std::string end = "exited with " + std::to_string(mStatus);
    if (mStatus == kRunning) end = "still running";
    if (mStatus == -1) end = "not started, killed at the bound or lost";
    if (mStatus > 128)
      end = "killed by signal " + std::to_string(mStatus - 128) + " (" + strsignal(mStatus - 128) +
            ")";
    return "child: " + end + (mOutput.empty() ? ", no output" : ", its output:\n" + mOutput);
  }

 private:
  static constexpr int kRunning = -2;
  pid_t mPid = -1;
  int mStatus = kRunning;
  const int mFd = memfd_create("zk3-child-output", MFD_CLOEXEC);
  std::string mOutput;
};

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_SUPPORT_CHILD_H
