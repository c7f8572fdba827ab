// Path helpers, createDirectory and deleteFile.
#include "zelkit3/filesystem.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"

using zelkit3::FileSystemUtils;
using zk3test::exists;
using zk3test::TempDir;

namespace {

struct TextCase {
  const char* path;
  const char* expected;
};

TEST(AddSlashToPath, Table) {
  const TextCase cases[] = {{"", ""},       {"a", "a/"},   {"a/b", "a/b/"}, {"a/b/", "a/b/"},
                            {"a\\", "a\\"}, {"/", "/"},    {"\\", "\\"},    {"a/.", "a/./"}};
  for (const TextCase& c : cases) EXPECT_EQ(c.expected, FileSystemUtils::addSlashToPath(c.path)) << c.path;
}

TEST(GetFolderFromFilePath, Table) {
  const TextCase cases[] = {{"a/b/c", "a/b"}, {"a/b/", "a/b"}, {"c", ""},        {"/c", ""},
                            {"", ""},         {"a\\b", ""},    {"/x/y", "/x"},   {"a//b", "a/"}};
  for (const TextCase& c : cases) EXPECT_EQ(c.expected, FileSystemUtils::getFolderFromFilePath(c.path)) << c.path;
  EXPECT_EQ("", FileSystemUtils::getFolderFromFilePath(nullptr));
}

TEST(GetFullPath, ResolvesDotsAndLinks) {
  TempDir tree;
  const std::string real = FileSystemUtils::getFullPath(tree.root().c_str());  // /tmp may be a link
  ASSERT_FALSE(real.empty());
  tree.folder("d");
  tree.file("d/f");
  ASSERT_EQ(0, symlink("d/f", tree.path("link").c_str()));
  EXPECT_EQ(real + "/d/f", FileSystemUtils::getFullPath(tree.path("d/./../d/f").c_str()));
  EXPECT_EQ(real + "/d/f", FileSystemUtils::getFullPath(tree.path("link").c_str()));
  EXPECT_EQ("", FileSystemUtils::getFullPath(tree.path("missing").c_str()));
  EXPECT_EQ("", FileSystemUtils::getFullPath(nullptr));
  EXPECT_EQ("/", FileSystemUtils::getFullPath("/"));
}

TEST(GetFileFromFilePath, NeedsAnExistingPath) {
  TempDir tree;
  tree.folder("d");
  tree.file("d/target");
  ASSERT_EQ(0, symlink("d/target", tree.path("link").c_str()));
  EXPECT_EQ("target", FileSystemUtils::getFileFromFilePath(tree.path("d/target").c_str()));
  EXPECT_EQ("target", FileSystemUtils::getFileFromFilePath(tree.path("link").c_str()));  // the target's name
  EXPECT_EQ("d", FileSystemUtils::getFileFromFilePath(tree.path("d/").c_str()));
  // Text alone finds a folder; the missing file gives nothing.
  const std::string missing = tree.path("d/missing");
  EXPECT_FALSE(FileSystemUtils::getFolderFromFilePath(missing.c_str()).empty());
  EXPECT_EQ("", FileSystemUtils::getFileFromFilePath(missing.c_str()));
  EXPECT_EQ("", FileSystemUtils::getFileFromFilePath("/"));
  EXPECT_EQ("", FileSystemUtils::getFileFromFilePath(nullptr));
}

// Runs body in the tree's root as working directory, for relative paths.
template <typename Body>
void inFolder(const TempDir& tree, Body body) {
  char previous[PATH_MAX];
  ASSERT_NE(nullptr, getcwd(previous, sizeof previous));
  ASSERT_EQ(0, chdir(tree.root().c_str()));
  body();
  ASSERT_EQ(0, chdir(previous));
}

TEST(CreateDirectory, MakesOnlyNamesFollowedByASeparator) {
  TempDir tree;
  inFolder(tree, [] {
    EXPECT_TRUE(FileSystemUtils::createDirectory("abc"));
    EXPECT_FALSE(exists("abc"));
    EXPECT_TRUE(FileSystemUtils::createDirectory("abc/"));
    EXPECT_TRUE(exists("abc"));
    EXPECT_TRUE(FileSystemUtils::createDirectory("a/b/c"));
    EXPECT_TRUE(exists("a/b"));
    EXPECT_FALSE(exists("a/b/c"));
    // The backslash splits too, and stays in the names made.
    EXPECT_TRUE(FileSystemUtils::createDirectory("x\\y/z\\"));
    EXPECT_TRUE(exists("x"));
    EXPECT_TRUE(exists("x\\y"));
    EXPECT_TRUE(exists("x\\y/z"));
  });
}

TEST(CreateDirectory, AbsoluteChainsAndMode) {
  TempDir tree;
  const std::string chain = tree.path("p/q/r/");
  EXPECT_TRUE(FileSystemUtils::createDirectory(chain.c_str()));
  struct stat info;
  ASSERT_EQ(0, stat(tree.path("p/q/r").c_str(), &info));
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(0700u & ~mask, info.st_mode & 0777u);
  EXPECT_TRUE(FileSystemUtils::createDirectory(chain.c_str()));  // all there already
  EXPECT_TRUE(FileSystemUtils::createDirectory("/"));
  EXPECT_TRUE(FileSystemUtils::createDirectory("//"));  // mkdir of "/" gives EEXIST
}

TEST(CreateDirectory, Failures) {
  TempDir tree;
  EXPECT_FALSE(FileSystemUtils::createDirectory(nullptr));
  EXPECT_FALSE(FileSystemUtils::createDirectory(""));
  tree.file("file");
  // mkdir of file/sub fails with ENOTDIR; the folders made before stay.
  EXPECT_FALSE(FileSystemUtils::createDirectory(tree.path("file/sub/").c_str()));
  EXPECT_FALSE(FileSystemUtils::createDirectory(tree.path("new/../file/sub/").c_str()));
  EXPECT_TRUE(exists(tree.path("new")));
  // mkdir on a name that is a file gives EEXIST, which counts as there.
  EXPECT_TRUE(FileSystemUtils::createDirectory(tree.path("file/").c_str()));
}

TEST(DeleteFile, Results) {
  TempDir tree;
  tree.file("f");
  tree.folder("d");
  int error = -7;
  EXPECT_TRUE(FileSystemUtils::deleteFile(tree.path("f").c_str(), &error));
  EXPECT_FALSE(exists(tree.path("f")));
  EXPECT_EQ(-7, error);
  EXPECT_TRUE(FileSystemUtils::deleteFile(tree.path("f").c_str(), &error));  // ENOENT
  EXPECT_EQ(-7, error);
  tree.file("g");
  EXPECT_TRUE(FileSystemUtils::deleteFile(tree.path("g/x").c_str(), &error));  // ENOTDIR
  EXPECT_EQ(-7, error);
  EXPECT_FALSE(FileSystemUtils::deleteFile(tree.path("d").c_str(), &error));
  EXPECT_EQ(EISDIR, error);
  EXPECT_TRUE(exists(tree.path("d")));
}

}  // namespace
