// Stress: several processes take random read, write and upgrade holds on one
// lock while the parent kills random holders with SIGKILL and starts new
// processes in their place. Mutual exclusion is checked in shared memory by
// every holder; the set must be gone at the end.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <new>
#include <random>

#include "rwlock/rwlock_test_support.h"
#include "zelkit3/rwlock.h"

namespace {

using zk3test::Child;
using rwtest::kN;
using zelkit3::UnixSharedRWLock;

constexpr int kProcs = 4;
constexpr long kTargetOps = 60000;
constexpr unsigned long kForever = static_cast<unsigned long>(-1);

// What one process holds, as it says itself. `killed` is set by the parent
// just before the SIGKILL: the dying process's marks are then stale, because
// the kernel gives its holds back before the parent can clear them.
struct Slot {
  std::atomic<int> reads;
  std::atomic<int> writer;
  std::atomic<int> killed;
};

struct Shared {
  Slot slots[kProcs];
  std::atomic<long> ops;
  std::atomic<long> violations;
  std::atomic<int> stop;
};

static_assert(std::atomic<int>::is_always_lock_free, "atomics shared between processes");
static_assert(std::atomic<long>::is_always_lock_free, "atomics shared between processes");

class Worker {
 public:
  Worker(Shared* shared, int me, const std::string& path, unsigned seed)
      : mShared(shared), mMe(me), mLock(path.c_str()), mRandom(seed) {}

  void run() {
    while (!mShared->stop.load() && mShared->ops.load() < kTargetOps) {
      const int choice = pick(100);
      if (choice < 55) {
        readCycle();
      } else if (choice < 85) {
        writeCycle();
      } else {
        upgradeCycle();
      }
    }
  }

 private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(mRandom); }
  unsigned long timeout() {
    const int c = pick(10);
    return c < 4 ? kForever : c < 6 ? 0 : 1 + pick(5);
  }
  bool counted(bool got) {
    mShared->ops.fetch_add(1);
    return got;
  }
  Slot& mine() { return mShared->slots[mMe]; }
  // Checks twice, around some work, that no live process holds what excludes
  // our hold. `killed` first: the parent clears the marks before `killed`, so
  // marks read after a clear `killed` are never a dead process's.
  void work(bool writing) {
    for (int pass = 0; pass < 2; ++pass) {
      for (int j = 0; j < kProcs; ++j) {
        Slot& other = mShared->slots[j];
        if (j == mMe || other.killed.load() != 0) continue;
        if (other.writer.load() != 0 || (writing && other.reads.load() > 0)) {
          mShared->violations.fetch_add(1);
        }
      }
      for (volatile int i = pick(300); pass == 0 && i > 0; --i) {
      }
      if (pass == 0 && pick(8) == 0) sched_yield();
    }
  }
  void leaveRead() {
    mine().reads.fetch_sub(1);
    mLock.freeRead();
    counted(true);
  }
  void leaveWrite() {
    mine().writer.store(0);
    mLock.freeWrite();
    counted(true);
  }

  void readCycle() {
    if (!counted(mLock.lockRead(timeout()))) return;
    mine().reads.fetch_add(1);
    work(false);
    // A nested read must be finite: a writer at the gate waits for our slot.
    if (pick(10) == 0 && counted(mLock.lockRead(pick(3)))) {
      mine().reads.fetch_add(1);
      work(false);
      leaveRead();
    }
    leaveRead();
  }
  void writeCycle() {
    if (!counted(mLock.lockWrite(timeout()))) return;
    mine().writer.store(1);
    work(true);
    if (pick(4) != 0) return leaveWrite();
    mine().reads.fetch_add(1);
    mine().writer.store(0);
    if (!counted(mLock.upgradeToLockRead(0))) std::abort();
    work(false);
    leaveRead();
  }
  void upgradeCycle() {
    if (!counted(mLock.lockRead(timeout()))) return;
    mine().reads.fetch_add(1);
    work(false);
    // Finite: two upgraders wait for each other until one times out.
    if (!counted(mLock.upgradeToLockWrite(1 + pick(5)))) return leaveRead();
    mine().writer.store(1);
    mine().reads.fetch_sub(1);
    work(true);
    leaveWrite();
  }

  Shared* mShared;
  int mMe;
  UnixSharedRWLock mLock;
  std::mt19937 mRandom;
};

TEST(RWLockStress, RandomHoldsAndKillsKeepMutualExclusion) {
  rwtest::LockDir dir;
  const std::string path = dir.path("stress.lock");
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, memory);
  Shared* shared = new (memory) Shared();

  long long kills = 0;
  const long long start = rwtest::wallMs();
  {
    UnixSharedRWLock observer(path.c_str());
    std::mt19937 random(12345);
    unsigned seed = 1;
    std::unique_ptr<Child> children[kProcs];
    auto launch = [&](int i) {
      Slot& s = shared->slots[i];
      s.reads.store(0);
      s.writer.store(0);
      s.killed.store(0);
      const unsigned childSeed = seed++;
      children[i].reset(new Child(
          [&, i, childSeed] {
            Worker(shared, i, path, childSeed).run();
            return 0;
          },
          std::chrono::seconds(20 * zk3test::kTimeScale)));
    };
    for (int i = 0; i < kProcs; ++i) launch(i);

    const long long end = start + 15000LL * zk3test::kTimeScale;  // inside the watchdog
    while (shared->ops.load() < kTargetOps && rwtest::wallMs() < end) {
      usleep(1000 + random() % 3000);  // pacing of the killer, not synchronisation
      const int i = static_cast<int>(random() % kProcs);
      Slot& s = shared->slots[i];
      if (children[i]->poll() != -1) {
        if (shared->ops.load() >= kTargetOps) break;  // it saw the target first
        ADD_FAILURE() << "worker " << i << " ended early: " << children[i]->describe();
        launch(i);
        continue;
      }
      if (s.reads.load() == 0 && s.writer.load() == 0) continue;  // kill holders only
      s.killed.store(1);
      EXPECT_TRUE(children[i]->killNow()) << children[i]->describe();
      ++kills;
      launch(i);
    }
    shared->stop.store(1);
    for (int i = 0; i < kProcs; ++i) {
      EXPECT_EQ(0, children[i]->wait(std::chrono::milliseconds(5000 * zk3test::kTimeScale)))
          << "worker " << i << " hung; " << children[i]->describe();
    }
    EXPECT_EQ((std::array<int, 3>{{1, kN, 1}}), rwtest::semValues(path))
        << "only the observer is left, and it holds nothing";
  }
  const long long took = rwtest::wallMs() - start;
  EXPECT_FALSE(rwtest::setExists(path)) << "the last user removed the set";

  std::printf("stress: %d processes, %ld operations, %lld kills, %ld violations, %lld ms\n", kProcs,
              shared->ops.load(), kills, shared->violations.load(), took);
  EXPECT_GE(shared->ops.load(), 20000);
  EXPECT_EQ(0, shared->violations.load());
  EXPECT_GT(kills, 0);
  munmap(memory, sizeof(Shared));
}

}  // namespace
