#include "zelkit3/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "test_util.h"

namespace {

using zelkit3::AThread;
using zelkit3::ThreadHandle;
using zk3test::Flag;
using zk3test::scaled;
using Clock = std::chrono::steady_clock;

static_assert(!std::is_copy_constructible<AThread>::value, "AThread is not copyable");

// Runs until its gate opens; counts its runs.
class GatedThread : public AThread {
 public:
  int run() override {
    runs.fetch_add(1);
    entered.set();
    gate.waitFor(scaled(30000));
    return 0;
  }
  std::atomic<int> runs{0};
  Flag entered;
  Flag gate;
};

// Returns at once.
class QuickThread : public AThread {
 public:
  int run() override {
    runs.fetch_add(1);
    return 7;
  }
  std::atomic<int> runs{0};
};

TEST(ThreadHandleTest, HoldsAndComparesIdentifiers) {
  ThreadHandle self;
  EXPECT_TRUE(self.isCurrentThread());
  EXPECT_EQ(static_cast<unsigned long>(pthread_self()), self.getHandle());
  EXPECT_EQ(self.getHandle(), self.getCurrentThreadHandle());

  ThreadHandle none(0UL);
  EXPECT_FALSE(none.isCurrentThread());
  EXPECT_EQ(self.getHandle(), none.getCurrentThreadHandle());
  EXPECT_FALSE(none.equals(&self));
  none.setHandle(self.getHandle());
  EXPECT_TRUE(none.equals(&self));

  EXPECT_FALSE(self.equals(static_cast<const ThreadHandle*>(nullptr)));
  EXPECT_FALSE(self.equals(static_cast<const AThread*>(nullptr)));

  ThreadHandle* heap = ThreadHandle::getCurrentThread();
  EXPECT_TRUE(heap->equals(&self));
  heap->release();

  unsigned long otherId = 0;
  std::thread other([&] { otherId = ThreadHandle().getHandle(); });
  other.join();
  EXPECT_NE(self.getHandle(), otherId);
}

TEST(ThreadHandleTest, EqualsAThreadByItsHandle) {
  GatedThread t;
  ThreadHandle none(0UL);
  EXPECT_TRUE(none.equals(&t));  // both 0 before the first start
  ASSERT_TRUE(t.start());
  ThreadHandle copy(t.getHandle()->getHandle());
  EXPECT_TRUE(copy.equals(&t));
  EXPECT_FALSE(ThreadHandle().equals(&t));
  t.gate.set();
  EXPECT_TRUE(t.join(INFINITE));
}

TEST(AThreadTest, JoinOfNeverStartedReturnsTrueAtOnce) {
  QuickThread t;
  const auto begin = Clock::now();
  EXPECT_TRUE(t.join(INFINITE));
  EXPECT_TRUE(t.join(0));
  EXPECT_TRUE(t.join(60000));
  EXPECT_LT(Clock::now() - begin, scaled(5000));
  EXPECT_FALSE(t.isRunning());
  EXPECT_EQ(0UL, t.getHandle()->getHandle());
}

TEST(AThreadTest, SelfJoinReturnsTrueAtOnce) {
  class SelfJoin : public AThread {
   public:
    int run() override {
      result = join(INFINITE) && join(0);
      return 0;
    }
    bool result = false;
  } t;
  ASSERT_TRUE(t.start());
  EXPECT_TRUE(t.join(INFINITE));
  EXPECT_TRUE(t.result);
}

TEST(AThreadTest, JoinWithTimeOutPollsAndWaits) {
  GatedThread t;
  ASSERT_TRUE(t.start());
  EXPECT_TRUE(t.isRunning());
  EXPECT_FALSE(t.join(0));

  const auto begin = Clock::now();
  EXPECT_FALSE(t.join(50));
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));

  t.gate.set();
  EXPECT_TRUE(t.join(INFINITE));
  EXPECT_FALSE(t.isRunning());
  EXPECT_TRUE(t.join(0));
  EXPECT_TRUE(t.join(static_cast<unsigned long>(-1)));
}

TEST(AThreadTest, TimedJoinSeesTheEnd) {
  GatedThread t;
  ASSERT_TRUE(t.start());
  ASSERT_TRUE(t.entered.waitFor());
  std::thread opener([&] { t.gate.set(); });
  EXPECT_TRUE(t.join(60000));
  opener.join();
}

TEST(AThreadTest, SecondStartWhileRunningMakesNoThread) {
  GatedThread t;
  ASSERT_TRUE(t.start());
  const unsigned long first = t.getHandle()->getHandle();
  EXPECT_NE(0UL, first);
  EXPECT_TRUE(t.start());
  EXPECT_EQ(first, t.getHandle()->getHandle());
  t.gate.set();
  ASSERT_TRUE(t.join(INFINITE));
  EXPECT_EQ(1, t.runs.load());
}

TEST(AThreadTest, RestartAfterTheEndMakesANewThread) {
  GatedThread t;
  ASSERT_TRUE(t.start());
  t.gate.set();
  ASSERT_TRUE(t.join(INFINITE));
  EXPECT_NE(0UL, t.getHandle()->getHandle());  // kept after the end

  GatedThread second;  // holds the first thread's identifier away from reuse
  ASSERT_TRUE(second.start());
  QuickThread q;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(q.start());
    EXPECT_TRUE(q.join(INFINITE));
    EXPECT_FALSE(q.isRunning());
  }
  EXPECT_EQ(3, q.runs.load());
  second.gate.set();
  EXPECT_TRUE(second.join(INFINITE));
}

TEST(AThreadTest, RunThatReturnsAtOnceStillEndsCleanly) {
  for (int i = 0; i < 50; ++i) {
    QuickThread q;
    ASSERT_TRUE(q.start());
    ASSERT_TRUE(q.join(INFINITE));
    EXPECT_EQ(1, q.runs.load());
  }
}

TEST(AThreadTest, StopRequestBeforeStartIsSeenFromTheFirstMoment) {
  class Polling : public AThread {
   public:
    int run() override {
      seen = isStopRequested();
      return 0;
    }
    std::atomic<bool> seen{false};
  } t;
  EXPECT_FALSE(t.isStopRequested());
  t.requestStop();
  ASSERT_TRUE(t.start());
  ASSERT_TRUE(t.join(INFINITE));
  EXPECT_TRUE(t.seen.load());
  EXPECT_TRUE(t.isStopRequested());  // nothing clears it
}

TEST(AThreadTest, ManyJoinersAreReleasedAndTheObjectCanGoAtOnce) {
  auto* t = new GatedThread();
  ASSERT_TRUE(t->start());
  std::vector<std::thread> joiners;
  std::atomic<pid_t> tids[6] = {};
  std::atomic<int> results{0};
  for (int i = 0; i < 6; ++i) {
    joiners.emplace_back([&, i] {
      tids[i] = zk3test::currentTid();
      results.fetch_add(t->join(INFINITE) ? 1 : 0);
    });
  }
  ASSERT_TRUE(zk3test::eventually([&] {
    for (auto& tid : tids)
      if (tid.load() == 0) return false;
    return true;
  }));
  for (auto& tid : tids) ASSERT_TRUE(zk3test::waitUntilBlocked(tid.load()));
  t->gate.set();
  EXPECT_TRUE(t->join(INFINITE));
  delete t;  // while the other joiners may still be waking up
  for (auto& j : joiners) j.join();
  EXPECT_EQ(6, results.load());
}

TEST(AThreadTest, KeepAliveThreadOutlivesItsObjectAndEndsWithMinusTwo) {
  Flag entered, go, done;
  class Detached : public AThread {
   public:
    Detached(Flag& e, Flag& g, Flag& d) : mEntered(e), mGo(g), mDone(d) {}
    int run() override {
      Flag& go = mGo;  // copies: the object is gone after the gate
      Flag& done = mDone;
      mEntered.set();
      go.waitFor(scaled(30000));
      done.set();
      return -2;
    }
    Flag& mEntered;
    Flag& mGo;
    Flag& mDone;
  };
  auto* t = new Detached(entered, go, done);
  t->setKeepAlive(true);
  EXPECT_TRUE(t->isKeepAlive());
  ASSERT_TRUE(t->start());
  ASSERT_TRUE(entered.waitFor());  // the object must outlive the call of run
  delete t;  // the thread goes on without its object
  go.set();
  EXPECT_TRUE(done.waitFor());
}

TEST(AThreadTest, RunMayDestroyItsOwnObject) {
  Flag done;
  class SelfDeleting : public AThread {
   public:
    explicit SelfDeleting(Flag& d) : mDone(d) { setKeepAlive(true); }
    int run() override {
      Flag& done = mDone;
      delete this;
      done.set();
      return -2;
    }
    Flag& mDone;
  };
  ASSERT_TRUE((new SelfDeleting(done))->start());
  EXPECT_TRUE(done.waitFor());
}

TEST(AThreadTest, DestructorOfARunningObjectReleasesJoinersAndCancels) {
  class Sleeper : public AThread {
   public:
    int run() override {
      entered.set();
      for (;;) pause();  // a cancellation point that leaves the object alone
    }
    Flag entered;
  };
  auto* t = new Sleeper();
  ASSERT_TRUE(t->start());
  ASSERT_TRUE(t->entered.waitFor());
  std::atomic<pid_t> tid{0};
  std::atomic<bool> joined{false};
  std::thread joiner([&] {
    tid = zk3test::currentTid();
    joined = t->join(INFINITE);
  });
  ASSERT_TRUE(zk3test::eventually([&] { return tid.load() != 0; }));
  ASSERT_TRUE(zk3test::waitUntilBlocked(tid));
  delete t;
  joiner.join();
  EXPECT_TRUE(joined.load());
}

TEST(AThreadTest, PriorityOfANeverStartedObjectIsUnknown) {
  QuickThread t;
  EXPECT_EQ(AThread::PriorityUnknown, t.getPriority());
  EXPECT_FALSE(t.setPriority(AThread::PriorityLow));
  EXPECT_FALSE(t.setPriority(AThread::PriorityDefault));
}

TEST(AThreadTest, PriorityLevelsUnderTheDefaultPolicy) {
  GatedThread t;
  ASSERT_TRUE(t.start());
  int policy = 0;
  sched_param param;
  ASSERT_EQ(0, pthread_getschedparam(pthread_self(), &policy, &param));
  if (policy == SCHED_OTHER) {
    // min, max and the remembered priority are all 0: Default wins.
    EXPECT_EQ(AThread::PriorityDefault, t.getPriority());
    EXPECT_TRUE(t.setPriority(AThread::PriorityMedium));
    EXPECT_EQ(AThread::PriorityDefault, t.getPriority());
    EXPECT_TRUE(t.setPriority(AThread::PriorityDefault));
  }
  EXPECT_FALSE(t.setPriority(AThread::PriorityOther));
  EXPECT_FALSE(t.setPriority(AThread::PriorityUnknown));
  EXPECT_FALSE(t.setPriority(static_cast<AThread::PriorityLevel>(9)));
  t.gate.set();
  EXPECT_TRUE(t.join(INFINITE));
}

}  // namespace
