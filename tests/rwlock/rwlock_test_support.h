// Helpers for the multi-process tests of the cross-process lock: the kit's
// temporary folder made to remove the semaphore sets of its files too, pipe
// signals between processes, and a look at the raw semaphore values. Child
// processes are the kit's.
#ifndef ZELKIT3_TESTS_RWLOCK_SUPPORT_H
#define ZELKIT3_TESTS_RWLOCK_SUPPORT_H

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <set>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/sync.h"
#include "support/temp_dir.h"

namespace rwtest {

constexpr int kN = 10000;  // gReadersCount as the library has it.

// Milliseconds on the clock the lock uses for its deadlines.
inline long long wallMs() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<long long>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

inline key_t keyOf(const std::string& path) { return ftok(path.c_str(), 0x43); }

inline int setIdOf(key_t key) { return key == -1 ? -1 : semget(key, 0, 0); }

inline void removeSetOfKey(key_t key) {
  const int id = setIdOf(key);
  if (id != -1) semctl(id, 0, IPC_RMID, 0);
}

// The three semaphore values of the set of `path`; all -1 without a set.
inline std::array<int, 3> semValues(const std::string& path) {
  const int id = setIdOf(keyOf(path));
  std::array<int, 3> v{{-1, -1, -1}};
  if (id == -1) return v;
  for (int i = 0; i < 3; ++i) v[i] = semctl(id, i, GETVAL);
  return v;
}

inline bool setExists(const std::string& path) { return setIdOf(keyOf(path)) != -1; }

// Waits until at least `count` processes block in semop on semaphore `num`
// of the set of `path` (the kernel's GETNCNT / GETZCNT).
inline bool waitForWaiters(const std::string& path, int num, int count,
                           int ms = 5000 * zk3test::kTimeScale) {
  const long long end = wallMs() + ms;
  for (;;) {
    const int id = setIdOf(keyOf(path));
    if (id != -1 && semctl(id, num, GETNCNT) >= count) return true;
    if (wallMs() > end) return false;
    usleep(200);
  }
}

inline int openDescriptors() {
  int count = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (dirent* e = readdir(d)) count += e->d_name[0] != '.';
    closedir(d);
  }
  return count;
}

// The private folder of a test (the kit's), whose semaphore sets go with
// it: the set of every file in it and of every remembered key is removed
// before the folder, so a failing test leaves nothing behind either. A
// watchdog does the same and ends the test process if a test hangs, before
// ctest would kill it.
class LockDir {
 public:
  static constexpr unsigned kWatchdogSeconds = 25 * zk3test::kTimeScale;

  LockDir() : mDir("zk3rwlock") {
    current() = this;
    struct sigaction sa = {};
    sa.sa_handler = &LockDir::onWatchdog;
    sigaction(SIGALRM, &sa, nullptr);
    alarm(kWatchdogSeconds);
  }
  ~LockDir() {
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    current() = nullptr;
    removeSets();
  }
  LockDir(const LockDir&) = delete;
  LockDir& operator=(const LockDir&) = delete;

  const std::string& dir() const { return mDir.root(); }
  std::string path(const std::string& name) const { return mDir.path(name); }
  // Keeps a set on the list to remove, e.g. before its file is replaced and
  // the key of the path changes.
  void rememberKey(key_t key) { mKeys.insert(key); }

 private:
  static LockDir*& current() {
    static LockDir* dir = nullptr;
    return dir;
  }
  // The process is ending anyway: clean up as well as we can, then leave.
  static void onWatchdog(int) {
    static const char text[] = "rwlock test: watchdog expired, cleaning up\n";
    (void)!write(2, text, sizeof text - 1);
    if (current() != nullptr) {
      current()->removeSets();
      current()->mDir.remove();
    }
    _exit(124);
  }
  void removeSets() {
    for (key_t key : mKeys) removeSetOfKey(key);
    if (DIR* d = opendir(dir().c_str())) {
      while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') removeSetOfKey(keyOf(path(e->d_name)));
      }
      closedir(d);
    }
  }

  zk3test::TempDir mDir;
  std::set<key_t> mKeys;
};

// A one-way signal between processes over a pipe; made before fork.
class Signal {
 public:
  Signal() {
    if (pipe(mFds) != 0) mFds[0] = mFds[1] = -1;
  }
  ~Signal() {
    close(mFds[0]);
    close(mFds[1]);
  }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void post(char value = 1) { (void)!write(mFds[1], &value, 1); }
  // The next posted value, or -1 when none came within `ms`.
  int wait(int ms = 5000 * zk3test::kTimeScale) {
    pollfd p{mFds[0], POLLIN, 0};
    if (poll(&p, 1, ms) != 1) return -1;
    char value = 0;
    if (read(mFds[0], &value, 1) != 1) return -1;
    return value;
  }

 private:
  int mFds[2];
};

}  // namespace rwtest

#endif  // ZELKIT3_TESTS_RWLOCK_SUPPORT_H
