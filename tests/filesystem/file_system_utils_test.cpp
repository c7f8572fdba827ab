// Path helpers, createDirectory, deleteFile and the recursive delete.
#include "zelkit3/filesystem.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/child.h"
#include "support/temp_dir.h"

using namespace zelkit3;
using FS = zelkit3::FileSystemUtils;
using zk3test::exists;

namespace {

TEST(FileSystemUtils, PathText) {
  // path, addSlashToPath, getFolderFromFilePath: each splits by its own rule.
  const char* const rows[][3] = {{"", "", ""},
                                 {"c", "c/", ""},
                                 {"/c", "/c/", ""},
                                 {"a\\", "a\\", ""},
                                 {"a/b\\c", "a/b\\c/", "a"},
                                 {"a/b/", "a/b/", "a/b"}};
  for (const auto& row : rows) {
    EXPECT_EQ(FS::addSlashToPath(row[0]), row[1]) << row[0];
    EXPECT_EQ(FS::getFolderFromFilePath(row[0]), row[2]) << row[0];
  }
  // The full path and the file name need the path to exist.
  zk3test::TempDir tree;
  tree.folder("d");
  tree.file("d/f");
  ASSERT_EQ(0, symlink("d/f", tree.path("link").c_str()));
  const std::string real = FS::getFullPath(tree.root().c_str());  // /tmp may be a link
  EXPECT_EQ(FS::getFullPath(tree.path("d/./../link").c_str()), real + "/d/f");
  EXPECT_EQ(FS::getFileFromFilePath(tree.path("link").c_str()), "f");  // the target's name
  EXPECT_EQ(FS::getFileFromFilePath(tree.path("d/").c_str()), "d");
  const std::string missing = tree.path("d/missing");
  EXPECT_EQ(FS::getFullPath(missing.c_str()), "");
  EXPECT_EQ(FS::getFullPath("/"), "/");
  for (const char* none : {missing.c_str(), "/", static_cast<const char*>(nullptr)})
    EXPECT_EQ(FS::getFileFromFilePath(none), "");
}

TEST(FileSystemUtils, CreateDirectoryAndDeleteFile) {
  zk3test::TempDir tree;
  EXPECT_TRUE(
      FS::createDirectory(tree.path("abc").c_str()));  // makes only names before a separator
  EXPECT_FALSE(exists(tree.path("abc")));
  const std::string chain = tree.path("x\\y/z\\");  // both split; a backslash stays in the name
  for (int round = 0; round < 2; ++round) EXPECT_TRUE(FS::createDirectory(chain.c_str()));
  struct stat info;
  ASSERT_EQ(0, stat(tree.path("x\\y/z").c_str(), &info));
  EXPECT_EQ(info.st_mode & 0077u, 0u);  // private
  EXPECT_TRUE(FS::createDirectory("/"));
  EXPECT_FALSE(FS::createDirectory(nullptr) || FS::createDirectory(""));
  tree.file("f");
  EXPECT_FALSE(FS::createDirectory(tree.path("new/../f/sub/").c_str()));  // ENOTDIR
  EXPECT_TRUE(exists(tree.path("new")));  // what was made before the failure stays
  int error = -7;
  for (const char* name : {"f/below", "f", "f"})  // ENOTDIR, deleted, then ENOENT
    EXPECT_TRUE(FS::deleteFile(tree.path(name).c_str(), &error)) << name;
  EXPECT_EQ(error, -7);
  EXPECT_FALSE(exists(tree.path("f")));
  EXPECT_FALSE(FS::deleteFile(tree.path("new").c_str(), &error));
  EXPECT_EQ(error, EISDIR);
}

// Runs body in a child chrooted into tree's folder: a walk that goes wrong
// can delete nothing outside it.
template <typename Body>
void inTree(const zk3test::TempDir& tree, Body body) {
  const zk3test::ChildResult r = zk3test::runInChild([&] {
    if (chroot(tree.root().c_str()) != 0 || chdir("/") != 0) return 2;
    body();
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(0, r.status()) << r.describe();
}

// Root reads anything, so the child whose status cannot be read has a path
// beyond PATH_MAX: in 16 folders of 250 characters, a file of 250.
TEST(DeleteDirectory, RemovesTreesAndLinksFollowsNoneAndStopsAtFailures) {
  zk3test::TempDir tree;
  const std::string name(250, 'n');
  std::string deep;
  for (int i = 0; i < 16; ++i) tree.folder(deep += (i ? "/" : "") + name);
  for (const char* dir : {"out", "empty", "t", "t/sub", "t/.x", "t/..y"}) tree.folder(dir);
  for (const char* file : {"out/keep", "plain", "t/sub/f", "t/.z"}) tree.file(file);
  tree.file(deep + "/short");
  const int fd = open(tree.path(deep).c_str(), O_RDONLY | O_DIRECTORY);
  close(openat(fd, name.c_str(), O_CREAT | O_WRONLY, 0600));
  close(fd);
  for (const char* link : {"link", "t/sub/link"})
    ASSERT_EQ(0, symlink("/out", tree.path(link).c_str()));
  inTree(tree, [&] {
    const struct {
      const char* path;
      FileStatus status;
    } rows[] = {{"/out", FILE_STATUS_DIRECTORY},  {"/plain", FILE_STATUS_FILE},
                {"/link", FILE_STATUS_FILE},      {"/link/", FILE_STATUS_DIRECTORY},
                {"/none", FILE_STATUS_NOT_FOUND}, {"/plain/x", FILE_STATUS_NOT_FOUND}};
    int error = -7;
    for (const auto& row : rows) EXPECT_EQ(getFileStatus(row.path, &error), row.status) << row.path;
    for (const char* path : {"/plain", "/link", "/none"})  // a file, a link and nothing
      EXPECT_TRUE(FS::deleteDirectory(path, &error)) << path;
    EXPECT_EQ(error, -7);
    EXPECT_TRUE(FS::deleteDirectory("/empty", &error));
    EXPECT_EQ(error, 0);  // the read that found the end stored 0
    EXPECT_TRUE(FS::deleteDirectory("/t/", &error));
    for (const char* path : {"/empty", "/plain", "/link", "/t"}) EXPECT_FALSE(exists(path)) << path;
    EXPECT_TRUE(exists("/out/keep"));
    // The failures, one each.
    EXPECT_FALSE(PosixDeleteDirectory(("/" + deep + "/" + name).c_str(), &error));
    EXPECT_EQ(error, ENAMETOOLONG);  // lstat of the path itself
    EXPECT_FALSE(FS::deleteDirectory(("/" + name).c_str(), &error));
    EXPECT_EQ(error, ENOTEMPTY);                  // a child passed over
    EXPECT_FALSE(exists("/" + deep + "/short"));  // what was deleted stays deleted
    ASSERT_EQ(0, symlink("/out", "/dirlink"));
    for (const char* path : {"/out/keep", "/dirlink"}) {  // a file, and a link, seen as folders
      EXPECT_FALSE(deleteDirectoryInternalR(path, FILE_STATUS_DIRECTORY, &error)) << path;
      EXPECT_EQ(error, ENOTDIR);
    }
    // Nothing there, or a status that could not be read: passed over.
    for (FileStatus passed : {FILE_STATUS_NOT_FOUND, FILE_STATUS_ERROR})
      EXPECT_TRUE(deleteDirectoryInternalR("/out", passed, &error));
    EXPECT_TRUE(exists("/out/keep"));
  });
}

}  // namespace
