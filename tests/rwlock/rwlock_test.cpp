// The cross-process lock: the deadlines of its waits; the semaphore set of a
// lock file, made, counted, refused, replaced and removed; the six locking
// operations; holders that are killed, signalled or lose their set; the
// facade; and a stress run with killed holders (labelled slow).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/time.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>

#include "support/child.h"
#include "support/temp_dir.h"
#include "zelkit3/rwlock.h"

using namespace zelkit3;
using namespace std::chrono_literals;

static_assert(!std::is_copy_constructible<sharedrwlock>::value, "owns its lock alone");
static_assert(!std::is_copy_assignable<sharedrwlock>::value, "owns its lock alone");

// Fault injection: the library's ftok, semget and gettimeofday come here
// first. A test names the call that fails next (with EACCES), or sets the
// clock that gettimeofday reads (which fails at a negative second).
static const char* gFailNext = "";
static timeval* gClock = nullptr;

template <typename R, typename... A>
R realOrFail(const char* name, A... args) {
  if (std::strcmp(gFailNext, name) != 0)
    return reinterpret_cast<R (*)(A...)>(dlsym(RTLD_NEXT, name))(args...);
  gFailNext = "";
  errno = EACCES;
  return -1;
}
extern "C" key_t ftok(const char* p, int id) noexcept { return realOrFail<key_t>("ftok", p, id); }
extern "C" int semget(key_t k, int n, int f) noexcept { return realOrFail<int>("semget", k, n, f); }
extern "C" int gettimeofday(timeval* tv, void* tz) noexcept {
  if (gClock == nullptr) return realOrFail<int>("gettimeofday", tv, tz);
  *tv = *gClock;
  return gClock->tv_sec < 0 ? -1 : 0;
}

namespace {

constexpr int kN = 10000;  // gReadersCount
constexpr unsigned long kForever = static_cast<unsigned long>(-1);
using Values = std::array<int, 3>;  // gate, reader slots, user count

int setOf(const std::string& path) {
  const key_t key = ftok(path.c_str(), 0x43);
  return key == -1 ? -1 : semget(key, 0, 0);
}

Values semValues(const std::string& path) {
  const int id = setOf(path);
  return {{semctl(id, 0, GETVAL), semctl(id, 1, GETVAL), semctl(id, 2, GETVAL)}};
}

// Polls `done` for up to 10 s (scaled).
bool eventually(const std::function<bool()>& done) {
  const auto end = std::chrono::steady_clock::now() + zk3test::scaled(10000);
  while (!done() && std::chrono::steady_clock::now() < end) usleep(100);
  return done();
}

// What `op` raises: what(), then " #" and the code for an RWLockException.
std::string failureOf(const std::function<void()>& op) {
  try {
    op();
  } catch (const RWLockException& e) {
    return e.what() + (" #" + std::to_string(e.getErrorCode()));
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

// One step: 'r' lockRead, 'w' lockWrite, 'd' upgradeToLockRead and 'u'
// upgradeToLockWrite give their result; 'R' freeRead and 'W' freeWrite true.
bool step(UnixSharedRWLock& lock, char op, unsigned long timeout) {
  switch (op) {
    case 'r': return lock.lockRead(timeout);
    case 'w': return lock.lockWrite(timeout);
    case 'd': return lock.upgradeToLockRead(timeout);
    case 'u': return lock.upgradeToLockWrite(timeout);
    case 'R': lock.freeRead(); break;
    default: lock.freeWrite();
  }
  return true;
}

std::array<int, 6> allOps(sharedrwlock& l) {
  return {{l.lockRead(0), l.freeRead(), l.upgradeToLockRead(0), l.lockWrite(0), l.freeWrite(),
           l.upgradeToLockWrite(0)}};
}

int nextFd() {
  const int fd = open("/dev/null", O_RDONLY);
  close(fd);
  return fd;
}

// The set-up steps are protected: a derived class reaches them.
struct ProbeLock : UnixSharedRWLock {
  using UnixSharedRWLock::isLastProcess;
  using UnixSharedRWLock::UnixSharedRWLock;
};

// A private folder whose files' sets go with it, also when the test fails.
class LockTest : public ::testing::Test {
 protected:
  ~LockTest() override {
    for (const auto& file : std::filesystem::directory_iterator(dir.root())) {
      semctl(setOf(file.path()), 0, IPC_RMID);
    }
  }

  zk3test::TempDir dir{"zk3rwlock"};
  const std::string path = dir.path("lock");
};

// Deadlines on a fixed clock: the time-out ahead, summed in 32 bits on every
// ABI (4,294,968 ms wraps to 704 us); expired once the clock is past them, not
// at them, and whenever the clock fails.
TEST(Deadline, In32BitsAndExpiredOnlyPastIt) {
  timeval now{100, 999000};
  gClock = &now;
  const std::pair<unsigned long, long long> deadlinesUs[] = {
      {0, 100999000}, {1500, 102499000}, {4293967, 4394966000}, {4294968, 100999704}};
  for (const auto& [ms, us] : deadlinesUs) {
    const timespec d = getTimeout(ms);
    EXPECT_EQ(us * 1000, d.tv_sec * 1000000000LL + d.tv_nsec) << ms;
  }
  EXPECT_FALSE(isTimeoutExpired({100, 999000000}));
  EXPECT_FALSE(isTimeoutExpired({101, 0}));
  EXPECT_TRUE(isTimeoutExpired({100, 998999999}));
  EXPECT_TRUE(isTimeoutExpired({99, 999999999}));
  now.tv_sec = -1;
  EXPECT_TRUE(isTimeoutExpired({101, 0}));
  gClock = nullptr;
}

// The first user makes the file (0660) and the set (0666); each object counts
// once; the last removes the set, not the file. Replacing the file gives the
// path a new key, so new users get a set of their own.
TEST_F(LockTest, SetLifecycle) {
  const mode_t umaskWas = umask(0);
  auto old = std::make_unique<UnixSharedRWLock>(path.c_str());
  umask(umaskWas);
  struct stat st;
  semid_ds ds;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  ASSERT_EQ(0, semctl(setOf(path), 0, IPC_STAT, &ds));
  EXPECT_EQ(0660u, st.st_mode & 0777u);
  EXPECT_EQ(0666u, ds.sem_perm.mode & 0777u);
  auto second = std::make_unique<UnixSharedRWLock>(path.c_str());
  EXPECT_EQ((Values{{1, kN, 2}}), semValues(path));
  second.reset();
  EXPECT_EQ((Values{{1, kN, 1}}), semValues(path));
  const std::string moved = dir.path("moved");
  ASSERT_EQ(0, rename(path.c_str(), moved.c_str()));
  auto fresh = std::make_unique<UnixSharedRWLock>(path.c_str());
  EXPECT_EQ((Values{{1, kN, 1}}), semValues(path));
  fresh.reset();
  EXPECT_EQ(-1, setOf(path));
  old.reset();
  EXPECT_EQ(-1, setOf(moved));
  EXPECT_EQ(0, access(path.c_str(), F_OK));
}

// What the constructor finds: a set never marked ready (its maker died before
// the first semop) is initialised; anything else fails with its text and
// code and leaves no descriptor open. A busy file fails after 100 ms, and a
// destructor that meets it leaves the count as it is.
TEST_F(LockTest, ConstructorOutcomes) {
  const std::tuple<const char*, int, const char*, const char*> cases[] = {
      // file ("" as it is), semaphores of a set made unready, call to fail, failure
      {"junk", 3, "", ""},
      {"", 0, "", "Could not create/open file  for ftok function call, errno = 2 #2"},
      {"four", 4, "", "Semaphor open failed. Semaphor set is not initialized properly."},
      {"two", 2, "", "Open semaphore set failed errno = 22"},
      {"busy", 0, "", "operation failed errno = 11\n #11"},
      {"f", 0, "ftok", "Getting file identifier failed, errno = 13 #13"},
      {"s", 0, "semget", "Semaphore create/open failed, errno = 13 #13"},
  };
  for (const auto& [name, nsems, failNext, failure] : cases) {
    const std::string p = *name != '\0' ? dir.path(name) : "";
    const int fd = open(p.c_str(), O_CREAT | O_RDWR, 0660);
    unsigned short junk[3] = {7, 7, 7};
    if (nsems > 0) semctl(semget(ftok(p.c_str(), 0x43), nsems, IPC_CREAT | 0666), 0, SETALL, junk);
    const bool busy = std::strcmp(name, "busy") == 0;
    auto before = busy ? std::make_unique<UnixSharedRWLock>(p.c_str()) : nullptr;
    if (busy) flock(fd, LOCK_EX);
    gFailNext = failNext;
    const int next = nextFd();
    const auto start = std::chrono::steady_clock::now();
    Values seen{};
    EXPECT_EQ(failure, failureOf([&] {
                UnixSharedRWLock lock(p.c_str());
                seen = semValues(p);
              }));
    EXPECT_EQ(next, nextFd()) << failure;
    EXPECT_EQ(*failure == '\0', seen == (Values{{1, kN, 1}})) << name;
    if (busy) {
      EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(99));
      before.reset();
      EXPECT_EQ((Values{{1, kN, 1}}), semValues(p));
    }
    close(fd);
  }
}

// Holders in child processes, alone or next to a reader of ours, run a
// script of steps with their results ('0' done, '1' false at once, 'T' false
// at the deadline of 30 ms), then hold what they have. A killed holder gives
// back exactly its net hold and count (alone, it leaves a set without users,
// which the next one takes over). A writer at the gate keeps our readers out.
// An unlimited wait, with either no-limit value, blocks in the kernel, where
// a signal ends it with EINTR and a removal with EIDRM.
TEST_F(LockTest, ScriptedHoldersKilledSignalledOrRemoved) {
  const char* kEintr = "operation failed errno = 4\n #4";
  const struct {
    const char* ops;
    const char* results;
    unsigned long timeout;
    Values held;  // a count of 2: with our reader
    int end;      // the signal to send, or 0 to remove the set
    const char* failure;
  } cases[] = {
      {"ruWudrdRwwrWrwRrruRRwdrr", "000110100TT00T000T000000", 30, {{1, kN - 3, 1}}, SIGKILL, ""},
      {"ru", "00", kForever, {{0, 0, 1}}, SIGKILL, ""},
      {"w", "0", kForever, {{0, kN - 1, 2}}, SIGKILL, ""},
      {"w", "", kForever, {{0, kN - 1, 2}}, SIGUSR1, kEintr},
      {"w", "", 0xFFFFFFFFUL, {{0, kN - 1, 2}}, SIGUSR1, kEintr},
      {"w", "", kForever, {{0, kN - 1, 2}}, 0, "operation failed errno = 43\n #43"},
  };
  for (const auto& c : cases) {
    auto ours = c.held[2] == 2 ? std::make_unique<UnixSharedRWLock>(path.c_str()) : nullptr;
    ASSERT_TRUE(!ours || ours->lockRead(0));
    zk3test::Child holder([&] {
      signal(SIGUSR1, [](int) {});
      UnixSharedRWLock theirs(path.c_str());
      std::cout << failureOf([&] {
        for (size_t i = 0; c.ops[i] != '\0'; ++i) {
          const auto start = std::chrono::steady_clock::now();
          const bool done = step(theirs, c.ops[i], c.timeout);
          const auto took = std::chrono::steady_clock::now() - start;
          if (done != (c.results[i] == '0') || (c.results[i] == 'T' && took < 29ms)) {
            std::cout << "step " << i << " " << std::flush;
          }
        }
        pause();
      }) << std::flush;
    });
    const int waiting = c.held[0] == 0 && ours ? 1 : 0;  // in the kernel, for the slots
    EXPECT_TRUE(eventually([&] {
      return semValues(path) == c.held && semctl(setOf(path), 1, GETNCNT) == waiting;
    })) << holder.describe();
    EXPECT_FALSE(waiting && ours->lockRead(0));
    if (c.end == 0) {
      semctl(setOf(path), 0, IPC_RMID);
    } else {
      kill(holder.pid(), c.end);
    }
    holder.wait();
    EXPECT_EQ(c.failure, holder.result().output) << holder.describe();
    const Values gone{{-1, -1, -1}};
    EXPECT_EQ((c.end == 0 ? gone : Values{{1, kN - (ours ? 1 : 0), ours ? 1 : 0}}),
              semValues(path));
  }
}

// The facade: 0 done, 1 not done, 2 failed. A failed init copies its text,
// cut to fit, only into a buffer with room, and can be tried again; a second
// init is refused and leaves the lock in place. Once someone else removed the
// set, locking fails with EINVAL (2 from the facade), the upgrades read -1
// and say no (1), and no object is the last user any more.
TEST_F(LockTest, FacadeAndARemovedSet) {
  sharedrwlock l;
  EXPECT_EQ((std::array<int, 6>{{2, 2, 2, 2, 2, 2}}), allOps(l));
  const std::pair<int, const char*> texts[] = {
      {64, "The Lock file name is empty"}, {8, "The Loc"}, {1, ""}, {0, "-"}, {-1, "-"}};
  for (const auto& [size, text] : texts) {
    char buffer[64] = "-";
    EXPECT_FALSE(l.init(nullptr, buffer, size));
    EXPECT_STREQ(text, buffer) << size;
  }
  EXPECT_FALSE(l.init(nullptr));
  ASSERT_TRUE(l.init(path.c_str()));
  EXPECT_EQ((std::array<int, 6>{{0, 0, 1, 0, 0, 1}}), allOps(l));
  char buffer[2] = "-";
  EXPECT_FALSE(l.init(dir.path("other").c_str(), buffer, sizeof buffer));
  EXPECT_STREQ("-", buffer);
  EXPECT_EQ(-1, setOf(dir.path("other")));
  ProbeLock lock(path.c_str());
  semctl(setOf(path), 0, IPC_RMID);
  EXPECT_FALSE(lock.isLastProcess());
  EXPECT_EQ("operation failed errno = 22\n #22", failureOf([&] { lock.lockWrite(10); }));
  EXPECT_EQ((std::array<int, 6>{{2, 2, 1, 2, 2, 1}}), allOps(l));
}

// Stress: processes take random read and write holds on one lock while we
// kill random ones and start others in their place. A writer marks shared
// memory with a token of its own, a reader notes the mark, and nobody may
// change it during a hold (a killed writer's mark is harmless). At the end
// the lock is free.
TEST_F(LockTest, StressWithKilledHolders) {
  struct Shared {
    std::atomic<long> owner, holds, violations, stop;
  };
  auto* s = static_cast<Shared*>(
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(s));
  UnixSharedRWLock observer(path.c_str());
  std::unique_ptr<zk3test::Child> workers[4];
  auto launch = [&](std::unique_ptr<zk3test::Child>& w) {
    w = std::make_unique<zk3test::Child>([&, seed = static_cast<unsigned>(rand())]() mutable {
      UnixSharedRWLock lock(path.c_str());
      while (s->stop == 0) {
        const bool writing = rand_r(&seed) % 2 == 0;
        if (!step(lock, writing ? 'w' : 'r', rand_r(&seed) % 2 ? kForever : rand_r(&seed) % 3))
          continue;
        const long token = ++s->holds;
        const long seen = writing ? token : s->owner.load();
        if (writing) s->owner = token;
        usleep(rand_r(&seed) % 20);  // widens the window for an intruder
        if (s->owner != seen) ++s->violations;
        step(lock, writing ? 'W' : 'R', 0);
      }
    });
  };
  for (auto& w : workers) launch(w);
  for (int kills = 0; kills < 200; ++kills) {
    usleep(1000 + rand() % 3000);  // pacing of the killer, not synchronisation
    auto& w = workers[rand() % 4];
    EXPECT_TRUE(w->killNow()) << w->describe();
    launch(w);
  }
  s->stop = 1;
  for (auto& w : workers) EXPECT_EQ(0, w->wait()) << w->describe();
  EXPECT_EQ((Values{{1, kN, 1}}), semValues(path));
  EXPECT_EQ(0, s->violations);
  EXPECT_GT(s->holds, 1000);
  munmap(s, sizeof(Shared));
}

}  // namespace
