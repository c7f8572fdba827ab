#include "zelkit3/assert.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <type_traits>

namespace {

static_assert(std::is_base_of<std::exception, AssertException3>::value,
              "caught by std::exception handlers");

// Runs fn, which must throw AssertException3, and returns the text kept for it.
template <class Fn>
std::string textOfFailure(Fn fn) {
  try {
    fn();
  } catch (AssertException3& e) {
    EXPECT_STREQ("AssertException", e.getClass());
    EXPECT_STREQ(std::exception().what(), e.what());
    return assert_zk3::lastText();
  } catch (...) {
    ADD_FAILURE() << "not an AssertException3";
    return "<other exception>";
  }
  ADD_FAILURE() << "nothing thrown";
  return "<nothing>";
}

TEST(AssertTest, TrueConditionLooksAtNothingElse) {
  EXPECT_NO_THROW(assert_zk3(true, nullptr, nullptr, 0));
  EXPECT_NO_THROW(assert_zk3::isTrue(true, nullptr));
  int x = 0;
  EXPECT_NO_THROW(assert_zk3 check(&x));
}

TEST(AssertTest, NullPointerThrowsWithoutText) {
  EXPECT_EQ("", textOfFailure([] { assert_zk3 check(static_cast<const void*>(nullptr)); }));
}

struct TextCase {
  const char* function;
  const char* file;
  int line;
  const char* expected;
};

TEST(AssertTest, FailedConditionComposesItsText) {
  const TextCase cases[] = {
      {"f", "a.cpp", 12, "Assert exception in function f in the file a.cpp, line 12"},
      {"g", nullptr, 1, "Assert exception in function g in the file (null), line 1"},
      {"h", "b.c", 0, "Assert exception in function h in the file b.c, line 0"},
      {"h", "b.c", -7, "Assert exception in function h in the file b.c, line -7"},
      {"i", "", INT_MIN, "Assert exception in function i in the file , line -2147483648"},
      {nullptr, "c.cpp", 3, ""},  // a null function composes nothing
  };
  for (const TextCase& c : cases) {
    EXPECT_EQ(c.expected, textOfFailure([&] { assert_zk3(false, c.function, c.file, c.line); }))
        << (c.function ? c.function : "(null function)");
  }
}

TEST(AssertTest, IsTruePassesTheTextOn) {
  EXPECT_EQ("logic error", textOfFailure([] { assert_zk3::isTrue(false, "logic error"); }));
  EXPECT_EQ("", textOfFailure([] { assert_zk3::isTrue(false, nullptr); }));
  EXPECT_EQ("x", textOfFailure([] { assert_zk3::throwException("x"); }));
}

TEST(AssertTest, CaughtAsStdException) {
  try {
    assert_zk3::throwException("any");
    FAIL() << "nothing thrown";
  } catch (const std::exception& e) {
    EXPECT_NE(nullptr, dynamic_cast<const AssertException3*>(&e));
  }
}

TEST(AssertTest, TextIsKeptPerThread) {
  EXPECT_EQ("mine", textOfFailure([] { assert_zk3::isTrue(false, "mine"); }));
  std::thread other([] { EXPECT_EQ("theirs", textOfFailure([] { assert_zk3::isTrue(false, "theirs"); })); });
  other.join();
  EXPECT_STREQ("mine", assert_zk3::lastText());
  // Passing the kept text back in is safe.
  EXPECT_EQ("mine", textOfFailure([] { assert_zk3::throwException(assert_zk3::lastText()); }));
}

}  // namespace
