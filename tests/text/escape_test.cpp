// CEscapeDataHelper: every byte value against the documented table.
#include "zelkit3/escape.h"

#include <gtest/gtest.h>

#include <atomic>
#include <locale.h>
#include <stdlib.h>

#include <cctype>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/sync.h"
#include "support/temp_dir.h"

// glibc's newlocale keeps its parsed copy of LOCPATH for good; that is not
// ours to report. (Read by LeakSanitizer only.)
extern "C" const char* __lsan_default_suppressions() { return "leak:argz_add_sep\n"; }

namespace {

using zelkit3::CEscapeDataHelper;

// The documented output per byte in the "C" locale, as ranges.
struct ByteRange {
  int first, last;
  bool escaped;
};
const ByteRange kCLocaleTable[] = {
    {0x01, 0x1F, true},   // control characters
    {0x20, 0x24, false},  // blank ! " # $
    {0x25, 0x25, true},   // %
    {0x26, 0x26, true},   // &
    {0x27, 0x2A, false},  // ' ( ) *
    {0x2B, 0x2B, true},   // +
    {0x2C, 0x7E, false},  // , through ~, all digits and letters
    {0x7F, 0x7F, true},   // delete
    {0x80, 0xFF, true},   // all other bytes
};

std::string expectedFor(int byte, bool escaped) {
  if (!escaped) return std::string(1, static_cast<char>(byte));
  char hex[4];
  std::snprintf(hex, sizeof hex, "%%%02X", byte);
  return hex;
}

// First in the file, so that the callers really race on the first getInst.
TEST(EscapeDataHelper, OneInstanceForRacingFirstCallers) {
  constexpr int kThreads = 8;
  zk3test::Gate gate(kThreads);
  std::vector<CEscapeDataHelper*> seen(kThreads, nullptr);
  std::vector<std::string> results(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      gate.arriveAndWait();
      seen[i] = CEscapeDataHelper::getInst();
      results[i] = seen[i]->escapeData("a+b");
    });
  }
  for (auto& t : threads) t.join();
  ASSERT_NE(CEscapeDataHelper::s_pInst, nullptr);
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(seen[i], CEscapeDataHelper::s_pInst);
    EXPECT_EQ(results[i], "a%2Bb");
  }
}

class EscapeData : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr); }
  CEscapeDataHelper* helper = CEscapeDataHelper::getInst();
};

TEST_F(EscapeData, EveryByteInTheCLocale) {
  int covered = 0;
  std::string all, allExpected;
  for (const ByteRange& range : kCLocaleTable) {
    for (int b = range.first; b <= range.last; ++b, ++covered) {
      SCOPED_TRACE(b);
      const char c = static_cast<char>(b);
      EXPECT_EQ(helper->needEscape(c), range.escaped);
      const std::string one(1, c);
      EXPECT_EQ(helper->escapeData(one.c_str()), expectedFor(b, range.escaped));
      // Between plain letters, so that runs around the byte are tested too.
      const std::string framed = "ab" + one + "yz";
      EXPECT_EQ(helper->escapeData(framed.c_str()), "ab" + expectedFor(b, range.escaped) + "yz");
      all += c;
      allExpected += expectedFor(b, range.escaped);
    }
  }
  EXPECT_EQ(covered, 255);
  EXPECT_EQ(helper->escapeData(all.c_str()), allExpected);
}

TEST_F(EscapeData, DocumentedExamples) {
  const struct {
    const char* in;
    const char* out;
  } rows[] = {
      {"", ""},
      {"a b", "a b"},
      {"100%", "100%25"},
      {"a&b+c", "a%26b%2Bc"},
      {"\xC3\xA9", "%C3%A9"},
      {"\t", "%09"},
      {"x=1?y/z#w", "x=1?y/z#w"},
      {"%%%", "%25%25%25"},
      {"\x01\x7F\xFF", "%01%7F%FF"},
      {"stop\0hidden", "stop"},
  };
  for (const auto& row : rows) EXPECT_EQ(helper->escapeData(row.in), row.out) << row.in;
}

TEST_F(EscapeData, NullGivesTheEmptyString) { EXPECT_EQ(helper->escapeData(nullptr), ""); }

TEST_F(EscapeData, TheTerminatorByteWouldBeEscaped) { EXPECT_TRUE(helper->needEscape('\0')); }

TEST_F(EscapeData, LongMixedTextMatchesByteByByte) {
  // A deterministic mix of long plain runs and escaped bytes.
  std::string text, expected;
  unsigned state = 12345;
  for (int i = 0; i < 100000; ++i) {
    state = state * 1103515245u + 12345u;
    int b = static_cast<int>((state >> 16) & 0xFF);
    if ((state >> 8) % 4 != 0) b = 'a' + static_cast<int>((state >> 12) % 26);
    if (b == 0) b = 1;
    text += static_cast<char>(b);
    bool escaped = false;
    for (const ByteRange& r : kCLocaleTable)
      if (b >= r.first && b <= r.last) escaped = r.escaped;
    expected += expectedFor(b, escaped);
  }
  EXPECT_EQ(helper->escapeData(text.c_str()), expected);
}

TEST_F(EscapeData, EveryLengthAroundTheBlockAndPassLimits) {
  // Escaped bytes at every position of texts whose lengths straddle the
  // 16-byte blocks and the switch from one pass to counting first.
  for (std::size_t length : {1u, 15u, 16u, 17u, 31u, 33u, 1023u, 1024u, 1025u, 1040u, 2049u}) {
    for (std::size_t at : {std::size_t(0), length / 2, length - 1}) {
      std::string text(length, 'a');
      text[at] = '+';
      std::string expected = text.substr(0, at) + "%2B" + text.substr(at + 1);
      EXPECT_EQ(helper->escapeData(text.c_str()), expected) << length << " " << at;
    }
  }
}

// A byte from 0x80 up that the locale calls alphanumeric is not escaped:
// isalnum comes before the range test. Needs an 8-bit locale; none is
// installed here, so one is compiled into a private directory if localedef
// and the locale sources exist, and used on this thread only.
class Latin1Locale {
 public:
  Latin1Locale() : mDir("zk3_escape_locale") {
    const std::string command =
        "localedef -i fr_FR -f ISO-8859-1 " + mDir.path("fr_FR.ISO-8859-1") + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) return;
    const char* old = std::getenv("LOCPATH");
    if (old != nullptr) mOldPath = old;
    setenv("LOCPATH", mDir.root().c_str(), 1);
    mLocale = newlocale(LC_CTYPE_MASK, "fr_FR.ISO-8859-1", static_cast<locale_t>(0));
    if (old != nullptr) {
      setenv("LOCPATH", mOldPath.c_str(), 1);
    } else {
      unsetenv("LOCPATH");
    }
    if (mLocale != static_cast<locale_t>(0)) mPrevious = uselocale(mLocale);
  }
  ~Latin1Locale() {
    if (mLocale != static_cast<locale_t>(0)) {
      uselocale(mPrevious);
      freelocale(mLocale);
    }
  }
  bool active() const { return mLocale != static_cast<locale_t>(0); }

 private:
  zk3test::TempDir mDir;
  std::string mOldPath;
  locale_t mLocale = static_cast<locale_t>(0);
  locale_t mPrevious = static_cast<locale_t>(0);
};

TEST_F(EscapeData, AlphanumericHighByteInAnEightBitLocale) {
  Latin1Locale latin1;
  if (!latin1.active()) GTEST_SKIP() << "no ISO-8859-1 locale can be made here";
  ASSERT_TRUE(isalnum(static_cast<signed char>('\xE9')));
  EXPECT_FALSE(helper->needEscape('\xE9'));  // e acute is a letter in Latin-1
  EXPECT_TRUE(helper->needEscape('\xA0'));   // no-break space is not
  EXPECT_EQ(helper->escapeData("caf\xE9+"), "caf\xE9%2B");
  // Long enough for the blockwise scan, short and long (counted) texts.
  for (int repeat : {10, 200}) {
    std::string text, expected;
    for (int i = 0; i < repeat; ++i) {
      text += "caf\xE9 cr\xE8me\xA0&";
      expected += "caf\xE9 cr\xE8me%A0%26";
    }
    EXPECT_EQ(helper->escapeData(text.c_str()), expected) << repeat;
  }
  // 0xFF is -1 as a signed char, which isalnum reads as EOF: escaped, though
  // y with diaeresis is a letter in Latin-1.
  EXPECT_EQ(helper->escapeData("\xFF"), "%FF");
}

}  // namespace
