// The "_s" functions: their result table, errno included, and that a failed
// string function never touches its target.
#include "zelkit3/safe_crt.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/child.h"
#include "support/temp_dir.h"

using namespace zelkit3::win_emul;

namespace {

const int kUntouched = 12345;  // an errno value no function here sets

// A buffer holding text, its other bytes '#', to see every byte written.
struct Buffer {
  char bytes[32];
  explicit Buffer(const char* text) {
    std::memset(bytes, '#', sizeof bytes);
    std::memcpy(bytes, text, std::strlen(text) + 1);
  }
};

class SafeCrtFiles : public ::testing::Test {
 protected:
  SafeCrtFiles() : mTmp("zk3-safe-crt"), mDir(mTmp.root()) {}
  std::string path(const char* name) const { return mTmp.path(name); }
  zk3test::TempDir mTmp;
  std::string mDir;
};

struct StringCase {
  const char* what;
  int (*call)(char* target);
  const char* before;
  int result;
  int errnoAfter;  // kUntouched: errno must keep its value
  const char* after;
};

int cpy(char* t, unsigned size, const char* s) { return strcpy_s(t, size, s); }

const StringCase kStringCases[] = {
    {"strcpy fits", [](char* t) { return cpy(t, 8, "abcdefg"); }, "xyz", 0, kUntouched, "abcdefg"},
    {"strcpy empty source", [](char* t) { return cpy(t, 1, ""); }, "xyz", 0, kUntouched, ""},
    {"strcpy null target", [](char*) { return cpy(nullptr, 8, "a"); }, "xyz", EINVAL, EINVAL, "xyz"},
    {"strcpy size 0 empty source", [](char* t) { return cpy(t, 0, ""); }, "xyz", EINVAL, EINVAL, "xyz"},
    {"strcpy null source", [](char* t) { return cpy(t, 8, nullptr); }, "xyz", EINVAL, EINVAL, "xyz"},
    {"strcpy one too long", [](char* t) { return cpy(t, 7, "abcdefg"); }, "xyz", ERANGE, ERANGE, "xyz"},
    {"strcpy far too long", [](char* t) { return cpy(t, 2, "abcdefghijklmnop"); }, "xyz", ERANGE, ERANGE, "xyz"},
    {"strcat fits", [](char* t) { return strcat_s(t, 8, "defg"); }, "abc", 0, kUntouched, "abcdefg"},
    {"strcat one too long", [](char* t) { return strcat_s(t, 7, "defg"); }, "abc", ERANGE, ERANGE, "abc"},
    {"strcat empty source full target", [](char* t) { return strcat_s(t, 4, ""); }, "abc", 0, kUntouched, "abc"},
    {"strcat unterminated target", [](char* t) { return strcat_s(t, 3, "d"); }, "abc", EINVAL, EINVAL, "abc"},
    {"strcat size 0", [](char* t) { return strcat_s(t, 0, "d"); }, "abc", EINVAL, EINVAL, "abc"},
    {"strcat null source", [](char* t) { return strcat_s(t, 8, nullptr); }, "abc", EINVAL, EINVAL, "abc"},
    {"strcat null target", [](char*) { return strcat_s(nullptr, 8, "d"); }, "abc", EINVAL, EINVAL, "abc"},
    {"strncpy count == size", [](char* t) { return strncpy_s(t, 4, "abc", 4); }, "wxyz", 0, kUntouched, "abc"},
    {"strncpy size < count", [](char* t) { return strncpy_s(t, 3, "abc", 4); }, "wxyz", EINVAL, EINVAL, "wxyz"},
    {"strncpy size 0", [](char* t) { return strncpy_s(t, 0, "abc", 0); }, "wxyz", EINVAL, EINVAL, "wxyz"},
    {"strncpy null source", [](char* t) { return strncpy_s(t, 8, nullptr, 1); }, "wxyz", EINVAL, EINVAL, "wxyz"},
    {"strncpy null target", [](char*) { return strncpy_s(nullptr, 8, "a", 1); }, "wxyz", EINVAL, EINVAL, "wxyz"},
    {"strlwr", [](char* t) { return _strlwr_s(t, 6); }, "AbC-1Z", 0, kUntouched, "abc-1z"},
    {"strlwr length > size", [](char* t) { return _strlwr_s(t, 5); }, "AbC-1Z", ERANGE, ERANGE, "AbC-1Z"},
    {"strlwr null", [](char*) { return _strlwr_s(nullptr, 5); }, "AB", EINVAL, EINVAL, "AB"},
    {"strupr", [](char* t) { return _strupr_s(t, 9); }, "abC-1z", 0, kUntouched, "ABC-1Z"},
    {"strupr empty", [](char* t) { return _strupr_s(t, 0); }, "", 0, kUntouched, ""},
    {"strupr length > size", [](char* t) { return _strupr_s(t, 1); }, "ab", ERANGE, ERANGE, "ab"},
    {"strupr null", [](char*) { return _strupr_s(nullptr, 1); }, "ab", EINVAL, EINVAL, "ab"},
};

TEST(SafeCrtStrings, ResultTable) {
  for (const StringCase& c : kStringCases) {
    SCOPED_TRACE(c.what);
    Buffer buffer(c.before);
    Buffer expected(c.after);
    // Bytes behind the expected text that the call must not have changed.
    std::memcpy(expected.bytes + std::strlen(c.after) + 1, buffer.bytes + std::strlen(c.after) + 1,
                sizeof buffer.bytes - std::strlen(c.after) - 1);
    errno = kUntouched;
    EXPECT_EQ(c.result, c.call(buffer.bytes));
    EXPECT_EQ(c.errnoAfter, errno);
    EXPECT_EQ(0, std::memcmp(expected.bytes, buffer.bytes, sizeof buffer.bytes));
  }
}

TEST(SafeCrtStrings, NeverWritesPastSize) {
  // A heap block of exactly `size` bytes: ASan reports any write behind it.
  for (unsigned size = 1; size <= 8; ++size) {
    char* target = static_cast<char*>(malloc(size));
    target[0] = '\0';
    const int copied = strcpy_s(target, size, "1234567");
    EXPECT_EQ(size == 8 ? 0 : ERANGE, copied);
    const int appended = strcat_s(target, size, "abcdefgh");
    EXPECT_EQ(ERANGE, appended);
    free(target);
  }
  char exact[4] = {'a', '\0', '#', '#'};
  EXPECT_EQ(0, strcat_s(exact, 4, "bc"));
  EXPECT_STREQ("abc", exact);
}

TEST(SafeCrtStrings, StrncpyIsPlainStrncpy) {
  char target[8];
  std::memset(target, '#', sizeof target);
  EXPECT_EQ(0, strncpy_s(target, 8, "abcdef", 3));
  EXPECT_EQ(0, std::memcmp(target, "abc#####", 8));  // no terminator added
  EXPECT_EQ(0, strncpy_s(target, 8, "x", 5));
  EXPECT_EQ(0, std::memcmp(target, "x\0\0\0\0###", 8));  // zero-filled to count
}

TEST(SafeCrtStrings, ExactlySizeCharactersPass) {
  char text[] = "abcd";
  EXPECT_EQ(0, _strupr_s(text, 4));
  EXPECT_STREQ("ABCD", text);
  EXPECT_EQ(0, _strlwr_s(text, 4));
  EXPECT_STREQ("abcd", text);
}

TEST(SafeCrtStrings, HighBytesFollowTheCLocale) {
  char text[] = "\xC4\xE4Z";  // in the C locale only ASCII letters change
  EXPECT_EQ(0, _strlwr_s(text, 3));
  EXPECT_STREQ("\xC4\xE4z", text);
}

TEST_F(SafeCrtFiles, FopenTable) {
  FILE* file = reinterpret_cast<FILE*>(0x1);
  errno = kUntouched;
  EXPECT_EQ(EINVAL, fopen_s(nullptr, "x", "r"));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(EINVAL, fopen_s(&file, nullptr, "r"));
  EXPECT_EQ(EINVAL, fopen_s(&file, "x", nullptr));
  EXPECT_EQ(reinterpret_cast<FILE*>(0x1), file);  // not written

  errno = kUntouched;
  EXPECT_EQ(ENOENT, fopen_s(&file, path("missing").c_str(), "r"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(nullptr, file);
  // A folder cannot be opened for writing (EISDIR, even for root): still ENOENT.
  errno = kUntouched;
  EXPECT_EQ(ENOENT, fopen_s(&file, mDir.c_str(), "w"));
  EXPECT_EQ(ENOENT, errno);

  errno = kUntouched;
  ASSERT_EQ(0, fopen_s(&file, path("a").c_str(), "w"));
  EXPECT_EQ(kUntouched, errno);
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(0, fclose(file));
}

TEST_F(SafeCrtFiles, FopenWithoutReadRightGivesEnoent) {
  const std::string locked = path("locked");
  FILE* file = nullptr;
  ASSERT_EQ(0, fopen_s(&file, locked.c_str(), "w"));
  fclose(file);
  ASSERT_EQ(0, chmod(locked.c_str(), 0));
  ASSERT_EQ(0, chmod(mDir.c_str(), 0755));
  // Root reads any file, so the attempt runs in a child that gives up root
  // for the unprivileged "nobody" (65534).
  const zk3test::ChildResult child = zk3test::runInChild([&locked] {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 3;
    FILE* denied = nullptr;
    errno = 0;
    const int result = fopen_s(&denied, locked.c_str(), "r");
    return result == ENOENT && errno == ENOENT && denied == nullptr ? 0 : 1;
  });
  ASSERT_NE(child.end, zk3test::ChildResult::End::kNotStarted) << child.describe();
  ASSERT_EQ(child.end, zk3test::ChildResult::End::kExited) << child.describe();
  EXPECT_EQ(0, child.code) << child.describe();
}

TEST_F(SafeCrtFiles, FreopenTable) {
  FILE* stream = nullptr;
  ASSERT_EQ(0, fopen_s(&stream, path("a").c_str(), "w"));
  FILE* file = nullptr;
  errno = kUntouched;
  ASSERT_EQ(0, freopen_s(&file, path("b").c_str(), "w", stream));
  EXPECT_EQ(kUntouched, errno);
  ASSERT_EQ(stream, file);
  // A null path reopens the stream's own file in the new mode.
  ASSERT_EQ(0, freopen_s(&file, nullptr, "r", file));
  ASSERT_NE(nullptr, file);
  // Failure: freopen's errno, the result null; freopen closed the stream,
  // whose FILE glibc frees only at the fclose that follows.
  stream = file;
  EXPECT_EQ(ENOENT, freopen_s(&file, path("missing").c_str(), "r", stream));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(nullptr, file);
  fclose(stream);
}

TEST_F(SafeCrtFiles, SopenTable) {
  int descriptor = 77;
  errno = kUntouched;
  EXPECT_EQ(EINVAL, _sopen_s(nullptr, "x", O_RDONLY, 0, 0));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(EINVAL, _sopen_s(&descriptor, nullptr, O_RDONLY, 0, 0));
  EXPECT_EQ(77, descriptor);

  errno = kUntouched;
  EXPECT_EQ(ENOENT, _sopen_s(&descriptor, path("missing").c_str(), O_RDONLY, 0, 0));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, descriptor);
  EXPECT_EQ(EISDIR, _sopen_s(&descriptor, mDir.c_str(), O_WRONLY, 0, 0));

  errno = kUntouched;
  ASSERT_EQ(0, _sopen_s(&descriptor, path("a").c_str(), O_WRONLY | O_CREAT, 0640, 0x7777));
  EXPECT_EQ(kUntouched, errno);
  ASSERT_GE(descriptor, 0);
  close(descriptor);
  struct stat info;
  ASSERT_EQ(0, stat(path("a").c_str(), &info));
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(0640 & ~mask, info.st_mode & 0777);  // the fourth argument, not the fifth
}

}  // namespace
