// The six locking operations of UnixSharedRWLock: the semaphore values after
// each step, time-outs, writer preference, upgrades and dead holders, with
// the other holders in forked processes.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "rwlock/rwlock_test_support.h"
#include "zelkit3/rwlock.h"

namespace {

using zk3test::Child;
using rwtest::kN;
using rwtest::Signal;
using zelkit3::UnixSharedRWLock;
using Values = std::array<int, 3>;

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

class LockingTest : public ::testing::Test {
 protected:
  void SetUp() override { lock.reset(new UnixSharedRWLock(path.c_str())); }
  void TearDown() override { lock.reset(); }
  // Gate and slots, the first two semaphores.
  std::array<int, 2> state() {
    const Values v = rwtest::semValues(path);
    return {{v[0], v[1]}};
  }
  // A child that attaches to the lock, takes `hold` and keeps it until told.
  std::unique_ptr<Child> holder(const std::function<bool(UnixSharedRWLock&)>& hold, Signal& held,
                                Signal& done) {
    const std::string p = path;
    return std::unique_ptr<Child>(new Child([&, p] {
      UnixSharedRWLock l(p.c_str());
      if (!hold(l)) return 1;
      held.post();
      return done.wait() == 1 ? 0 : 2;
    }));
  }

  rwtest::LockDir dir;
  std::string path = dir.path("lock");
  std::unique_ptr<UnixSharedRWLock> lock;
};

using State = std::array<int, 2>;

// Each row is a sequence of operations by one holder and the values after
// every step ('r' lockRead, 'R' freeRead, 'w' lockWrite, 'W' freeWrite,
// 'd' upgradeToLockRead, 'u' upgradeToLockWrite; a lower-case step that
// must fail is written in upper case in `fails`).
struct Sequence {
  const char* name;
  const char* ops;
  const char* fails;  // per step: '1' expects false
  std::vector<State> after;
};

TEST_F(LockingTest, ValuesAfterEachStep) {
  const Sequence table[] = {
      {"read twice", "rrRR", "0000", {{1, kN - 1}, {1, kN - 2}, {1, kN - 1}, {1, kN}}},
      {"write", "wW", "00", {{0, 0}, {1, kN}}},
      {"write, down to read", "wdR", "000", {{0, 0}, {1, kN - 1}, {1, kN}}},
      {"read, up to write", "ruW", "000", {{1, kN - 1}, {0, 0}, {1, kN}}},
      {"down without a write lock", "drdR", "1010", {{1, kN}, {1, kN - 1}, {1, kN - 1}, {1, kN}}},
      {"up without a read lock", "u", "1", {{1, kN}}},
      {"write is not reentrant", "wwrW", "0110", {{0, 0}, {0, 0}, {0, 0}, {1, kN}}},
      {"write while reading", "rwR", "010", {{1, kN - 1}, {1, kN - 1}, {1, kN}}},
  };
  for (const Sequence& s : table) {
    for (size_t i = 0; s.ops[i] != '\0'; ++i) {
      const bool wantFalse = s.fails[i] == '1';
      bool result = true;
      switch (s.ops[i]) {
        case 'r':
          result = lock->lockRead(0);
          break;
        case 'R':
          lock->freeRead();
          break;
        case 'w':
          result = lock->lockWrite(0);
          break;
        case 'W':
          lock->freeWrite();
          break;
        case 'd':
          result = lock->upgradeToLockRead(0);
          break;
        case 'u':
          result = lock->upgradeToLockWrite(0);
          break;
      }
      EXPECT_EQ(!wantFalse, result) << s.name << " step " << i;
      EXPECT_EQ(s.after[i], state()) << s.name << " step " << i;
    }
    ASSERT_EQ((State{{1, kN}}), state()) << s.name << " leaves the lock free";
  }
}

TEST_F(LockingTest, UnlimitedWaitsOnAFreeLock) {
  EXPECT_TRUE(lock->lockRead(kForever));
  EXPECT_TRUE(lock->upgradeToLockWrite(kForever));
  EXPECT_EQ((State{{0, 0}}), state());
  EXPECT_TRUE(lock->upgradeToLockRead(kForever));
  EXPECT_EQ((State{{1, kN - 1}}), state());
  lock->freeRead();
  EXPECT_TRUE(lock->lockWrite(0xFFFFFFFFUL)) << "the i386 value is unlimited too";
  lock->freeWrite();
  EXPECT_EQ((State{{1, kN}}), state());
}

// Every no-limit value waits in the kernel (it shows as a blocked semop);
// a finite time-out would poll instead and never show there.
TEST_F(LockingTest, NoLimitValuesBlockInTheKernel) {
  std::vector<unsigned long> values = {kForever, 0xFFFFFFFFUL};
  if (sizeof(unsigned long) > 4) values.push_back(static_cast<unsigned long>(0xFFFFFFFFULL + 1));
  for (unsigned long timeout : values) {
    ASSERT_TRUE(lock->lockWrite(0));
    Signal gotIt;
    const std::string p = path;
    Child reader([&, p] {
      UnixSharedRWLock l(p.c_str());
      if (!l.lockRead(timeout)) return 1;
      gotIt.post();
      l.freeRead();
      return 0;
    });
    EXPECT_TRUE(rwtest::waitForWaiters(path, 0, 1)) << timeout;
    lock->freeWrite();
    EXPECT_EQ(1, gotIt.wait()) << timeout;
    EXPECT_EQ(0, reader.wait()) << timeout << "; " << reader.describe();
  }
}

TEST_F(LockingTest, ReadersOfOtherProcessesShareTheLock) {
  Signal held, done;
  auto child = holder([](UnixSharedRWLock& l) { return l.lockRead(kForever); }, held, done);
  ASSERT_EQ(1, held.wait());
  EXPECT_TRUE(lock->lockRead(0));
  EXPECT_TRUE(lock->lockRead(100));
  EXPECT_EQ((State{{1, kN - 3}}), state());
  lock->freeRead();
  lock->freeRead();
  done.post();
  EXPECT_EQ(0, child->wait()) << child->describe();
  EXPECT_EQ((State{{1, kN}}), state());
}

TEST_F(LockingTest, WriterTimesOutAtTheDeadlineAndGivesTheGateBack) {
  Signal held, done;
  auto child = holder([](UnixSharedRWLock& l) { return l.lockRead(0); }, held, done);
  ASSERT_EQ(1, held.wait());
  for (unsigned long timeout : {0UL, 1UL, 60UL}) {
    const long long start = rwtest::wallMs();
    EXPECT_FALSE(lock->lockWrite(timeout)) << timeout;
    const long long took = rwtest::wallMs() - start;
    EXPECT_GE(took, static_cast<long long>(timeout)) << timeout;
    EXPECT_LT(took, 5000 * zk3test::kTimeScale) << timeout;
    EXPECT_EQ((State{{1, kN - 1}}), state()) << timeout;
  }
  done.post();
  EXPECT_EQ(0, child->wait()) << child->describe();
}

TEST_F(LockingTest, ReaderTimesOutWhileAWriteLockIsHeld) {
  Signal held, done;
  auto child = holder([](UnixSharedRWLock& l) { return l.lockWrite(0); }, held, done);
  ASSERT_EQ(1, held.wait());
  const long long start = rwtest::wallMs();
  EXPECT_FALSE(lock->lockRead(30));
  EXPECT_GE(rwtest::wallMs() - start, 30);
  EXPECT_FALSE(lock->lockRead(0));
  EXPECT_FALSE(lock->upgradeToLockWrite(0)) << "no read lock in force";
  EXPECT_EQ((State{{0, 0}}), state());
  done.post();
  EXPECT_EQ(0, child->wait()) << child->describe();
  EXPECT_EQ((State{{1, kN}}), state());
}

// A writer at the gate keeps new readers out, and gets the lock as soon as
// the readers that were in have left.
TEST_F(LockingTest, WriterAtTheGateKeepsNewReadersOut) {
  ASSERT_TRUE(lock->lockRead(0));
  Signal gotIt, release;
  const std::string p = path;
  Child writer([&, p] {
    UnixSharedRWLock l(p.c_str());
    if (!l.lockWrite(kForever)) return 1;
    gotIt.post();
    if (release.wait() != 1) return 2;
    l.freeWrite();
    return 0;
  });
  ASSERT_TRUE(rwtest::waitForWaiters(path, 1, 1)) << "the writer waits in stage 2";
  EXPECT_EQ((State{{0, kN - 1}}), state());
  EXPECT_FALSE(lock->lockRead(0));
  EXPECT_FALSE(lock->lockRead(50));
  EXPECT_EQ((State{{0, kN - 1}}), state());
  lock->freeRead();
  ASSERT_EQ(1, gotIt.wait());
  EXPECT_EQ((State{{0, 0}}), state());
  release.post();
  EXPECT_EQ(0, writer.wait()) << writer.describe();
  EXPECT_TRUE(lock->lockRead(0));
  lock->freeRead();
}

// A reader blocked behind a writer in stage 2 gets in when the writer times
// out.
TEST_F(LockingTest, BlockedReaderGetsInWhenTheWriterTimesOut) {
  Signal held, done;
  auto reader = holder([](UnixSharedRWLock& l) { return l.lockRead(0); }, held, done);
  ASSERT_EQ(1, held.wait());
  Signal timedOut;
  const std::string p = path;
  Child writer([&, p] {
    UnixSharedRWLock l(p.c_str());
    const bool got = l.lockWrite(500 * zk3test::kTimeScale);
    timedOut.post();
    return got ? 1 : 0;
  });
  ASSERT_TRUE(rwtest::waitForValues(path, [](const Values& v) { return v[0] == 0; }));
  // The writer held the gate, so getting in proves that it gave it back.
  EXPECT_TRUE(lock->lockRead(kForever)) << "blocks until the writer gives up";
  EXPECT_EQ(1, timedOut.wait());
  EXPECT_EQ((State{{1, kN - 2}}), state());
  lock->freeRead();
  EXPECT_EQ(0, writer.wait()) << writer.describe();
  done.post();
  EXPECT_EQ(0, reader->wait()) << reader->describe();
}

TEST_F(LockingTest, UpgradeWaitsForTheOtherReadersAndKeepsTheReadLock) {
  Signal held, done;
  auto other = holder([](UnixSharedRWLock& l) { return l.lockRead(0); }, held, done);
  ASSERT_EQ(1, held.wait());
  ASSERT_TRUE(lock->lockRead(0));
  const long long start = rwtest::wallMs();
  EXPECT_FALSE(lock->upgradeToLockWrite(40));
  EXPECT_GE(rwtest::wallMs() - start, 40);
  EXPECT_EQ((State{{1, kN - 2}}), state());
  done.post();
  EXPECT_EQ(0, other->wait());
  EXPECT_TRUE(lock->upgradeToLockWrite(0)) << "now the only reader";
  EXPECT_EQ((State{{0, 0}}), state());
  lock->freeWrite();
  EXPECT_EQ((State{{1, kN}}), state());
}

TEST_F(LockingTest, DowngradeLetsOtherReadersIn) {
  ASSERT_TRUE(lock->lockWrite(0));
  Signal attached, go;
  const std::string p = path;
  Child reader([&, p] {
    UnixSharedRWLock l(p.c_str());
    attached.post();
    if (go.wait() != 1) return 1;
    if (!l.lockRead(0)) return 2;
    l.freeRead();
    return 0;
  });
  ASSERT_EQ(1, attached.wait());
  EXPECT_TRUE(lock->upgradeToLockRead(0));
  go.post();
  EXPECT_EQ(0, reader.wait()) << reader.describe();
  EXPECT_FALSE(lock->lockWrite(0)) << "our read hold still counts";
  lock->freeRead();
  EXPECT_EQ((State{{1, kN}}), state());
}

// Dead holders: the kernel undoes exactly the net hold of the dead process,
// and waiters elsewhere go on at once.
TEST_F(LockingTest, KilledWriterFreesTheLock) {
  Signal held, never;
  auto dying = holder([](UnixSharedRWLock& l) { return l.lockWrite(kForever); }, held, never);
  ASSERT_EQ(1, held.wait());
  Signal gotIt;
  const std::string p = path;
  Child waiter([&, p] {
    UnixSharedRWLock l(p.c_str());
    if (!l.lockWrite(kForever)) return 1;
    gotIt.post();
    l.freeWrite();
    return 0;
  });
  ASSERT_TRUE(rwtest::waitForWaiters(path, 0, 1));
  EXPECT_TRUE(dying->killNow()) << dying->describe();
  EXPECT_EQ(1, gotIt.wait());
  EXPECT_EQ(0, waiter.wait()) << waiter.describe();
  EXPECT_EQ((Values{{1, kN, 1}}), rwtest::semValues(path));
}

TEST_F(LockingTest, KilledReaderGivesItsSlotsBack) {
  Signal held, never;
  auto dying = holder(
      [](UnixSharedRWLock& l) { return l.lockRead(0) && l.lockRead(0) && l.lockRead(kForever); },
      held, never);
  ASSERT_EQ(1, held.wait());
  ASSERT_TRUE(lock->lockRead(0));
  EXPECT_EQ((State{{1, kN - 4}}), state());
  EXPECT_TRUE(dying->killNow()) << dying->describe();
  EXPECT_EQ((State{{1, kN - 1}}), state());
  lock->freeRead();
  EXPECT_TRUE(lock->lockWrite(0));
  lock->freeWrite();
}

TEST_F(LockingTest, KilledReaderLetsAWaitingWriterIn) {
  Signal held, never;
  auto dying = holder([](UnixSharedRWLock& l) { return l.lockRead(0); }, held, never);
  ASSERT_EQ(1, held.wait());
  Signal gotIt;
  const std::string p = path;
  Child writer([&, p] {
    UnixSharedRWLock l(p.c_str());
    if (!l.lockWrite(kForever)) return 1;
    gotIt.post();
    l.freeWrite();
    return 0;
  });
  ASSERT_TRUE(rwtest::waitForWaiters(path, 1, 1));
  EXPECT_TRUE(dying->killNow()) << dying->describe();
  EXPECT_EQ(1, gotIt.wait());
  EXPECT_EQ(0, writer.wait()) << writer.describe();
  EXPECT_EQ((State{{1, kN}}), state());
}

TEST_F(LockingTest, WriterKilledInStage2GivesTheGateBack) {
  ASSERT_TRUE(lock->lockRead(0));
  const std::string p = path;
  Child writer([&, p] {
    UnixSharedRWLock l(p.c_str());
    l.lockWrite(kForever);
    return 1;
  });
  ASSERT_TRUE(rwtest::waitForWaiters(path, 1, 1));
  EXPECT_EQ((State{{0, kN - 1}}), state());
  EXPECT_TRUE(writer.killNow()) << writer.describe();
  EXPECT_EQ((State{{1, kN - 1}}), state());
  EXPECT_TRUE(lock->lockRead(0)) << "new readers get in at once";
  EXPECT_EQ((State{{1, kN - 2}}), state());
  lock->freeRead();
  lock->freeRead();
}

TEST_F(LockingTest, ProcessKilledAfterAnUpgradeFreesTheWriteLock) {
  Signal held, never;
  auto dying = holder([](UnixSharedRWLock& l) { return l.lockRead(0) && l.upgradeToLockWrite(0); },
                      held, never);
  ASSERT_EQ(1, held.wait());
  EXPECT_EQ((State{{0, 0}}), state());
  EXPECT_TRUE(dying->killNow()) << dying->describe();
  EXPECT_EQ((State{{1, kN}}), state());
}

}  // namespace
