// The hooks called by name, assertions and the logger holder, in a program
// that links the library.
#include <gtest/gtest.h>

#include <thread>

#include "zelkit3/assert.h"
#include "zelkit3/lifecycle.h"
#include "zelkit3/logger.h"
#include "zelkit3/timezone.h"
#include "zelkit3/win_emul.h"

// The hooks count only the time-zone factory's users: one unload takes the
// events down after any number of loads, and the next load forgets the events
// of the time before, which stay allocated.
TEST(Hooks, CalledByName) {
  void* old = zelkit3::win_emul::CreateEventW(nullptr, 1, 0, L"before");
  ZelKit3AtLoad();
  ZelKit3AtUnload();
  ZelKit3AtLoad();
  EXPECT_EQ(nullptr, zelkit3::win_emul::OpenEventW(0, 0, L"before"));
  EXPECT_EQ(1, zelkit3::win_emul::CloseHandle(old));
  ZelKit3AtUnload();
  ZelKit3AtUnload();  // finds no event table and no lock
  EXPECT_EQ(0u, HistoricalTZHelpersFactory::s_dwRef);
  ZelKit3AtLoad();
}

// A failed check throws AssertException3 and keeps the text it composed. Each
// check without a text follows one with a text, so that a text left over shows.
TEST(Assert, FailedChecksThrowAndKeepTheirText) {
  EXPECT_NO_THROW(assert_zk3(true, nullptr, nullptr, 0));
  EXPECT_THROW(assert_zk3(false, "f", nullptr, -7), AssertException3);
  EXPECT_STREQ("Assert exception in function f in the file (null), line -7",
               assert_zk3::lastText());
  EXPECT_THROW(assert_zk3(false, nullptr, "a.cpp", 12), AssertException3);
  EXPECT_STREQ("", assert_zk3::lastText());
  // The text is kept per thread, for a handler on the thrower's thread.
  EXPECT_THROW(assert_zk3::isTrue(false, "mine"), AssertException3);
  std::thread([] { EXPECT_THROW(assert_zk3::throwException(nullptr), AssertException3); }).join();
  EXPECT_STREQ("mine", assert_zk3::lastText());
  EXPECT_THROW(assert_zk3(static_cast<const void*>(nullptr)), AssertException3);
  EXPECT_STREQ("", assert_zk3::lastText());
}

// A logger that counts the references held on it.
struct CountedLogger : zelkit3::IdleLogger {
  long addRef() override { return ++refs; }
  long release() override {
    if (--refs == 0) ++ends;
    return refs;
  }
  long refs = 0;
  int ends = 0;  // how often the count fell to 0, which would have freed it
};

// The holder keeps one reference on its logger. Passing the logger that it
// holds changes nothing, also when the holder's is the only reference. The
// library's own count starts at one.
TEST(References, HolderAndCount) {
  CountedLogger logger;
  {
    zelkit3::LoggerHelper helper(&logger);
    helper.setLogger(&logger);
    EXPECT_EQ(&logger, helper.getLogger());
    EXPECT_EQ(0, logger.ends);
    helper.setLogger(nullptr);
    EXPECT_EQ(zelkit3::IdleLogger::getInst(), helper.getLogger());
    EXPECT_FALSE(helper.getLogger()->isPriorityEnabled(0));
    helper.setLogger(&logger);
  }
  EXPECT_EQ(0, logger.refs);
  EXPECT_EQ(2, logger.ends);
  zelkit3::ThreadSafeAddRef count;
  EXPECT_EQ(2u, count.incrementRef());
  EXPECT_EQ(1u, count.decrementRef());
  EXPECT_EQ(0u, count.decrementRef());
}
