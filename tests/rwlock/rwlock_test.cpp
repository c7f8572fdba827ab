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
#include "support/sync.h"
#include "support/temp_dir.h"
#include "zelkit3/rwlock.h"

using namespace zelkit3;
using namespace std::chrono_literals;

static_assert(!std::is_copy_constructible<sharedrwlock>::value, "owns its lock alone");
// The set-up steps are protected: only the lock and classes derived from it reach them.
template <class T>
concept PublicSetUp = requires {
  &T::isLastProcess;
};
static_assert(!PublicSetUp<UnixSharedRWLock>, "set-up steps are not public");

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

constexpr int kN = 10000;           // gReadersCount
using Values = std::array<int, 3>;  // gate, reader slots, user count
const Values kFresh{{1, kN, 1}};
using Clock = std::chrono::steady_clock;

// The set of a lock file, or -1 (-1 also for a file that is gone).
int setOf(const std::string& path) { return semget(ftok(path.c_str(), 0x43), 0, 0); }

Values semValues(const std::string& path) {
  const int id = setOf(path);
  return {{semctl(id, 0, GETVAL), semctl(id, 1, GETVAL), semctl(id, 2, GETVAL)}};
}

// What `op` raises, or "". (An RWLockException's code is the errno in its text.)
std::string failureOf(const std::function<void()>& op) {
  try {
    op();
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

// A private folder whose files' sets go with it, also when the test fails.
struct LockTest : ::testing::Test {
  ~LockTest() override {
    for (const auto& file : std::filesystem::directory_iterator(dir.root()))
      semctl(setOf(file.path()), 0, IPC_RMID);
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
  now.tv_sec = -1;
  EXPECT_TRUE(isTimeoutExpired({101, 0}));
  gClock = nullptr;
}

// What the constructor finds: a set never marked ready (its maker died before
// the first semop) is initialised; anything else fails with its text and
// code and leaves no descriptor open. A busy file fails after 100 ms, and a
// destructor that meets it leaves its set and count as they are: only there
// does an earlier user's set stay behind.
TEST_F(LockTest, ConstructorOutcomes) {
  const std::tuple<const char*, int, const char*, const char*> cases[] = {
      // file ("" as it is), semaphores of a set made unready, call to fail, failure
      {"junk", 3, "", ""},
      {"", 0, "", "Could not create/open file  for ftok function call, errno = 2"},
      {"four", 4, "", "Semaphor open failed. Semaphor set is not initialized properly."},
      {"two", 2, "", "Open semaphore set failed errno = 22"},
      {"busy", 0, "", "operation failed errno = 11\n"},
      {"f", 0, "ftok", "Getting file identifier failed, errno = 13"},
      {"s", 0, "semget", "Semaphore create/open failed, errno = 13"},
  };
  for (const auto& [name, nsems, failNext, failure] : cases) {
    const std::string p = *name != '\0' ? dir.path(name) : "";
    const int fd = open(p.c_str(), O_CREAT | O_RDWR, 0660);
    if (nsems > 0) semget(ftok(p.c_str(), 0x43), nsems, IPC_CREAT | 0666);
    const bool busy = std::strcmp(name, "busy") == 0;
    auto before = busy ? std::make_unique<UnixSharedRWLock>(p.c_str()) : nullptr;
    if (busy) flock(fd, LOCK_EX);
    gFailNext = failNext;
    const long fds = zk3test::openFds();
    const auto start = Clock::now();
    std::unique_ptr<UnixSharedRWLock> lock;
    EXPECT_EQ(failure, failureOf([&] { lock = std::make_unique<UnixSharedRWLock>(p.c_str()); }));
    EXPECT_EQ(fds, zk3test::openFds()) << failure;
    EXPECT_TRUE(!busy || Clock::now() - start > 99ms);
    before.reset();
    EXPECT_EQ(lock || busy, semValues(p) == kFresh) << name;
    close(fd);
  }
}

// Holders in child processes, alone or next to a reader of ours, run a
// script of steps, each with its result ('0' done, '1' false at once, 'T'
// false at the deadline of 30 ms), then hold what they have. A killed holder
// gives back exactly its net hold and count (alone, it leaves a set without
// users, which the next one takes over). A writer at the gate keeps our
// readers out. An unlimited wait, with either no-limit value, blocks in the
// kernel, where a signal ends it with EINTR and a removal with EIDRM.
TEST_F(LockTest, ScriptedHoldersKilledSignalledOrRemoved) {
  const struct {
    const char* script;  // each step, then its result
    unsigned long timeout;
    Values held;  // reached at the end only; a count of 2: with our reader
    int end;      // the signal to send, or 0 to remove the set
    const char* failure;
  } cases[] = {
      {"r0u0W0u1d1r0d1R0w0wTrTW0r0wTR0r0r0uTR0R0w0d0r0r0", 30, {{1, kN - 3, 1}}, SIGKILL, ""},
      {"r0u0", ~0UL, {{0, 0, 1}}, SIGKILL, ""},
      {"w0", ~0UL, {{0, kN - 1, 2}}, SIGUSR1, "operation failed errno = 4\n"},
      {"w0", 0xFFFFFFFFUL, {{0, kN - 1, 2}}, 0, "operation failed errno = 43\n"},
  };
  for (const auto& c : cases) {
    auto ours = c.held[2] == 2 ? std::make_unique<UnixSharedRWLock>(path.c_str()) : nullptr;
    ASSERT_TRUE(!ours || ours->lockRead(0));
    zk3test::Child holder([&] {
      signal(SIGUSR1, [](int) {});
      UnixSharedRWLock theirs(path.c_str());
      std::cout << failureOf([&] {
        for (const char* s = c.script; *s != '\0'; s += 2) {
          const auto start = Clock::now();
          const bool done = step(theirs, s[0], c.timeout);
          if (done != (s[1] == '0') || (s[1] == 'T' && Clock::now() - start < 29ms))
            std::cout << "step " << (s - c.script) / 2 << " " << std::flush;
        }
        pause();
      }) << std::flush;
    });
    const int waiting = c.held[0] == 0 && ours ? 1 : 0;  // in the kernel, for the slots
    zk3test::eventually(
        [&] { return semValues(path) == c.held && semctl(setOf(path), 1, GETNCNT) == waiting; });
    EXPECT_EQ(c.held, semValues(path)) << holder.describe();
    EXPECT_FALSE(waiting && ours->lockRead(0));
    if (c.end == 0) semctl(setOf(path), 0, IPC_RMID);
    kill(holder.pid(), c.end);  // signal 0 sends nothing
    holder.wait();
    EXPECT_EQ(c.failure, holder.output()) << holder.describe();
    const int n = ours ? 1 : 0;
    EXPECT_EQ((c.end == 0 ? Values{{-1, -1, -1}} : Values{{1, kN - n, n}}), semValues(path));
  }
}

// The first user, here the facade, makes the file (0660) and the set (0666);
// each object counts once; the last removes the set. Replacing the file gives
// the path a new key, so new users get a set of their own. The facade: 0
// done, 1 not done, 2 failed; a failed init copies its text, cut to fit, only
// into a buffer with room, and can be tried again; a second init is refused.
// Once someone else removed its set, locking fails (2) and the upgrades,
// which read -1, say no (1).
TEST_F(LockTest, SetLifecycleThroughTheFacade) {
  sharedrwlock l;
  EXPECT_EQ((std::array<int, 6>{{2, 2, 2, 2, 2, 2}}), allOps(l));
  const std::pair<int, const char*> texts[] = {{8, "The Loc"}, {1, ""}, {-1, "-"}};
  for (const auto& [size, text] : texts) {
    char buffer[64] = "-";
    EXPECT_FALSE(l.init(nullptr, buffer, size));
    EXPECT_STREQ(text, buffer) << size;
  }
  EXPECT_FALSE(l.init(nullptr));
  const mode_t umaskWas = umask(0);
  ASSERT_TRUE(l.init(path.c_str()));
  umask(umaskWas);
  semid_ds ds{};
  semctl(setOf(path), 0, IPC_STAT, &ds);
  EXPECT_EQ(0666u, ds.sem_perm.mode & 0777u);
  EXPECT_EQ(std::filesystem::perms(0660), std::filesystem::status(path).permissions());
  EXPECT_EQ((std::array<int, 6>{{0, 0, 1, 0, 0, 1}}), allOps(l));
  EXPECT_FALSE(l.init(dir.path("other").c_str()));
  auto second = std::make_unique<UnixSharedRWLock>(path.c_str());
  EXPECT_EQ((Values{{1, kN, 2}}), semValues(path));
  second.reset();
  EXPECT_EQ(kFresh, semValues(path));
  std::filesystem::rename(path, dir.path("moved"));
  auto fresh = std::make_unique<UnixSharedRWLock>(path.c_str());
  EXPECT_EQ(kFresh, semValues(path));
  fresh.reset();
  EXPECT_EQ(-1, setOf(path));
  semctl(setOf(dir.path("moved")), 0, IPC_RMID);
  EXPECT_EQ((std::array<int, 6>{{2, 2, 1, 2, 2, 1}}), allOps(l));
}

// Stress: processes take random read and write holds on one lock while we
// kill random ones and start others in their place. A writer counts up a
// mark in shared memory, a reader notes it, and a holder that sees it change
// during its hold exits with 1 (a killed writer's count is harmless). At the
// end all are killed and the lock is free.
TEST_F(LockTest, StressWithKilledHolders) {
  auto* mark = static_cast<std::atomic<long>*>(
      mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  std::unique_ptr<zk3test::Child> workers[4];
  for (int round = 0; round < 200; ++round) {
    auto& w = workers[rand() % 4];
    EXPECT_TRUE(!w || w->killNow()) << w->describe();
    w = std::make_unique<zk3test::Child>([&, seed = static_cast<unsigned>(rand())]() mutable {
      UnixSharedRWLock lock(path.c_str());
      for (;;) {
        const bool writing = rand_r(&seed) % 2 == 0;
        if (!step(lock, writing ? 'w' : 'r', rand_r(&seed) % 2 ? ~0UL : rand_r(&seed) % 3))
          continue;
        const long seen = writing ? ++*mark : mark->load();
        usleep(rand_r(&seed) % 20);  // widens the window for an intruder
        if (*mark != seen) _exit(1);
        step(lock, writing ? 'W' : 'R', 0);
      }
    });
    usleep(1000 + rand() % 3000);  // pacing of the killer, not synchronisation
  }
  for (auto& w : workers) EXPECT_TRUE(!w || w->killNow()) << w->describe();
  EXPECT_EQ((Values{{1, kN, 0}}), semValues(path));
  EXPECT_GT(*mark, 500);  // write holds
  munmap(mark, sizeof(long));
}

}  // namespace
