// sharedrwlock: result codes, the error buffer, and no exception crossing.
#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

#include "rwlock/rwlock_test_support.h"
#include "zelkit3/rwlock.h"

namespace {

using rwtest::kN;
using zelkit3::sharedrwlock;
using Values = std::array<int, 3>;

static_assert(!std::is_copy_constructible<sharedrwlock>::value, "owns its lock alone");
static_assert(!std::is_copy_assignable<sharedrwlock>::value, "owns its lock alone");

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

class SharedRWLockTest : public ::testing::Test {
 protected:
  rwtest::LockDir dir;
  std::string path = dir.path("lock");
};

// All six operations of a facade, with their results.
std::array<int, 6> allOps(sharedrwlock& l) {
  return {{l.lockRead(0), l.freeRead(), l.upgradeToLockRead(0), l.lockWrite(0), l.freeWrite(),
           l.upgradeToLockWrite(0)}};
}

TEST_F(SharedRWLockTest, EverythingFailsWithoutInit) {
  sharedrwlock l;
  EXPECT_EQ((std::array<int, 6>{{2, 2, 2, 2, 2, 2}}), allOps(l));
  EXPECT_FALSE(rwtest::setExists(path));
}

// The codes of a working lock, then of one whose set someone else removed:
// the upgrades only read values first, and a failed read means not done.
TEST_F(SharedRWLockTest, CodesOfAWorkingLockThenOfARemovedSet) {
  sharedrwlock l;
  ASSERT_TRUE(l.init(path.c_str()));
  EXPECT_EQ(1, l.upgradeToLockRead(0)) << "no write lock to turn";
  EXPECT_EQ(1, l.upgradeToLockWrite(kForever)) << "no read lock to turn";
  EXPECT_EQ(0, l.lockRead(kForever));
  EXPECT_EQ(1, l.lockWrite(0));
  EXPECT_EQ(0, l.upgradeToLockWrite(0));
  EXPECT_EQ(1, l.lockRead(0));
  EXPECT_EQ(0, l.upgradeToLockRead(0));
  EXPECT_EQ(0, l.freeRead());
  EXPECT_EQ(0, l.lockWrite(kForever));
  EXPECT_EQ(0, l.freeWrite());
  EXPECT_EQ((Values{{1, kN, 1}}), rwtest::semValues(path));
  rwtest::removeSetOfKey(rwtest::keyOf(path));
  EXPECT_EQ((std::array<int, 6>{{2, 2, 1, 2, 2, 1}}), allOps(l));
}

// The text of a failed init, cut to fit the buffer; a failed init can be
// repeated.
TEST_F(SharedRWLockTest, InitFailuresFillTheBuffer) {
  const std::string missing = dir.path("missing/lock");
  const struct {
    const char* name;
    int size;
    std::string text;
  } cases[] = {
      {nullptr, 64, "The Lock file name is empty"},
      {nullptr, 8, "The Loc"},
      {missing.c_str(), 200,
       "Could not create/open file " + missing + " for ftok function call, errno = 2"},
  };
  sharedrwlock l;
  for (const auto& c : cases) {
    char buffer[256];
    std::memset(buffer, 'x', sizeof buffer);
    const int fds = rwtest::openDescriptors();
    EXPECT_FALSE(l.init(c.name, buffer, c.size)) << c.text;
    EXPECT_EQ(c.text, std::string(buffer));
    EXPECT_EQ('x', buffer[c.size]) << "nothing written past the size";
    EXPECT_EQ(fds, rwtest::openDescriptors()) << c.text;
    EXPECT_EQ(2, l.lockRead(0)) << "still not initialised";
  }
  char buffer[16] = "untouched";
  EXPECT_FALSE(l.init(nullptr, buffer, 0));
  EXPECT_FALSE(l.init(nullptr, buffer, -5));
  EXPECT_FALSE(l.init(nullptr));
  EXPECT_STREQ("untouched", buffer) << "without a size nothing is written";
  EXPECT_TRUE(l.init(path.c_str()));
  EXPECT_EQ(0, l.lockWrite(0));
  EXPECT_EQ(0, l.freeWrite());
}

// A second init keeps the first lock; the destructor gives it up.
TEST_F(SharedRWLockTest, SecondInitKeepsTheLock) {
  {
    sharedrwlock l;
    ASSERT_TRUE(l.init(path.c_str()));
    char buffer[32] = "untouched";
    EXPECT_FALSE(l.init(dir.path("other").c_str(), buffer, sizeof buffer));
    EXPECT_STREQ("untouched", buffer);
    EXPECT_FALSE(rwtest::setExists(dir.path("other")));
    EXPECT_EQ(0, l.lockWrite(0));
    EXPECT_EQ((Values{{0, 0, 1}}), rwtest::semValues(path));
    EXPECT_EQ(0, l.freeWrite());
  }
  EXPECT_FALSE(rwtest::setExists(path)) << "the destructor removed the set";
}

}  // namespace
