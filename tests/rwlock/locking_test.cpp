// The six locking operations of UnixSharedRWLock: the semaphore values after
// each step, time-outs, writer preference, upgrades and dead holders, with
// the other holders in forked processes.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "rwlock/rwlock_test_support.h"
#include "zelkit3/rwlock.h"

namespace {

using zk3test::Child;
using rwtest::kN;
using rwtest::Signal;
using zelkit3::UnixSharedRWLock;
using State = std::array<int, 2>;

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

// Runs `ops` on `l` ('r' lockRead, 'R' freeRead, 'w' lockWrite, 'W' freeWrite,
// 'd' upgradeToLockRead, 'u' upgradeToLockWrite); calls `after` with the step
// and its result (true for the frees). False once a step gave false.
bool runOps(UnixSharedRWLock& l, const char* ops, unsigned long timeout,
            const std::function<void(size_t, bool)>& after = nullptr) {
  bool all = true;
  for (size_t i = 0; ops[i] != '\0'; ++i) {
    bool result = true;
    switch (ops[i]) {
      case 'r': result = l.lockRead(timeout); break;
      case 'R': l.freeRead(); break;
      case 'w': result = l.lockWrite(timeout); break;
      case 'W': l.freeWrite(); break;
      case 'd': result = l.upgradeToLockRead(timeout); break;
      case 'u': result = l.upgradeToLockWrite(timeout); break;
    }
    if (after) after(i, result);
    all = all && result;
  }
  return all;
}

class LockingTest : public ::testing::Test {
 protected:
  void SetUp() override { lock.reset(new UnixSharedRWLock(path.c_str())); }
  void TearDown() override { lock.reset(); }
  // Gate and slots, the first two semaphores.
  State state() {
    const std::array<int, 3> v = rwtest::semValues(path);
    return {{v[0], v[1]}};
  }
  // A child that attaches to the lock, runs `ops` and keeps what it holds
  // until told (or killed).
  std::unique_ptr<Child> holder(const char* ops, Signal& held, Signal& done) {
    const std::string p = path;
    return std::unique_ptr<Child>(new Child([&, p, ops] {
      UnixSharedRWLock l(p.c_str());
      if (!runOps(l, ops, kForever)) return 1;
      held.post();
      return done.wait() == 1 ? 0 : 2;
    }));
  }

  rwtest::LockDir dir;
  std::string path = dir.path("lock");
  std::unique_ptr<UnixSharedRWLock> lock;
};

// Each row is a sequence of operations by one holder and the values after
// every step; `fails` has '1' for a step that must give false. Rows without
// a failing step run with unlimited waits too.
struct Sequence {
  const char* name;
  const char* ops;
  const char* fails;
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
  for (unsigned long timeout : {0UL, kForever, 0xFFFFFFFFUL}) {
    for (const Sequence& s : table) {
      if (timeout != 0 && std::string(s.fails).find('1') != std::string::npos) continue;
      runOps(*lock, s.ops, timeout, [&](size_t i, bool result) {
        EXPECT_EQ(s.fails[i] != '1', result) << s.name << " step " << i << " " << timeout;
        EXPECT_EQ(s.after[i], state()) << s.name << " step " << i << " " << timeout;
      });
      ASSERT_EQ((State{{1, kN}}), state()) << s.name << " leaves the lock free";
    }
  }
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

// A writer that times out in its second stage gives the gate back.
TEST_F(LockingTest, WriterTimesOutAtTheDeadlineAndGivesTheGateBack) {
  Signal held, done;
  auto child = holder("r", held, done);
  ASSERT_EQ(1, held.wait());
  for (unsigned long timeout : {0UL, 60UL}) {
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

// A writer at the gate keeps new readers out until they time out, and gets
// the lock as soon as the readers that were in have left.
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
  EXPECT_FALSE(lock->lockRead(0));
  const long long start = rwtest::wallMs();
  EXPECT_FALSE(lock->lockRead(30));
  EXPECT_GE(rwtest::wallMs() - start, 30);
  EXPECT_EQ((State{{0, kN - 1}}), state());
  lock->freeRead();
  ASSERT_EQ(1, gotIt.wait());
  EXPECT_EQ((State{{0, 0}}), state());
  release.post();
  EXPECT_EQ(0, writer.wait()) << writer.describe();
}

TEST_F(LockingTest, UpgradeWaitsForTheOtherReadersAndKeepsTheReadLock) {
  Signal held, done;
  auto other = holder("r", held, done);
  ASSERT_EQ(1, held.wait());
  ASSERT_TRUE(lock->lockRead(0));
  const long long start = rwtest::wallMs();
  EXPECT_FALSE(lock->upgradeToLockWrite(40));
  EXPECT_GE(rwtest::wallMs() - start, 40);
  EXPECT_EQ((State{{1, kN - 2}}), state());
  done.post();
  EXPECT_EQ(0, other->wait());
  EXPECT_TRUE(lock->upgradeToLockWrite(0)) << "now the only reader";
  lock->freeWrite();
}

// Dead holders: the kernel undoes exactly the net hold (and the user count)
// of the killed process, whatever steps led to it.
TEST_F(LockingTest, KilledHoldersGiveBackExactlyWhatTheyHeld) {
  const struct {
    const char* what;
    const char* ops;
    bool weRead;   // we hold a read lock meanwhile
    bool blocks;   // the child waits in the second stage of a write
    State held;
  } cases[] = {
      {"reads", "rrr", true, false, {{1, kN - 4}}},
      {"write", "w", false, false, {{0, 0}}},
      {"read, up to write", "ru", false, false, {{0, 0}}},
      {"write, down to read", "wd", false, false, {{1, kN - 1}}},
      {"writer in stage 2", "w", true, true, {{0, kN - 1}}},
  };
  for (const auto& c : cases) {
    if (c.weRead) {
      ASSERT_TRUE(lock->lockRead(0)) << c.what;
    }
    Signal held, never;
    auto dying = holder(c.ops, held, never);
    if (c.blocks) {
      ASSERT_TRUE(rwtest::waitForWaiters(path, 1, 1)) << c.what;
    } else {
      ASSERT_EQ(1, held.wait()) << c.what;
    }
    EXPECT_EQ(c.held, state()) << c.what;
    EXPECT_TRUE(dying->killNow()) << c.what << "; " << dying->describe();
    EXPECT_EQ((std::array<int, 3>{{1, c.weRead ? kN - 1 : kN, 1}}), rwtest::semValues(path))
        << c.what;
    if (c.weRead) lock->freeRead();
  }
}

}  // namespace
