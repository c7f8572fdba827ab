// RWLockException and the deadlines of the lock's waits.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include "zelkit3/rwlock.h"

namespace {

using zelkit3::getTimeout;
using zelkit3::isTimeoutExpired;
using zelkit3::RWLockException;

long long usOf(const timeval& tv) { return tv.tv_sec * 1000000LL + tv.tv_usec; }
long long usOf(const timespec& ts) { return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000; }

TEST(RWLockException, CarriesMessageAndCodeAndIsARuntimeError) {
  try {
    zelkit3::UnixSharedRWLock::throwException(43);
    FAIL() << "throwException returned";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("operation failed errno = 43\n", e.what());
    const RWLockException* lock = dynamic_cast<const RWLockException*>(&e);
    ASSERT_NE(nullptr, lock);
    EXPECT_EQ(43, lock->getErrorCode());
  }
}

TEST(Timeout, DeadlineLiesTheTimeOutAhead) {
  for (unsigned long ms : {0UL, 1500UL, 4293967UL}) {
    timeval before, after;
    gettimeofday(&before, nullptr);
    const timespec deadline = getTimeout(ms);
    gettimeofday(&after, nullptr);
    EXPECT_GE(usOf(deadline), usOf(before) + static_cast<long long>(ms) * 1000) << ms;
    EXPECT_LE(usOf(deadline), usOf(after) + static_cast<long long>(ms) * 1000) << ms;
    EXPECT_LT(deadline.tv_nsec, 1000000000L);
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

}  // namespace
