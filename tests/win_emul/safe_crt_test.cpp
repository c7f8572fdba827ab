// The "_s" functions: their result table, errno included, and what a call
// leaves in its target.
#include "zelkit3/safe_crt.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

using namespace zelkit3::win_emul;

const int kKept = 12345;  // an errno value no function here sets
static char gTarget[8];

// The 8-byte target, holding text and then '#' bytes.
static char* buf(const char* text) {
  std::memset(gTarget, '#', sizeof gTarget);
  return std::strcpy(gTarget, text);
}

// One row: the call gives result, sets errno to it (a success leaves errno
// alone), and leaves the target's 8 bytes as `after` (if given) has them.
static testing::AssertionResult gives(int result, const char* after, std::function<int()> call) {
  errno = kKept;
  const int got = call();
  const int errnoGot = errno;
  const bool errnoAsResult = errnoGot == (result == 0 ? kKept : result);
  const bool targetAsAfter = after == nullptr || std::memcmp(after, gTarget, sizeof gTarget) == 0;
  return testing::AssertionResult(got == result && errnoAsResult && targetAsAfter)
         << "gave " << got << ", errno " << errnoGot << ", target " << std::string(gTarget, 8);
}

TEST(SafeCrt, ResultTable) {
  EXPECT_TRUE(gives(0, "abcdefg", [] { return strcpy_s(buf("xyz"), 8, "abcdefg"); }));
  EXPECT_TRUE(gives(EINVAL, "xyz\0####", [] { return strcpy_s(buf("xyz"), 0, ""); }));
  // A source that does not fit is refused whole.
  EXPECT_TRUE(gives(ERANGE, "xyz\0####", [] { return strcpy_s(buf("xyz"), 4, "abcd"); }));
  EXPECT_TRUE(gives(0, "abcdefg", [] { return strcat_s(buf("abc"), 8, "defg"); }));
  EXPECT_TRUE(gives(ERANGE, "abc\0####", [] { return strcat_s(buf("abc"), 8, "defgh"); }));
  // An unterminated target has no end to append at.
  EXPECT_TRUE(gives(EINVAL, "abc\0####", [] { return strcat_s(buf("abc"), 3, "d"); }));
  // Plain strncpy, zero-filled up to count, and count may equal size.
  EXPECT_TRUE(gives(0, "ab\0\0\0###", [] { return strncpy_s(buf("wxyz"), 4, "ab", 4); }));
  EXPECT_TRUE(gives(EINVAL, "ab\0#####", [] { return strncpy_s(buf("ab"), 3, "c", 4); }));
  EXPECT_TRUE(gives(0, "abc-1z\0#", [] { return _strlwr_s(buf("AbC-1Z"), 6); }));
  EXPECT_TRUE(gives(ERANGE, "AbC-1Z\0#", [] { return _strlwr_s(buf("AbC-1Z"), 5); }));
  EXPECT_TRUE(gives(EINVAL, nullptr, [] { return _strlwr_s(nullptr, 5); }));
  EXPECT_TRUE(gives(0, "ABCD\0###", [] { return _strupr_s(buf("abcd"), 4); }));
  FILE* file = nullptr;
  EXPECT_TRUE(gives(EINVAL, nullptr, [&] { return fopen_s(&file, nullptr, "r"); }));
  // Whatever made fopen fail (here EISDIR), fopen_s gives ENOENT.
  EXPECT_TRUE(gives(ENOENT, nullptr, [&] { return fopen_s(&file, "/", "w"); }));
  ASSERT_TRUE(gives(0, nullptr, [&] { return fopen_s(&file, "/dev/null", "w"); }));
  FILE* const stream = file;
  // freopen_s and _sopen_s give the errno of freopen and open. (A failed
  // freopen has closed the stream; glibc frees its FILE at the fclose.)
  EXPECT_TRUE(gives(EISDIR, nullptr, [&] { return freopen_s(&file, "/", "w", stream); }));
  fclose(stream);
  int fd = 0;
  EXPECT_TRUE(gives(EINVAL, nullptr, [&] { return _sopen_s(&fd, nullptr, 0, 0, 0); }));
  EXPECT_TRUE(gives(EISDIR, nullptr, [&] { return _sopen_s(&fd, "/", O_WRONLY, 0, 0); }));
  ASSERT_TRUE(gives(0, nullptr, [&] { return _sopen_s(&fd, "/dev/null", O_RDONLY, 0, 0); }));
  close(fd);
}
