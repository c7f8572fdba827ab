// ILogger, IdleLogger, LoggerHelper and ThreadSafeAddRef.
#include "zelkit3/logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/sync.h"

namespace {

using zelkit3::IdleLogger;
using zelkit3::ILogger;
using zelkit3::LoggerHelper;
using zelkit3::ThreadSafeAddRef;

static_assert(!std::is_copy_constructible<LoggerHelper>::value, "a copy would release twice");
static_assert(!std::is_copy_assignable<LoggerHelper>::value, "a copy would release twice");
static_assert(!std::is_copy_constructible<ThreadSafeAddRef>::value, "a count is not copied");
static_assert(std::has_virtual_destructor<ThreadSafeAddRef>::value, "destroyed through its base");
static_assert(std::is_abstract<ILogger>::value, "ILogger is an interface");

// A counted logger that notes every addRef and release in a shared trace and
// deletes itself when its count reaches 0.
class TracingLogger : public ILogger {
 public:
  TracingLogger(std::string name, std::string* trace, bool* destroyed = nullptr)
      : mName(std::move(name)), mTrace(trace), mDestroyed(destroyed) {}
  ~TracingLogger() override {
    if (mDestroyed != nullptr) *mDestroyed = true;
  }
  void logf(int, const char*, ...) override {}
  void log(int, const char*) override {}
  bool isPriorityEnabled(int) override { return true; }
  long addRef() override {
    *mTrace += "+" + mName;
    return ++mCount;
  }
  long release() override {
    *mTrace += "-" + mName;
    const long left = --mCount;
    if (left == 0) delete this;
    return left;
  }
  long mCount = 1;

 private:
  std::string mName;
  std::string* mTrace;
  bool* mDestroyed;
};

class ThrowingLogger : public TracingLogger {
 public:
  using TracingLogger::TracingLogger;
  long release() override { throw std::runtime_error("release failed"); }
};

TEST(LoggerHelper, NullLoggerAnswersWithTheIdleLogger) {
  LoggerHelper helper(nullptr);
  ILogger* logger = helper.getLogger();
  ASSERT_EQ(logger, IdleLogger::getInst());
  for (int priority : {INT_MIN, -1, 0, 1, 3, 7, 100, INT_MAX}) EXPECT_FALSE(logger->isPriorityEnabled(priority));
  LoggerHelper byDefault;
  EXPECT_EQ(byDefault.getLogger(), IdleLogger::getInst());
}

TEST(LoggerHelper, HoldsOneReferenceForItsLifetime) {
  std::string trace;
  bool destroyed = false;
  auto* logger = new TracingLogger("a", &trace, &destroyed);
  {
    LoggerHelper helper(logger);
    EXPECT_EQ(trace, "+a");
    EXPECT_EQ(logger->mCount, 2);
    EXPECT_EQ(helper.getLogger(), logger);
    EXPECT_EQ(logger->mCount, 2) << "getLogger takes no reference";
  }
  EXPECT_EQ(trace, "+a-a");
  EXPECT_FALSE(destroyed);
  logger->release();
  EXPECT_TRUE(destroyed);
}

TEST(LoggerHelper, SetLoggerReleasesTheOldBeforeAddingTheNew) {
  std::string trace;
  bool aGone = false;
  auto* a = new TracingLogger("a", &trace, &aGone);
  auto* b = new TracingLogger("b", &trace);
  LoggerHelper helper(a);
  a->release();  // the holder now has the only reference to a
  trace.clear();
  helper.setLogger(b);
  EXPECT_EQ(trace, "-a+b");
  EXPECT_TRUE(aGone);
  EXPECT_EQ(helper.getLogger(), b);
  b->release();
}

TEST(LoggerHelper, SetNullReleasesAndFallsBackOnIdle) {
  std::string trace;
  bool gone = false;
  auto* a = new TracingLogger("a", &trace, &gone);
  LoggerHelper helper(a);
  a->release();
  helper.setLogger(nullptr);
  EXPECT_TRUE(gone);
  EXPECT_EQ(helper.getLogger(), IdleLogger::getInst());
  helper.setLogger(nullptr);  // nothing held, nothing released
  EXPECT_EQ(trace, "+a-a-a");
}

// The logger already held, passed again while the holder has its only
// reference, must survive (ASan catches a use after free here).
TEST(LoggerHelper, SetLoggerWithTheHeldLoggerChangesNothing) {
  std::string trace;
  bool gone = false;
  auto* a = new TracingLogger("a", &trace, &gone);
  LoggerHelper helper(a);
  a->release();
  trace.clear();
  helper.setLogger(a);
  EXPECT_FALSE(gone);
  EXPECT_EQ(trace, "");
  EXPECT_EQ(a->mCount, 1);
  EXPECT_EQ(helper.getLogger(), a);
}

TEST(LoggerHelper, IdleLoggerCanBeSetExplicitly) {
  IdleLogger* idle = IdleLogger::getInst();
  LoggerHelper helper(idle);
  EXPECT_EQ(helper.getLogger(), idle);
  helper.setLogger(idle);
  EXPECT_EQ(helper.getLogger(), idle);
  EXPECT_EQ(idle->addRef(), 0);
  EXPECT_EQ(idle->release(), 0);
  EXPECT_EQ(idle->release(), 0);
  idle->log(1, "dropped");
  idle->logf(1, "dropped %d %s", 2, "too");
  EXPECT_FALSE(idle->isPriorityEnabled(0));
}

TEST(LoggerHelper, DestructorSwallowsAThrowingRelease) {
  std::string trace;
  auto* logger = new ThrowingLogger("t", &trace);
  EXPECT_NO_THROW({ LoggerHelper helper(logger); });
  delete logger;
}

TEST(ThreadSafeAddRef, StartsAtOneAndCountsAtomically) {
  auto* count = new ThreadSafeAddRef();
  EXPECT_EQ(count->getCount(), 1u);
  EXPECT_EQ(count->incrementRef(), 2u);
  EXPECT_EQ(count->decrementRef(), 1u);

  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  zk3test::Gate gate(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      gate.arriveAndWait();
      for (int r = 0; r < kRounds; ++r) count->incrementRef();
      for (int r = 0; r < kRounds / 2; ++r) count->decrementRef();
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(count->getCount(), 1u + kThreads * (kRounds - kRounds / 2));
  delete count;  // through the virtual destructor, as String does
}

}  // namespace
