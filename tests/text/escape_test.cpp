// CEscapeDataHelper: every byte value against the documented table.
#include "zelkit3/escape.h"

#include <gtest/gtest.h>

#include <atomic>
#include <clocale>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

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
  std::atomic<int> waiting{kThreads};
  std::vector<CEscapeDataHelper*> seen(kThreads, nullptr);
  std::vector<std::string> results(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
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

// A byte from 0x80 up that the locale calls alphanumeric is not escaped:
// isalnum comes before the range test. Needs an 8-bit locale.
TEST_F(EscapeData, AlphanumericHighByteInAnEightBitLocale) {
  const char* names[] = {"en_US.ISO-8859-1", "en_US.iso88591", "de_DE.ISO-8859-1", "fr_FR.ISO-8859-1",
                         "de_DE", "fr_FR"};
  const char* found = nullptr;
  for (const char* name : names)
    if ((found = std::setlocale(LC_ALL, name)) != nullptr) break;
  if (found == nullptr) GTEST_SKIP() << "no ISO-8859-1 locale installed";
  EXPECT_FALSE(helper->needEscape('\xE9'));  // e acute is a letter in Latin-1
  EXPECT_EQ(helper->escapeData("caf\xE9+"), "caf\xE9%2B");
  // 0xFF is -1 as a signed char, which isalnum reads as EOF: escaped.
  EXPECT_EQ(helper->escapeData("\xFF"), "%FF");
  std::setlocale(LC_ALL, "C");
}

}  // namespace
