// RWLockException, the deadlines of the lock's waits and its semaphore flags.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include "support/sync.h"
#include "zelkit3/rwlock.h"

namespace {

using zelkit3::getSemFlags;
using zelkit3::getTimeout;
using zelkit3::isTimeoutExpired;
using zelkit3::RWLockException;

long long usOf(const timeval& tv) { return tv.tv_sec * 1000000LL + tv.tv_usec; }
long long usOf(const timespec& ts) { return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000; }

TEST(RWLockException, CarriesMessageAndCodeAndIsARuntimeError) {
  try {
    throw RWLockException("some text", 5);
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("some text", e.what());
    const RWLockException* lock = dynamic_cast<const RWLockException*>(&e);
    ASSERT_NE(nullptr, lock);
    EXPECT_EQ(5, lock->getErrorCode());
  }
}

TEST(RWLockException, ThrowExceptionEndsItsTextWithANewline) {
  try {
    zelkit3::UnixSharedRWLock::throwException(43);
    FAIL() << "throwException returned";
  } catch (const RWLockException& e) {
    EXPECT_STREQ("operation failed errno = 43\n", e.what());
    EXPECT_EQ(43, e.getErrorCode());
  }
}

TEST(SemFlags, UnlimitedBlocksLimitedPolls) {
  EXPECT_EQ(0x1000, getSemFlags(true));
  EXPECT_EQ(0x1800, getSemFlags(false));
}

TEST(Timeout, DeadlineLiesTheTimeOutAhead) {
  const struct {
    unsigned long ms;
  } cases[] = {{0}, {1}, {999}, {1000}, {1500}, {60000}, {4293967}};
  for (const auto& c : cases) {
    timeval before, after;
    gettimeofday(&before, nullptr);
    const timespec deadline = getTimeout(c.ms);
    gettimeofday(&after, nullptr);
    EXPECT_GE(usOf(deadline), usOf(before) + static_cast<long long>(c.ms) * 1000) << c.ms;
    EXPECT_LE(usOf(deadline), usOf(after) + static_cast<long long>(c.ms) * 1000) << c.ms;
    EXPECT_GE(deadline.tv_nsec, 0);
    EXPECT_LT(deadline.tv_nsec, 1000000000L);
    EXPECT_EQ(0, deadline.tv_nsec % 1000);
  }
}

// The deadline arithmetic is 32 bits wide on both ABIs: 4,294,968 ms wraps to
// well under a second ahead instead of 71 minutes.
TEST(Timeout, ArithmeticIs32BitsOnEveryAbi) {
  timeval before;
  gettimeofday(&before, nullptr);
  const timespec deadline = getTimeout(4294968);
  EXPECT_LT(usOf(deadline), usOf(before) + 2000000);
}

TEST(Timeout, PastAndFutureDeadlines) {
  timeval now;
  gettimeofday(&now, nullptr);
  EXPECT_TRUE(isTimeoutExpired(timespec{now.tv_sec - 1, 999999000L}));
  EXPECT_TRUE(isTimeoutExpired(timespec{0, 0}));
  EXPECT_FALSE(isTimeoutExpired(timespec{now.tv_sec + 2, 0}));
  EXPECT_FALSE(isTimeoutExpired(getTimeout(60000)));
  EXPECT_TRUE(isTimeoutExpired(timespec{now.tv_sec, -1}));
}

// A deadline equal to the present microsecond has not expired. Sampled: only
// calls that the clock brackets within one microsecond count.
TEST(Timeout, DeadlineEqualToNowHasNotExpired) {
  int sameMicrosecond = 0;
  for (int i = 0; i < 100000 && sameMicrosecond < 50; ++i) {
    timeval t1, t2;
    gettimeofday(&t1, nullptr);
    const bool expired = isTimeoutExpired(timespec{t1.tv_sec, t1.tv_usec * 1000L});
    gettimeofday(&t2, nullptr);
    if (t1.tv_sec == t2.tv_sec && t1.tv_usec == t2.tv_usec) {
      ++sameMicrosecond;
      EXPECT_FALSE(expired);
    }
  }
  EXPECT_GT(sameMicrosecond, 0) << "the clock never stood still for one call";
}

TEST(Timeout, ExpiresOnceTheDeadlinePasses) {
  const timespec deadline = getTimeout(20);
  EXPECT_FALSE(isTimeoutExpired(deadline));
  // Bounded on the monotonic clock, in case the wall clock is set back.
  timespec start, now;
  clock_gettime(CLOCK_MONOTONIC, &start);
  bool expired = false;
  do {
    expired = isTimeoutExpired(deadline);
    clock_gettime(CLOCK_MONOTONIC, &now);
  } while (!expired && now.tv_sec - start.tv_sec < 5 * zk3test::kTimeScale);
  EXPECT_TRUE(expired);
}

}  // namespace
