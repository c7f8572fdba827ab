// UnixSharedRWLock: finding, making, counting and removing the semaphore set
// of a lock file, across processes, and the failures of all of that.
#include <gtest/gtest.h>
#include <sys/file.h>

#include <functional>
#include <memory>
#include <type_traits>

#include "rwlock/rwlock_test_support.h"
#include "zelkit3/rwlock.h"

namespace {

using zk3test::Child;
using rwtest::kN;
using rwtest::semValues;
using rwtest::Signal;
using zelkit3::RWLockException;
using zelkit3::UnixSharedRWLock;
using Values = std::array<int, 3>;

static_assert(!std::is_copy_constructible<UnixSharedRWLock>::value, "one user count per object");
static_assert(!std::is_copy_assignable<UnixSharedRWLock>::value, "one user count per object");

// Reaches the set-up steps that only derived classes may call.
class ProbeLock : public UnixSharedRWLock {
 public:
  explicit ProbeLock(const char* name) : UnixSharedRWLock(name) {}
  using UnixSharedRWLock::isLastProcess;
};

class UnixSharedRWLockTest : public ::testing::Test {
 protected:
  std::string lockPath() { return dir.path("lock"); }
  // Makes an empty file and a raw set with `nsems` semaphores under its key.
  int makeForeignSet(const std::string& path, int nsems) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0660);
    close(fd);
    return semget(rwtest::keyOf(path), nsems, IPC_CREAT | IPC_EXCL | 0666);
  }
  rwtest::LockDir dir;
};

TEST_F(UnixSharedRWLockTest, FirstUserMakesFileAndSet) {
  const mode_t old = umask(0);
  {
    UnixSharedRWLock lock(lockPath().c_str());
    umask(old);
    struct stat st;
    ASSERT_EQ(0, stat(lockPath().c_str(), &st));
    EXPECT_EQ(0660u, st.st_mode & 0777u);
    EXPECT_EQ(0, st.st_size);
    EXPECT_EQ((Values{{1, kN, 1}}), semValues(lockPath()));
    semid_ds ds;
    ASSERT_EQ(0, semctl(rwtest::setIdOf(rwtest::keyOf(lockPath())), 0, IPC_STAT, &ds));
    EXPECT_EQ(0666u, ds.sem_perm.mode & 0777u);
    EXPECT_EQ(3u, ds.sem_nsems);
  }
  umask(old);
  EXPECT_FALSE(rwtest::setExists(lockPath())) << "the last user removes the set";
  EXPECT_EQ(0, access(lockPath().c_str(), F_OK)) << "the lock file stays";
}

TEST_F(UnixSharedRWLockTest, ObjectsAreCountedInAndAcrossProcesses) {
  const int fds = rwtest::openDescriptors();
  std::unique_ptr<UnixSharedRWLock> first(new UnixSharedRWLock(lockPath().c_str()));
  std::unique_ptr<UnixSharedRWLock> second(new UnixSharedRWLock(lockPath().c_str()));
  {
    Signal attached, leave;
    const std::string path = lockPath();
    Child child([&] {
      {
        UnixSharedRWLock theirs(path.c_str());
        attached.post();
        if (leave.wait() != 1) return 1;
      }
      return 0;
    });
    ASSERT_EQ(1, attached.wait());
    EXPECT_EQ((Values{{1, kN, 3}}), semValues(lockPath()));
    leave.post();
    EXPECT_EQ(0, child.wait()) << child.describe();
  }
  EXPECT_EQ((Values{{1, kN, 2}}), semValues(lockPath()));
  second.reset();
  EXPECT_EQ((Values{{1, kN, 1}}), semValues(lockPath()));
  first.reset();
  EXPECT_FALSE(rwtest::setExists(lockPath()));
  EXPECT_EQ(fds, rwtest::openDescriptors()) << "no descriptor is kept";
}

TEST_F(UnixSharedRWLockTest, SetOfDeadUsersIsTakenOver) {
  const std::string path = lockPath();
  Child child([&] {
    UnixSharedRWLock lock(path.c_str());
    UnixSharedRWLock second(path.c_str());
    if (!lock.lockWrite(-1)) return 1;
    raise(SIGKILL);
    return 2;
  });
  EXPECT_EQ(128 + SIGKILL, child.wait()) << child.describe();
  EXPECT_EQ((Values{{1, kN, 0}}), semValues(lockPath())) << "the kernel undid every hold";
  {
    UnixSharedRWLock lock(lockPath().c_str());
    EXPECT_EQ((Values{{1, kN, 1}}), semValues(lockPath()));
    EXPECT_TRUE(lock.lockWrite(0));
    lock.freeWrite();
  }
  EXPECT_FALSE(rwtest::setExists(lockPath()));
}

TEST_F(UnixSharedRWLockTest, SetThatWasNeverMarkedReadyIsInitialised) {
  const int id = makeForeignSet(lockPath(), 3);
  ASSERT_NE(-1, id);
  unsigned short junk[3] = {7, 7, 7};
  ASSERT_EQ(0, semctl(id, 0, SETALL, junk));  // SETALL leaves sem_otime at 0.
  {
    UnixSharedRWLock lock(lockPath().c_str());
    EXPECT_EQ((Values{{1, kN, 1}}), semValues(lockPath()));
    EXPECT_TRUE(lock.lockWrite(0));
    EXPECT_EQ((Values{{0, 0, 1}}), semValues(lockPath()));
    lock.freeWrite();
  }
  EXPECT_FALSE(rwtest::setExists(lockPath()));
}

// Failures that leave the constructor: type, text and code, and no
// descriptor left open.
TEST_F(UnixSharedRWLockTest, ForeignSetsAreRejected) {
  const struct {
    const char* what;
    int nsems;  // of the foreign set under the key
    const char* message;
  } cases[] = {
      {"four semaphores", 4, "Semaphor open failed. Semaphor set is not initialized properly."},
      {"two semaphores", 2, "Open semaphore set failed errno = 22"},
  };
  for (const auto& c : cases) {
    const std::string path = dir.path(c.what);
    ASSERT_NE(-1, makeForeignSet(path, c.nsems)) << c.what;
    const int fds = rwtest::openDescriptors();
    try {
      UnixSharedRWLock lock(path.c_str());
      ADD_FAILURE() << c.what << ": no exception";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(c.message, e.what()) << c.what;
      EXPECT_EQ(nullptr, dynamic_cast<const RWLockException*>(&e)) << c.what;
    }
    EXPECT_EQ(fds, rwtest::openDescriptors()) << c.what;
  }
}

// A null name is a plain std::runtime_error, a file that cannot be opened an
// RWLockException with errno as its code (the texts: sharedrwlock_test).
TEST_F(UnixSharedRWLockTest, BadNames) {
  const std::string missing = dir.path("missing/lock");
  const struct {
    const char* name;
    int code;  // 0: not an RWLockException
  } cases[] = {{nullptr, 0}, {missing.c_str(), ENOENT}};
  for (const auto& c : cases) {
    const int fds = rwtest::openDescriptors();
    try {
      UnixSharedRWLock lock(c.name);
      ADD_FAILURE() << c.code << ": no exception";
    } catch (const std::runtime_error& e) {
      const RWLockException* lockError = dynamic_cast<const RWLockException*>(&e);
      EXPECT_EQ(c.code, lockError == nullptr ? 0 : lockError->getErrorCode()) << e.what();
    }
    EXPECT_EQ(fds, rwtest::openDescriptors()) << c.code;
  }
}

TEST_F(UnixSharedRWLockTest, BusyLockFileGivesCode11AfterTheSpin) {
  const std::string path = lockPath();
  Signal holding, release;
  Child holder([&] {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0660);
    if (flock(fd, LOCK_EX) != 0) return 1;
    holding.post();
    return release.wait() == 1 ? 0 : 2;
  });
  ASSERT_EQ(1, holding.wait());
  const int fds = rwtest::openDescriptors();
  const long long start = rwtest::wallMs();
  try {
    UnixSharedRWLock lock(path.c_str());
    ADD_FAILURE() << "no exception";
  } catch (const RWLockException& e) {
    EXPECT_STREQ("operation failed errno = 11\n", e.what());
    EXPECT_EQ(11, e.getErrorCode());
  }
  EXPECT_GE(rwtest::wallMs() - start, 100);
  EXPECT_EQ(fds, rwtest::openDescriptors());
  EXPECT_FALSE(rwtest::setExists(path)) << "nothing was made without the flock";
  release.post();
  EXPECT_EQ(0, holder.wait()) << holder.describe();
  // The file is free again: the lock works.
  UnixSharedRWLock lock(path.c_str());
  EXPECT_EQ((Values{{1, kN, 1}}), semValues(path));
}

// A destructor that cannot get the flock leaves the count alone; the kernel's
// undo lowers it when that process ends.
TEST_F(UnixSharedRWLockTest, BusyLockFileInTheDestructorLeavesTheCount) {
  const std::string path = lockPath();
  UnixSharedRWLock mine(path.c_str());
  Signal attached, locked, destroyed;
  Child child([&] {
    UnixSharedRWLock* theirs = new UnixSharedRWLock(path.c_str());
    attached.post();
    if (locked.wait() != 1) return 1;
    const int fds = rwtest::openDescriptors();
    delete theirs;  // Returns normally although the file is busy.
    if (fds != rwtest::openDescriptors()) return 3;
    destroyed.post(static_cast<char>(semValues(path)[2]));
    return 0;
  });
  ASSERT_EQ(1, attached.wait());
  const int fd = open(path.c_str(), O_RDWR);
  ASSERT_EQ(0, flock(fd, LOCK_EX));
  locked.post();
  EXPECT_EQ(2, destroyed.wait()) << "count unchanged by the failed destructor";
  EXPECT_EQ(0, child.wait()) << child.describe();
  EXPECT_EQ((Values{{1, kN, 1}}), semValues(path)) << "the child's exit lowered it";
  flock(fd, LOCK_UN);
  close(fd);
}

TEST_F(UnixSharedRWLockTest, SetRemovedBySomeoneElse) {
  ProbeLock lock(lockPath().c_str());
  EXPECT_TRUE(lock.isLastProcess());
  rwtest::removeSetOfKey(rwtest::keyOf(lockPath()));
  EXPECT_FALSE(lock.isLastProcess());
  const std::function<void()> ops[] = {
      [&] { lock.lockRead(0); },  [&] { lock.lockRead(-1); }, [&] { lock.lockWrite(10); },
      [&] { lock.freeRead(); },   [&] { lock.freeWrite(); },
  };
  for (size_t i = 0; i < sizeof ops / sizeof ops[0]; ++i) {
    try {
      ops[i]();
      ADD_FAILURE() << i << ": no exception";
    } catch (const RWLockException& e) {
      EXPECT_EQ(EINVAL, e.getErrorCode()) << i;
      EXPECT_STREQ("operation failed errno = 22\n", e.what()) << i;
    }
  }
  // The upgrades only read values first; a failed read is a plain false.
  EXPECT_FALSE(lock.upgradeToLockWrite(0));
  EXPECT_FALSE(lock.upgradeToLockRead(0));
  // Other users go on: a new object gets a fresh set.
  UnixSharedRWLock other(lockPath().c_str());
  EXPECT_EQ((Values{{1, kN, 1}}), semValues(lockPath()));
}

// Replacing the lock file gives the path a new key: new objects get a new set,
// old ones keep theirs, and each set is removed by its last user.
TEST_F(UnixSharedRWLockTest, ReplacedLockFile) {
  const std::string path = lockPath();
  std::unique_ptr<UnixSharedRWLock> old(new UnixSharedRWLock(path.c_str()));
  const key_t oldKey = rwtest::keyOf(path);
  dir.rememberKey(oldKey);
  const std::string moved = dir.path("lock.moved");
  ASSERT_EQ(0, rename(path.c_str(), moved.c_str()));  // keeps the old inode alive
  std::unique_ptr<UnixSharedRWLock> fresh(new UnixSharedRWLock(path.c_str()));
  const key_t newKey = rwtest::keyOf(path);
  ASSERT_NE(oldKey, newKey);
  EXPECT_TRUE(old->lockWrite(0));
  EXPECT_TRUE(fresh->lockWrite(0)) << "a different set";
  old->freeWrite();
  fresh->freeWrite();
  fresh.reset();
  EXPECT_EQ(-1, rwtest::setIdOf(newKey));
  EXPECT_NE(-1, rwtest::setIdOf(oldKey));
  old.reset();
  EXPECT_EQ(-1, rwtest::setIdOf(oldKey)) << "the old set goes with its last user";
}

// A signal during an unlimited wait is a failure with code 4.
TEST_F(UnixSharedRWLockTest, SignalDuringUnlimitedWaitRaisesEintr) {
  const std::string path = lockPath();
  UnixSharedRWLock mine(path.c_str());
  ASSERT_TRUE(mine.lockWrite(0));
  Child child([&] {
    struct sigaction sa = {};
    sa.sa_handler = [](int) {};
    sigaction(SIGUSR1, &sa, nullptr);
    UnixSharedRWLock lock(path.c_str());
    try {
      lock.lockRead(-1);
      return 1;
    } catch (const RWLockException& e) {
      return e.getErrorCode() == EINTR ? 0 : 2;
    }
  });
  ASSERT_TRUE(rwtest::waitForWaiters(path, 0, 1)) << "the child blocks at the gate";
  kill(child.pid(), SIGUSR1);
  const int rc = child.wait();
  EXPECT_EQ(0, rc) << child.describe();
  mine.freeWrite();
}

// A waiter whose set is removed gets EIDRM (43).
TEST_F(UnixSharedRWLockTest, RemovalDuringAWaitRaisesEidrm) {
  const std::string path = lockPath();
  UnixSharedRWLock mine(path.c_str());
  ASSERT_TRUE(mine.lockWrite(0));
  Child child([&] {
    UnixSharedRWLock lock(path.c_str());
    try {
      lock.lockWrite(-1);
      return 1;
    } catch (const RWLockException& e) {
      return e.getErrorCode() == EIDRM ? 0 : 2;
    }
  });
  // The child blocks in stage 1 of lockWrite: the kernel shows one waiter.
  ASSERT_TRUE(rwtest::waitForWaiters(path, 0, 1));
  const int id = rwtest::setIdOf(rwtest::keyOf(path));
  semctl(id, 0, IPC_RMID, 0);
  EXPECT_EQ(0, child.wait()) << child.describe();
}

// The steps of a write are fixed from gReadersCount at load: a new set made
// after a change to it no longer fits them.
TEST_F(UnixSharedRWLockTest, StepsFollowTheReaderCountAtLoad) {
  const std::string path = lockPath();
  Child child([&] {
    zelkit3::gReadersCount = 5000;
    UnixSharedRWLock lock(path.c_str());
    if (semValues(path) != Values{{1, 5000, 1}}) return 1;
    if (lock.lockWrite(0)) return 2;  // would need 10000 slots
    if (semValues(path) != Values{{1, 5000, 1}}) return 3;
    if (!lock.lockRead(0)) return 4;
    if (semValues(path) != Values{{1, 4999, 1}}) return 5;
    lock.freeRead();
    return 0;
  });
  EXPECT_EQ(0, child.wait()) << child.describe();
  EXPECT_EQ(10000, zelkit3::gReadersCount);
  EXPECT_FALSE(rwtest::setExists(path));
}

}  // namespace
