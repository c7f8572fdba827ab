// The threads family: AThread, the timer manager, and the pool with its
// queue and workers. A wait on another thread is a gate or a bounded poll of
// a result; nothing sleeps to synchronise.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "base/mutex_guard.h"
#include "support/sync.h"
#include "threads/thread_create.h"
#include "threads/timer_interval.h"
#include "threads/worker_census.h"
#include "threads/worker_internal.h"
#include "zelkit3/lifecycle.h"
#include "zelkit3/thread_pool.h"
#include "zelkit3/timer.h"
#include "zelkit3/win_emul.h"

namespace zelkit3::detail {

struct TimerTestAccess {
  // The poll interval, and whether the timer thread is set.
  static std::pair<int, bool> state() {
    CThreadTimerManagerImpl& m = CThreadTimerManagerImpl::c_inst;
    MutexGuard guard(m.mMutex);
    return {m.mInterval, m.mThread != nullptr};
  }
};

struct ThreadPoolTestAccess {
  struct State {
    size_t idle, started, all;  // workers in their idle spell, with a thread, in all
    bool queueEmpty;
  };
  static State state(ThreadPool& pool) {
    ThreadPoolImpl& p = *static_cast<ThreadPoolImpl*>(pool.mImpl);
    MutexGuard guard(p.mMutex);
    return {static_cast<size_t>(p.mIdleWorkers.load()), p.mStartedWorkers.size(), p.mWorkers.size(),
            p.mTaskSource->empty()};
  }
  // Queues a task as start does, without waking anyone.
  static void queueOnly(ThreadPool& pool, IRunnable* task) {
    static_cast<ThreadPoolImpl*>(pool.mImpl)->mTaskSource->pushTask(task);
  }
};

}  // namespace zelkit3::detail

namespace {

using namespace zelkit3;
using namespace zelkit3::detail;
using namespace zk3test;

// Lets through as many thread creations as gAllowed says.
std::atomic<int> gAllowed{1 << 30};
int limitedCreate(pthread_t* t, const pthread_attr_t* a, void* (*f)(void*), void* arg) {
  return gAllowed.fetch_sub(1) > 0 ? pthread_create(t, a, f, arg) : EAGAIN;
}
// Linked statically, the load hook comes in only if called.
const bool gReady = (ZelKit3AtLoad(), gCreateThread = &limitedCreate, true);

// ---- AThread
// -----------------------------------------------------------------

// Joins itself and waits at two gates; asked to pause, it says so and pauses
// for good.
struct TestThread : AThread {
  int run() override {
    selfJoined = join(INFINITE) && join(0);
    if (pauses) {
      pausing = true;    // its last touch of the object
      for (;;) pause();  // a cancellation point that leaves the object alone
    }
    entered.arrive_and_wait();
    leave.arrive_and_wait();
    return 0;
  }
  std::atomic<bool> selfJoined{false}, pausing{false};
  bool pauses = false;
  Gate entered{2}, leave{2};
};

// Before it has a thread, an object has no priority, and a refused thread
// leaves it ready for another start. A thread may join itself. The
// destructor of a running object releases its joiner, which has left join
// before the object is gone.
TEST(AThreadTest, Lifecycle) {
  auto* t = new TestThread();
  EXPECT_EQ(AThread::PriorityUnknown, t->getPriority());
  EXPECT_FALSE(t->setPriority(AThread::PriorityLow));
  gAllowed = 0;
  EXPECT_FALSE(t->start());
  gAllowed = 1 << 30;
  EXPECT_TRUE(t->join(INFINITE));  // nothing to wait for
  ASSERT_TRUE(t->start());
  EXPECT_TRUE(t->start());  // still running: no second thread
  EXPECT_FALSE(ThreadHandle().equals(t));
  // Under SCHED_OTHER min, max and the remembered priority are all 0, and
  // Default is tested first.
  EXPECT_TRUE(t->setPriority(AThread::PriorityMedium));
  EXPECT_EQ(AThread::PriorityDefault, t->getPriority());
  t->entered.arrive_and_wait();
  EXPECT_FALSE(t->join(0));
  t->leave.arrive_and_wait();
  EXPECT_TRUE(t->join(60000));
  EXPECT_TRUE(t->selfJoined.load());
  t->pauses = true;
  ASSERT_TRUE(t->start());  // ended: a new thread
  while (!t->pausing.load()) std::this_thread::yield();
  auto joined = blocked([t] { return t->join(INFINITE); });
  delete t;
  EXPECT_TRUE(joined.get());
}

// ---- Timer manager
// -----------------------------------------------------------

// Counts its firings, then calls fn.
struct Callback : IThreadTimerManagerCallback {
  explicit Callback(std::function<void(unsigned long)> f = nullptr) : fn(std::move(f)) {}
  void onTimer(unsigned long id) override {
    fired.fetch_add(1);
    if (fn) fn(id);
  }
  std::function<void(unsigned long)> fn;
  std::atomic<int> fired{0};
};

TEST(TimerTest, EachNewTimerAtLeastHalvesTheInterval) {
  // present interval, new period, next interval
  const int cases[][3] = {{500, 1000, 250}, {250, 100, 31}, {31, 1000, 15}, {0, 1000, 500},
                          {10, 3, 5},       {11, 3, 2},     {250, -5, 3},   {-4, 100, -2}};
  for (const auto& c : cases)
    EXPECT_EQ(c[2], nextTimerInterval(c[0], c[1])) << c[0] << ", " << c[1];
}

// The thread lives while timers are set. A refused thread sets no timer. A
// new timer and the last kill wake the thread at once: neither waits out the
// poll of a slow timer (here minutes long), which does not fire before its
// period.
TEST(TimerTest, OneThreadWhileTimersAreSet) {
  std::atomic<int> fastRuns{0};
  Callback slow, fast([&](unsigned long id) {
    if (++fastRuns == 3) CThreadTimerManager::killTimer(id);  // not the last timer
  });
  gAllowed = 0;
  EXPECT_EQ(0UL, CThreadTimerManager::setTimer(&slow, 1000000));
  gAllowed = 1 << 30;
  EXPECT_FALSE(TimerTestAccess::state().second);
  CThreadTimerManager::killTimer(12345);  // nothing set: nothing happens
  const std::set<pid_t> before = threadIds();
  const unsigned long slowId = CThreadTimerManager::setTimer(&slow, 1000000);
  EXPECT_EQ(250000, TimerTestAccess::state().first);  // period / 2, halved again
  pid_t timerThread = 0;
  for (const pid_t id : threadIds())
    if (before.count(id) == 0) timerThread = id;  // the one thread the set made
  ASSERT_TRUE(waitUntilBlocked(timerThread));  // in its poll
  CThreadTimerManager::setTimer(&fast, 50);
  ASSERT_TRUE(eventually([&] { return fast.fired.load() == 3; }));
  ASSERT_TRUE(waitUntilBlocked(timerThread));  // in the poll after the kill
  EXPECT_EQ(500000, TimerTestAccess::state().first);  // half the smallest period left
  EXPECT_EQ(0, slow.fired.load());
  CThreadTimerManager::killTimer(slowId);
  EXPECT_FALSE(TimerTestAccess::state().second);
}

// A callback may kill another timer and its own. The last timer, killed so,
// ends the thread after the pass, unless its callback set a new one. A
// callback's exception is contained.
TEST(TimerTest, CallbacksKillSetAndThrow) {
  Callback next;
  Callback other([](unsigned long) { throw std::runtime_error("callback failed"); });
  std::atomic<unsigned long> otherId{0}, nextId{0};
  std::atomic<bool> setNext{false};
  Callback self([&](unsigned long id) {
    CThreadTimerManager::killTimer(otherId);
    CThreadTimerManager::killTimer(id);
    if (setNext) nextId = CThreadTimerManager::setTimer(&next, 5);
  });
  otherId = CThreadTimerManager::setTimer(&other, 2);
  ASSERT_TRUE(eventually([&] { return other.fired.load() >= 3; }));
  CThreadTimerManager::setTimer(&self, 5);
  ASSERT_TRUE(eventually([] { return !TimerTestAccess::state().second; }));
  otherId = 0;  // its id may come back
  setNext = true;
  CThreadTimerManager::setTimer(&self, 5);
  ASSERT_TRUE(eventually([&] { return next.fired.load() >= 2; }));
  EXPECT_TRUE(TimerTestAccess::state().second);
  EXPECT_EQ(1, TimerTestAccess::state().first);  // as for a first timer: 5 / 2, halved
  EXPECT_EQ(2, self.fired.load());
  CThreadTimerManager::killTimer(nextId);
}

// One thread's setTimer often meets the other's teardown of the last timer.
TEST(TimerTest, ATimerSetDuringATeardownStillFires) {
  auto setFireKill = [] {
    for (int i = 0; i < 100; ++i) {
      Callback cb;
      const unsigned long id = CThreadTimerManager::setTimer(&cb, 1);
      ASSERT_TRUE(eventually([&] { return cb.fired.load() > 0; }));
      CThreadTimerManager::killTimer(id);
    }
  };
  std::thread other(setFireKill);
  setFireKill();
  other.join();
}

// ---- Thread pool
// -------------------------------------------------------------

struct Counts {
  std::atomic<int> runs{0}, destroyed{0};
  bool pauseInLastRelease = false;  // passes a cancellation point there
};

// Counts its runs, runs body, and deletes itself at its last
// reference.
struct Task final : IRunnable {
  Task(Counts& c, std::function<void()> b) : counts(c), body(std::move(b)) {}
  void run() override {
    counts.runs.fetch_add(1);
    if (body) body();
  }
  void addRef() override { refs.fetch_add(1); }
  void release() override {
    Counts& c = counts;
    if (refs.fetch_sub(1) != 1) return;
    if (c.pauseInLastRelease) usleep(1000);
    delete this;
    c.destroyed.fetch_add(1);
  }
  Counts& counts;
  std::function<void()> body;
  std::atomic<int> refs{1};
};

// Starts a new task and gives up the creator's reference at once.
bool startNew(ThreadPool& pool, Counts& counts, std::function<void()> body = nullptr) {
  Task* task = new Task(counts, std::move(body));
  const bool accepted = pool.start(task);
  task->release();
  return accepted;
}

// A task body that waits at both gates.
std::function<void()> held(Gate& entered, Gate& go) {
  return [&entered, &go] {
    entered.arrive_and_wait();
    go.arrive_and_wait();
  };
}

TEST(ThreadPoolTest, WorkerCounts) {
  const unsigned int cases[][2] = {{0, 5}, {1, 1}, {20, 20}, {21, 20}};
  for (const auto& c : cases) {
    ThreadPool* pool = ThreadPool::create(c[0], c[0] % 2 == 0);
    EXPECT_EQ(c[1], ThreadPoolTestAccess::state(*pool).all);
    pool->release();
  }
}

// A task goes to the first free worker, with a thread or without; with one
// worker held, the other runs all further tasks, directly or from the queue,
// in the order they came. A task's exception leaves its worker in service.
TEST(ThreadPoolTest, TasksRunInTheOrderTheyCame) {
  Counts counts;
  Gate entered(2), go(2);
  std::atomic<int> next{0}, outOfOrder{0};
  std::atomic<pid_t> first{0};
  ThreadPool pool(2, true);
  ASSERT_TRUE(startNew(pool, counts, [&] { first = currentTid(); }));
  while (first.load() == 0) std::this_thread::yield();
  ASSERT_TRUE(waitUntilBlocked(first));  // back in its idle wait
  ASSERT_TRUE(startNew(pool, counts, held(entered, go)));
  entered.arrive_and_wait();
  EXPECT_EQ(1U, ThreadPoolTestAccess::state(pool).started);  // the free worker took it
  for (int i = 0; i < 300; ++i) {
    ASSERT_TRUE(startNew(pool, counts, [&, i] {
      outOfOrder += next.fetch_add(1) != i;
      if (i % 100 == 0) throw std::runtime_error("task failed");
    }));
  }
  // The worker picks up queued work at once, well within its idle wait.
  ASSERT_TRUE(eventually([&] { return counts.destroyed.load() == 301; }, scaled(4000)));
  EXPECT_EQ(0, outOfOrder.load());
  EXPECT_TRUE(ThreadPoolTestAccess::state(pool).queueEmpty);
  go.arrive_and_wait();
}

// join waits for the running task and drops the queued ones. The destructor
// of a pool made to join waits likewise.
TEST(ThreadPoolTest, JoinWaitsForRunningTasksAndDropsQueuedOnes) {
  Counts running, queued;
  Gate entered(2), go(2), enteredLast(2), goLast(2);
  auto* pool = new ThreadPool(1, true);
  EXPECT_FALSE(pool->start(nullptr));
  ASSERT_TRUE(startNew(*pool, running, held(entered, go)));
  entered.arrive_and_wait();
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(startNew(*pool, queued));
  EXPECT_FALSE(ThreadPoolTestAccess::state(*pool).queueEmpty);
  auto joined = blocked([pool] { pool->join(); });  // waits for the running task
  go.arrive_and_wait();
  joined.get();
  pool->join();  // returns at once
  EXPECT_FALSE(startNew(*pool, queued));
  delete pool;  // frees the queue with the pool
  EXPECT_EQ(0, queued.runs.load());
  EXPECT_EQ(11, queued.destroyed.load());
  pool = new ThreadPool(1, true);
  ASSERT_TRUE(startNew(*pool, running, held(enteredLast, goLast)));
  enteredLast.arrive_and_wait();
  auto deleted = blocked([pool] { delete pool; });
  goLast.arrive_and_wait();
  deleted.get();
}

// A task started while others wait in the queue goes to the queue, and start
// wakes an idle worker before it returns, wherever that worker stands among
// the started ones. Each idle spell is counted once, whoever ends it: once
// the pool is quiet, every worker is idle.
TEST(ThreadPoolTest, AQueuedTaskWakesTheIdleWorker) {
  for (int idler = 0; idler < 2; ++idler) {  // the worker that goes idle; the other is held
    Counts counts;
    Gate entered[] = {Gate(2), Gate(2), Gate(2)}, go[] = {Gate(2), Gate(2), Gate(2)};
    std::atomic<pid_t> tids[2] = {{0}, {0}};
    ThreadPool pool(2, true);
    for (int w = 0; w < 2; ++w) {
      ASSERT_TRUE(startNew(pool, counts, [&, w] {
        tids[w] = currentTid();
        held(entered[w], go[w])();
      }));
      entered[w].arrive_and_wait();
    }
    go[idler].arrive_and_wait();
    ASSERT_TRUE(eventually([&] { return ThreadPoolTestAccess::state(pool).idle == 1; }));
    ASSERT_TRUE(waitUntilBlocked(tids[idler]));  // in its idle wait
    Task* waiting = new Task(counts, nullptr);
    ThreadPoolTestAccess::queueOnly(pool, waiting);
    waiting->release();
    // Held, so that the woken worker cannot be idle again at the check.
    ASSERT_TRUE(startNew(pool, counts, held(entered[2], go[2])));
    EXPECT_EQ(0U, ThreadPoolTestAccess::state(pool).idle) << idler;
    entered[2].arrive_and_wait();
    go[2].arrive_and_wait();
    go[1 - idler].arrive_and_wait();
    ASSERT_TRUE(eventually([&] {
      const ThreadPoolTestAccess::State state = ThreadPoolTestAccess::state(pool);
      return state.idle == 2 && state.queueEmpty && counts.destroyed.load() == 4;
    })) << idler;
  }
}

// The asynchronous end returns while tasks run. These finish, queued ones
// never run, and the last worker frees the rest on its own thread, where
// nothing may cut a queued task's release short.
TEST(ThreadPoolTest, AsynchronousEndWhileTasksRun) {
  Counts running, queued;
  queued.pauseInLastRelease = true;
  Gate entered(3), go(3);
  ThreadPool* pool = ThreadPool::create(2, false);
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(startNew(*pool, running, held(entered, go)));
  entered.arrive_and_wait();
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(startNew(*pool, queued));
  pool->release();
  go.arrive_and_wait();
  ASSERT_TRUE(eventually([&] { return queued.destroyed.load() == 20; }));
  EXPECT_TRUE(waitForWorkerThreads(10000 * kTimeScale));
  EXPECT_EQ(0, queued.runs.load());
}

// Many pools, tasks from two starters, every way to end: each round's tasks
// are all released, whether they ran or not. Labelled slow.
TEST(ThreadPoolStressTest, ManyPoolsEveryEnd) {
  std::mt19937 random(20261123u);
  for (int r = 0; r < 200; ++r) {
    Counts counts;
    std::atomic<int> enders{2};
    const unsigned end = random() % 3;               // join, asynchronous by the caller, by a task
    const int tasks = random() % 2 == 0 ? 5000 : 1;  // one: the end meets the last unregister
    ThreadPool* pool = ThreadPool::create(random() % 9, end == 0);  // 0: the default of 5
    Gate gate(2);
    auto starter = [&] {
      gate.arrive_and_wait();
      for (int i = 0; i < tasks; ++i) startNew(*pool, counts);
      // The later ender to run ends the pool, while the other starter may
      // still be inside its start.
      if (end == 2)
        startNew(*pool, counts, [&] {
          if (enders.fetch_sub(1) == 1) pool->release();
        });
    };
    std::thread helper(starter);
    starter();
    helper.join();
    if (end != 2) pool->release();
    const int all = 2 * tasks + (end == 2 ? 2 : 0);
    ASSERT_TRUE(eventually([&] { return counts.destroyed.load() == all; }, scaled(60000)))
        << "round " << r;
  }
}

// For the seam in start, between queueing a task and waking a worker.
Gate gGo(2), gEnded(2);
std::atomic<bool> gPoolGone{false};

// Lets the queued task run and end the pool, then gives the last worker
// ample time to destroy it.
void holdStartAfterQueueing() {
  gGo.arrive_and_wait();
  gEnded.arrive_and_wait();
  gPoolGone = waitForWorkerThreads(300 * kTimeScale);
}

// The task that start has just queued ends the pool before start returns:
// the pool must not be destroyed under the start call (under ASan a use
// after free otherwise).
TEST(ThreadPoolTest, AQueuedTaskThatEndsThePoolWaitsForItsStartToLeave) {
  Counts counts;
  Gate entered(2);
  ThreadPool* pool = ThreadPool::create(1, false);
  ASSERT_TRUE(startNew(*pool, counts, held(entered, gGo)));
  entered.arrive_and_wait();
  gAfterTaskQueued.store(&holdStartAfterQueueing);
  // The only worker is busy: this one goes through the queue.
  EXPECT_TRUE(startNew(*pool, counts, [pool] {
    pool->release();
    gEnded.arrive_and_wait();
  }));
  gAfterTaskQueued.store(nullptr);
  EXPECT_FALSE(gPoolGone.load()) << "the pool was destroyed inside start";
  ASSERT_TRUE(eventually([&] { return counts.destroyed.load() == 2; }));
  EXPECT_TRUE(waitForWorkerThreads(10000 * kTimeScale));
}

// Without any thread the pool refuses a task, also once the workers whose
// thread was refused could have one. With one thread, it queues what the
// other workers cannot take.
TEST(ThreadPoolTest, RefusedThreads) {
  Counts counts;
  Gate entered(2), go(2);
  ThreadPool none(3, true), one(4, true);
  gAllowed = 0;
  EXPECT_FALSE(startNew(none, counts));
  EXPECT_EQ(1, counts.destroyed.load());  // the pool kept no reference
  gAllowed = 1;
  EXPECT_FALSE(startNew(none, counts));
  ASSERT_TRUE(startNew(one, counts, held(entered, go)));
  entered.arrive_and_wait();
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(startNew(one, counts));
  gAllowed = 1 << 30;
  go.arrive_and_wait();
  ASSERT_TRUE(eventually([&] { return counts.destroyed.load() == 13; }));
  EXPECT_EQ(11, counts.runs.load());
}

}  // namespace
