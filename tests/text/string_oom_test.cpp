// The out-of-memory paths of String: strdup, wcsdup and the malloc of
// concatenation fail, and the library throws std::bad_alloc instead of
// writing through the null pointer. The three functions are interposed here;
// the library's calls reach them through its PLT.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>

#include "zelkit3/string.h"

extern "C" void* __libc_malloc(std::size_t size);

namespace {

std::atomic<bool> gFailDup{false};
// A malloc of exactly this many bytes fails, once.
std::atomic<std::size_t> gFailMallocSize{0};
std::atomic<int> gDupCalls{0};

}  // namespace

extern "C" void* malloc(std::size_t size) {
  std::size_t armed = gFailMallocSize.load(std::memory_order_relaxed);
  if (armed != 0 && size == armed && gFailMallocSize.compare_exchange_strong(armed, 0)) return nullptr;
  return __libc_malloc(size);
}

extern "C" char* strdup(const char* text) noexcept {
  gDupCalls.fetch_add(1);
  if (gFailDup.exchange(false)) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  char* copy = static_cast<char*>(malloc(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

extern "C" wchar_t* wcsdup(const wchar_t* text) noexcept {
  gDupCalls.fetch_add(1);
  if (gFailDup.exchange(false)) return nullptr;
  const std::size_t size = (std::wcslen(text) + 1) * sizeof(wchar_t);
  wchar_t* copy = static_cast<wchar_t*>(malloc(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

namespace {

using zelkit3::String;

TEST(StringOutOfMemory, FailedDuplicationThrowsBadAlloc) {
  const int before = gDupCalls.load();
  gFailDup = true;
  EXPECT_THROW(String::fromASCII("abc"), std::bad_alloc);
  gFailDup = true;
  EXPECT_THROW(String::fromUTF8("abc"), std::bad_alloc);
  gFailDup = true;
  EXPECT_THROW(String::fromWideChar(L"abc"), std::bad_alloc);
  EXPECT_EQ(gDupCalls.load() - before, 3) << "the interposed functions were not reached";
  EXPECT_FALSE(gFailDup.load());
  // Nothing is broken afterwards.
  EXPECT_STREQ(String::fromASCII("abc").toASCII(), "abc");
  EXPECT_STREQ(String::fromWideChar(L"abc").toWideChar(), L"abc");
}

TEST(StringOutOfMemory, FailedConcatenationBufferThrowsBadAlloc) {
  // 10 + 7 units and the terminator: a size no other allocation on the way has.
  const String a = String::fromWideChar(L"0123456789"), b = String::fromWideChar(L"abcdefg");
  const std::size_t bufferSize = 18 * sizeof(wchar_t);
  gFailMallocSize = bufferSize;
  EXPECT_THROW((void)(a + b), std::bad_alloc);
  EXPECT_EQ(gFailMallocSize.load(), 0u) << "the concatenation buffer was not allocated by malloc";
  const String sum = a + b;
  EXPECT_STREQ(sum.toWideChar(), L"0123456789abcdefg");
  EXPECT_EQ(sum.getLength(), 17u);
}

}  // namespace
