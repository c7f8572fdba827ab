// The cross-process read-write lock against its peers, in one run:
// uncontended read and write cycles, the raw cost of the same semop calls
// (the floor of a System V design), and throughput of 4 contending processes.
// Before the table, each lock is tested for surviving a holder killed by
// SIGKILL.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <cstdio>
#include <functional>
#include <memory>
#include <new>
#include <string>

#include "ratio_reporter.h"
#include "zelkit3/rwlock.h"

namespace {

using zelkit3::UnixSharedRWLock;
using SharableMutex = boost::interprocess::interprocess_sharable_mutex;

constexpr unsigned long kForever = static_cast<unsigned long>(-1);
constexpr int kProcs = 4;
constexpr int kOpsPerProc = 20000;

// A private folder with one lock file, removed at the end.
struct TempLockFile {
  TempLockFile() {
    char tmpl[] = "/tmp/zk3rwbench.XXXXXX";
    dir = mkdtemp(tmpl);
    path = dir + "/lock";
  }
  ~TempLockFile() {
    unlink(path.c_str());
    rmdir(dir.c_str());
  }
  std::string dir, path;
};

TempLockFile& lockFile() {
  static TempLockFile file;
  return file;
}

// Memory shared with forked children.
template <typename T>
T* sharedObject() {
  void* memory =
      mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<T*>(memory);
}

pthread_rwlock_t* newSharedPthreadLock() {
  pthread_rwlock_t* lock = sharedObject<pthread_rwlock_t>();
  pthread_rwlockattr_t attr;
  pthread_rwlockattr_init(&attr);
  pthread_rwlockattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_rwlock_init(lock, &attr);
  pthread_rwlockattr_destroy(&attr);
  return lock;
}

SharableMutex* newSharedBoostLock() { return new (sharedObject<SharableMutex>()) SharableMutex(); }

// The floor: a private set with the lock's values and the lock's semop calls.
struct RawSet {
  RawSet() {
    id = semget(IPC_PRIVATE, 3, IPC_CREAT | 0600);
    unsigned short values[3] = {1, 10000, 1};
    semctl(id, 0, SETALL, values);
  }
  ~RawSet() { semctl(id, 0, IPC_RMID, 0); }
  void op(std::initializer_list<sembuf> ops) {
    semop(id, const_cast<sembuf*>(ops.begin()), ops.size());
  }
  int id;
};

constexpr short kUndo = SEM_UNDO;
constexpr short kFixed = SEM_UNDO | IPC_NOWAIT;

// ---- uncontended read cycles ----

void readOurs(benchmark::State& state) {
  UnixSharedRWLock lock(lockFile().path.c_str());
  for (auto _ : state) {
    lock.lockRead(kForever);
    lock.freeRead();
  }
}
BENCHMARK(readOurs)->Name("read/ours");

void readOursLimited(benchmark::State& state) {
  UnixSharedRWLock lock(lockFile().path.c_str());
  for (auto _ : state) {
    lock.lockRead(1000);
    lock.freeRead();
  }
}
BENCHMARK(readOursLimited)->Name("read_limited/ours");

// lockRead: take gate and slot, give the gate back; freeRead: give the slot.
void readFloor(benchmark::State& state) {
  RawSet set;
  for (auto _ : state) {
    set.op({{0, -1, kUndo}, {1, -1, kUndo}});
    set.op({{0, +1, kFixed}});
    set.op({{1, +1, kFixed}});
  }
}
BENCHMARK(readFloor)->Name("read/semop_floor");

void readLimitedFloor(benchmark::State& state) {
  RawSet set;
  for (auto _ : state) {
    set.op({{0, -1, kFixed}, {1, -1, kFixed}});
    set.op({{0, +1, kFixed}});
    set.op({{1, +1, kFixed}});
  }
}
BENCHMARK(readLimitedFloor)->Name("read_limited/semop_floor");

void readPthread(benchmark::State& state) {
  pthread_rwlock_t* lock = newSharedPthreadLock();
  for (auto _ : state) {
    pthread_rwlock_rdlock(lock);
    pthread_rwlock_unlock(lock);
  }
  munmap(lock, sizeof *lock);
}
BENCHMARK(readPthread)->Name("read/pthread_rwlock_pshared");

void readBoost(benchmark::State& state) {
  SharableMutex* lock = newSharedBoostLock();
  for (auto _ : state) {
    lock->lock_sharable();
    lock->unlock_sharable();
  }
  lock->~SharableMutex();
  munmap(lock, sizeof *lock);
}
BENCHMARK(readBoost)->Name("read/boost_sharable_mutex");

void readFlock(benchmark::State& state) {
  const int fd = open(lockFile().path.c_str(), O_RDWR | O_CREAT, 0660);
  for (auto _ : state) {
    flock(fd, LOCK_SH);
    flock(fd, LOCK_UN);
  }
  close(fd);
}
BENCHMARK(readFlock)->Name("read/flock");

// ---- uncontended write cycles ----

void writeOurs(benchmark::State& state) {
  UnixSharedRWLock lock(lockFile().path.c_str());
  for (auto _ : state) {
    lock.lockWrite(kForever);
    lock.freeWrite();
  }
}
BENCHMARK(writeOurs)->Name("write/ours");

// lockWrite: gate, then all slots; freeWrite: slots and gate in one call.
void writeFloor(benchmark::State& state) {
  RawSet set;
  for (auto _ : state) {
    set.op({{0, -1, kUndo}});
    set.op({{1, -10000, kUndo}});
    set.op({{1, +10000, kFixed}, {0, +1, kFixed}});
  }
}
BENCHMARK(writeFloor)->Name("write/semop_floor");

void writePthread(benchmark::State& state) {
  pthread_rwlock_t* lock = newSharedPthreadLock();
  for (auto _ : state) {
    pthread_rwlock_wrlock(lock);
    pthread_rwlock_unlock(lock);
  }
  munmap(lock, sizeof *lock);
}
BENCHMARK(writePthread)->Name("write/pthread_rwlock_pshared");

void writeBoost(benchmark::State& state) {
  SharableMutex* lock = newSharedBoostLock();
  for (auto _ : state) {
    lock->lock();
    lock->unlock();
  }
  lock->~SharableMutex();
  munmap(lock, sizeof *lock);
}
BENCHMARK(writeBoost)->Name("write/boost_sharable_mutex");

void writeFlock(benchmark::State& state) {
  const int fd = open(lockFile().path.c_str(), O_RDWR | O_CREAT, 0660);
  for (auto _ : state) {
    flock(fd, LOCK_EX);
    flock(fd, LOCK_UN);
  }
  close(fd);
}
BENCHMARK(writeFlock)->Name("write/flock");

// ---- 4 contending processes, one write in five ----

// Runs `work(process)` in kProcs children and waits for all of them.
void runProcesses(const std::function<void(int)>& work) {
  pid_t pids[kProcs];
  for (int p = 0; p < kProcs; ++p) {
    pids[p] = fork();
    if (pids[p] == 0) {
      alarm(120);
      work(p);
      _exit(0);
    }
  }
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
}

struct Counter {
  long value;
};

template <typename Read, typename Write>
void contend(benchmark::State& state, const std::function<void()>& setup, Read read, Write write) {
  Counter* shared = sharedObject<Counter>();
  for (auto _ : state) {
    runProcesses([&](int) {
      setup();
      for (int i = 0; i < kOpsPerProc; ++i) {
        if (i % 5 == 0) {
          write([&] { ++shared->value; });
        } else {
          read([&] { benchmark::DoNotOptimize(shared->value); });
        }
      }
    });
  }
  state.SetItemsProcessed(state.iterations() * kProcs * kOpsPerProc);
  munmap(shared, sizeof *shared);
}

void contendedOurs(benchmark::State& state) {
  UnixSharedRWLock keep(lockFile().path.c_str());
  std::unique_ptr<UnixSharedRWLock> lock;
  contend(
      state, [&] { lock.reset(new UnixSharedRWLock(lockFile().path.c_str())); },
      [&](const std::function<void()>& f) {
        lock->lockRead(kForever);
        f();
        lock->freeRead();
      },
      [&](const std::function<void()>& f) {
        lock->lockWrite(kForever);
        f();
        lock->freeWrite();
      });
}
BENCHMARK(contendedOurs)
    ->Name("contended_4proc/ours")
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void contendedPthread(benchmark::State& state) {
  pthread_rwlock_t* lock = newSharedPthreadLock();
  contend(
      state, [] {},
      [&](const std::function<void()>& f) {
        pthread_rwlock_rdlock(lock);
        f();
        pthread_rwlock_unlock(lock);
      },
      [&](const std::function<void()>& f) {
        pthread_rwlock_wrlock(lock);
        f();
        pthread_rwlock_unlock(lock);
      });
  munmap(lock, sizeof *lock);
}
BENCHMARK(contendedPthread)
    ->Name("contended_4proc/pthread_rwlock_pshared")
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void contendedBoost(benchmark::State& state) {
  SharableMutex* lock = newSharedBoostLock();
  contend(
      state, [] {},
      [&](const std::function<void()>& f) {
        lock->lock_sharable();
        f();
        lock->unlock_sharable();
      },
      [&](const std::function<void()>& f) {
        lock->lock();
        f();
        lock->unlock();
      });
  munmap(lock, sizeof *lock);
}
BENCHMARK(contendedBoost)
    ->Name("contended_4proc/boost_sharable_mutex")
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void contendedFlock(benchmark::State& state) {
  int fd = -1;
  contend(
      state, [&] { fd = open(lockFile().path.c_str(), O_RDWR | O_CREAT, 0660); },
      [&](const std::function<void()>& f) {
        flock(fd, LOCK_SH);
        f();
        flock(fd, LOCK_UN);
      },
      [&](const std::function<void()>& f) {
        flock(fd, LOCK_EX);
        f();
        flock(fd, LOCK_UN);
      });
}
BENCHMARK(contendedFlock)
    ->Name("contended_4proc/flock")
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// ---- surviving a killed holder ----

long long nowMs() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec * 1000LL + tv.tv_usec / 1000;
}

// A child takes the write lock with `take`, the parent kills it and then
// tries `tryTake` for 300 ms.
bool survivesKilledHolder(const std::function<void()>& take, const std::function<bool()>& tryTake) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(30);
    take();
    char c = 1;
    (void)!write(fds[1], &c, 1);
    pause();
    _exit(0);
  }
  char c = 0;
  (void)!read(fds[0], &c, 1);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  close(fds[0]);
  close(fds[1]);
  const long long end = nowMs() + 300;
  do {
    if (tryTake()) return true;
    usleep(1000);
  } while (nowMs() < end);
  return false;
}

void reportSurvival() {
  std::printf("%-28s %s\n", "lock", "a holder killed by SIGKILL: the others go on");
  {
    UnixSharedRWLock lock(lockFile().path.c_str());
    const bool ok =
        survivesKilledHolder([&] { lock.lockWrite(kForever); },
                             [&] { return lock.lockWrite(0) && (lock.freeWrite(), true); });
    std::printf("%-28s %s\n", "ours", ok ? "yes" : "no");
  }
  {
    pthread_rwlock_t* lock = newSharedPthreadLock();
    const bool ok = survivesKilledHolder([&] { pthread_rwlock_wrlock(lock); },
                                         [&] { return pthread_rwlock_trywrlock(lock) == 0; });
    std::printf("%-28s %s\n", "pthread_rwlock_pshared", ok ? "yes" : "no (stays locked)");
    munmap(lock, sizeof *lock);
  }
  {
    SharableMutex* lock = newSharedBoostLock();
    const bool ok = survivesKilledHolder([&] { lock->lock(); }, [&] { return lock->try_lock(); });
    std::printf("%-28s %s\n", "boost_sharable_mutex", ok ? "yes" : "no (stays locked)");
    munmap(lock, sizeof *lock);
  }
  {
    const bool ok = survivesKilledHolder(
        [] {
          const int fd = open(lockFile().path.c_str(), O_RDWR | O_CREAT, 0660);
          flock(fd, LOCK_EX);
        },
        [] {
          const int fd = open(lockFile().path.c_str(), O_RDWR | O_CREAT, 0660);
          const bool got = flock(fd, LOCK_EX | LOCK_NB) == 0;
          close(fd);
          return got;
        });
    std::printf("%-28s %s\n\n", "flock", ok ? "yes" : "no");
  }
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  lockFile();
  reportSurvival();
  zk3bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
