// String with its EncodeSet and Encoder, and CEscapeDataHelper.
#include <gtest/gtest.h>
#include <locale.h>

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

#include "support/temp_dir.h"
#include "zelkit3/escape.h"
#include "zelkit3/string.h"

using zelkit3::CEscapeDataHelper;
using zelkit3::String;
using namespace zelkit3::nmstring;

// glibc's newlocale keeps its parsed copy of LOCPATH for good; that is not
// ours to report. (Read by LeakSanitizer only.)
extern "C" const char* __lsan_default_suppressions() { return "leak:argz_add_sep\n"; }

namespace {

String A(const char* t) { return String::fromASCII(t); }
String U(const char* t) { return String::fromUTF8(t); }
String W(const wchar_t* t) { return String::fromWideChar(t); }
std::uint32_t countOf(const String& s) { return s.getEncodeSet()->mRef->getCount(); }

// What one `to` operation gives: its text (the wide texts here are ASCII),
// "null", or "throws" for the missing system form.
template <typename To>
std::string form(To to) try {
  std::string out = to() == nullptr ? "null" : "";
  for (const auto* text = to(); text != nullptr && *text != 0; ++text) out += char(*text);
  return out;
} catch (const std::runtime_error& e) {
  return e.what() == std::string("System encoding should be exist!") ? "throws" : e.what();
}

std::string forms(const String& s) {
  return form([&] { return s.toASCII(); }) + "|" + form([&] { return s.toUTF8(); }) + "|" +
         form([&] { return s.toWideChar(); });
}

// Encoder is the seam for real conversions. Here it converts nothing and
// leaves the error alone, so a String gives back only the form that it was
// made from, and the error stays 0. A sum and the empty String have the
// wide form only.
TEST(String, FormsComparisonsAndSumsWithAnEncoderThatConvertsNothing) {
  const struct {
    String s;
    const char* forms;
    std::uint32_t length;
  } rows[] = {
      {A("abc"), "abc|throws|throws", 3},
      {U("\xC3\xA9t\xC3\xA9"), "throws|\xC3\xA9t\xC3\xA9|throws", 5},
      {W(L"abc"), "null|null|abc", 3},
      {A(nullptr), "|throws|throws", 0},
      {String(), "null|null|", 0},
      {String() + String(), "null|null|", 0},
      {(W(L"ab") + W(L"cde")) + W(L"f"), "null|null|abcdef", 6},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(forms(row.s), row.forms);
    EXPECT_EQ(row.s.getErrorCode(), String::STRING_NO_ERROR) << row.forms;
    EXPECT_EQ(row.s.getLength(), row.length) << row.forms;
  }
  // Compared by the locale's collation in the widest form both sides have;
  // with none in common, comparing throws, and so does joining.
  EXPECT_TRUE(W(L"abc") < W(L"abd") && A("b") > A("abc") && U("a") != U("b"));
  EXPECT_TRUE(String() == W(L"") && W(L"ab") + W(L"c") == W(L"abc"));
  EXPECT_THROW((void)(String() == A("")), std::runtime_error);
  EXPECT_THROW((void)(A("a") < U("a")), std::runtime_error);
  EXPECT_THROW((void)(U("a") + W(L"b")), std::runtime_error);
  EXPECT_THROW((void)(W(L"a") + A("b")), std::runtime_error);
}

TEST(String, CopiesShareOneCountedSet) {
  String s = W(L"x"), c(s), e;
  c = s;
  EXPECT_EQ(countOf(s), 2u);  // assigning a shared set changes no count
  e = s;
  EXPECT_EQ(countOf(s), 3u);
  e = c = String();
  EXPECT_EQ(countOf(s), 1u);
}

// The bytes written escaped in the "C" locale: control characters, '%' and
// '&', '+', then delete and every byte from 0x80.
std::string escapedInC(const std::string& text) {
  std::string out;
  for (const unsigned char c : text) {
    const bool escaped = c < 0x20 || c == '%' || c == '&' || c == '+' || c >= 0x7F;
    char one[4];
    std::snprintf(one, sizeof one, escaped ? "%%%02X" : "%c", c);
    out += one;
  }
  return out;
}

TEST(EscapeData, EveryByteAtEveryLength) {
  CEscapeDataHelper* helper = CEscapeDataHelper::getInst();
  EXPECT_EQ(helper->escapeData(nullptr), "");
  // Every byte before plain letters, twice, each time with a run of plain
  // blocks: the prefixes meet the 16-byte blocks and the switch from one
  // pass to counting first (past 1024 bytes) at every point.
  EXPECT_TRUE(helper->needEscape('\0'));
  std::string text;
  for (int b = 1; b < 256; ++b) {
    const std::string one(1, static_cast<char>(b));
    EXPECT_EQ(helper->needEscape(one[0]), escapedInC(one) != one) << b;
    text += one + "az";
  }
  text.append(300, 'q');
  text += text;
  for (std::size_t n = 0; n <= text.size(); ++n)
    ASSERT_EQ(helper->escapeData(text.substr(0, n).c_str()), escapedInC(text.substr(0, n))) << n;
}

// isalnum comes before the range test: in Latin-1 a letter from 0x80 up is
// not escaped. No 8-bit locale is installed, so one is compiled into the
// test's folder and used on this thread only.
TEST(EscapeData, LettersFromHighBytesPassInAnEightBitLocale) {
  zk3test::TempDir dir("zk3_escape_locale");
  const std::string make =
      "localedef -i fr_FR -f ISO-8859-1 " + dir.path("fr_FR.ISO-8859-1") + " >/dev/null 2>&1";
  ASSERT_EQ(std::system(make.c_str()), 0) << "needs localedef and the fr_FR locale source";
  setenv("LOCPATH", dir.root().c_str(), 1);
  const locale_t latin1 = newlocale(LC_CTYPE_MASK, "fr_FR.ISO-8859-1", static_cast<locale_t>(0));
  unsetenv("LOCPATH");
  ASSERT_NE(latin1, static_cast<locale_t>(0));
  uselocale(latin1);
  // Short texts, then long (counted) ones. 0xFF is -1 as a signed char,
  // which isalnum takes for EOF: escaped, though it is a letter in Latin-1.
  std::string text = "caf\xE9 cr\xE8me\xA0&\xFF", expected = "caf\xE9 cr\xE8me%A0%26%FF";
  for (; text.size() < 2000; text += text, expected += expected)
    EXPECT_EQ(CEscapeDataHelper::getInst()->escapeData(text.c_str()), expected) << text.size();
  EXPECT_FALSE(CEscapeDataHelper::getInst()->needEscape('\xE9'));  // e acute is a letter
  uselocale(LC_GLOBAL_LOCALE);
  freelocale(latin1);
}

}  // namespace

// Out of memory, in the plain builds only (the sanitizers own malloc): the
// next malloc of exactly gFailSize bytes fails. glibc's strdup and wcsdup
// come here too.
#if ZK3_TEST_TIME_SCALE == 1
extern "C" void* __libc_malloc(std::size_t size);
static std::size_t gFailSize = 0;
extern "C" void* malloc(std::size_t size) {
  if (gFailSize == 0 || size != gFailSize) return __libc_malloc(size);
  gFailSize = 0;
  return nullptr;
}
#endif

// A buffer that cannot be had is std::bad_alloc, never a write through null.
TEST(String, OutOfMemoryThrowsBadAlloc) {
#if ZK3_TEST_TIME_SCALE != 1
  GTEST_SKIP() << "the sanitizers own malloc";
#else
  // Sizes that no other malloc on the way has.
  const std::pair<std::size_t, std::function<String()> > rows[] = {
      {38, [] { return A("0123456789abcdefghijklmnopqrstuvwxyz0"); }},
      {38 * sizeof(wchar_t), [] { return W(L"0123456789abcdefghijklmnopqrstuvwxyz0"); }},
      {38 * sizeof(wchar_t), [] { return W(L"0123456789") + W(L"abcdefghijklmnopqrstuvwxyz0"); }}};
  for (const auto& row : rows) {
    gFailSize = row.first;
    EXPECT_THROW(row.second(), std::bad_alloc) << row.first;
    EXPECT_EQ(gFailSize, 0u) << row.first << ": the failed malloc was not the library's";
  }
#endif
}

TEST(EncodeSet, SystemSlotAndDispose) {
  EXPECT_EQ(A("a").getEncodeSet()->createSystemEncoding(), nullptr);
  EncodeSet* fresh = new EncodeSet();
  EXPECT_EQ(fresh->mForms.size(), 3u);
  EXPECT_EQ(fresh->mLength, 0u);
  delete fresh->mRef;  // the set's destructor leaves the count object alone
  fresh->dispose();
#if ZK3_TEST_TIME_SCALE == 1
  // Old callers dispose through a null pointer to mean "nothing". (Not under
  // the sanitizers, which rightly flag the member call on null.)
  EncodeSet* volatile none = nullptr;
  none->dispose();
#endif
}
