// Path helpers, createDirectory, deleteFile and the recursive delete.
#include "zelkit3/filesystem.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/child.h"
#include "support/temp_dir.h"

using namespace zelkit3;
using FS = zelkit3::FileSystemUtils;

namespace {

// Whether anything, a dangling link included, is at path.
bool exists(const std::string& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

// Runs body in a child chrooted into a new temporary folder, after making
// the folders and files named, in order: a helper that goes wrong (a walk
// that enters "..", say) can touch nothing outside it.
template <typename Body>
void inTree(std::initializer_list<std::string> folders, std::initializer_list<std::string> files,
            Body body) {
  zk3test::TempDir tree;
  for (const std::string& folder : folders) tree.folder(folder);
  for (const std::string& file : files) tree.file(file);
  zk3test::Child child([&] {
    // Only root may chroot: another user first becomes root of a user namespace of its own.
    if (geteuid() != 0 && unshare(CLONE_NEWUSER) != 0) return 3;
    if (chroot(tree.root().c_str()) != 0 || chdir("/") != 0) return 2;
    body();
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(0, child.wait()) << child.describe();
}

TEST(FileSystemUtils, PathsFilesAndFolders) {
  // path, addSlashToPath, getFolderFromFilePath: each splits by its own rule.
  const char* const rows[][3] = {
      {"", "", ""}, {"a\\", "a\\", ""}, {"a/b\\c", "a/b\\c/", "a"}, {"a/b/", "a/b/", "a/b"}};
  for (const auto& row : rows) {
    EXPECT_EQ(FS::addSlashToPath(row[0]), row[1]) << row[0];
    EXPECT_EQ(FS::getFolderFromFilePath(row[0]), row[2]) << row[0];
  }
  EXPECT_EQ(FS::getFolderFromFilePath(nullptr), "");
  inTree({"d"}, {"d/f"}, [] {
    ASSERT_EQ(0, symlink("d/f", "/link"));
    EXPECT_EQ(FS::getFullPath("/d/./../link"), "/d/f");  // needs the path to exist
    EXPECT_EQ(FS::getFileFromFilePath("/link"), "f");    // the target's name
    for (const char* none : {"/d/missing", "/", static_cast<const char*>(nullptr)})
      EXPECT_EQ(FS::getFileFromFilePath(none), "");
    // createDirectory makes each name followed by a separator, of either kind.
    EXPECT_TRUE(FS::createDirectory("/abc") && !exists("/abc"));
    for (int round = 0; round < 2; ++round) EXPECT_TRUE(FS::createDirectory("/x\\y/z\\"));
    struct stat info;
    ASSERT_EQ(0, stat("/x\\y/z", &info));
    EXPECT_EQ(info.st_mode & 0077u, 0u);  // private
    EXPECT_TRUE(FS::createDirectory("/") && FS::createDirectory("x/"));
    EXPECT_FALSE(FS::createDirectory(nullptr) || FS::createDirectory(""));
    EXPECT_FALSE(FS::createDirectory("/new/../d/f/sub/"));  // ENOTDIR
    EXPECT_TRUE(exists("/new"));  // what was made before the failure stays
    int error = -7;
    for (const char* path : {"/d/f/x", "/d/f", "/d/f"})  // ENOTDIR, deleted, then ENOENT
      EXPECT_TRUE(FS::deleteFile(path, &error)) << path;
    EXPECT_EQ(error, -7);
    EXPECT_FALSE(FS::deleteFile("/d", &error));
    EXPECT_EQ(error, EISDIR);
  });
}

// Root reads anything, so the child whose status cannot be read has a path
// beyond PATH_MAX: in 16 folders of 250 characters, a file of 250.
TEST(DeleteDirectory, RemovesTreesAndLinksFollowsNoneAndStopsAtFailures) {
  inTree({"out", "e", "t", "t/s", "t/.x"}, {"out/keep", "f", "t/s/f", "t/..y"}, [&] {
    const std::string n(250, 'n');
    std::string deep;
    for (int i = 0; i < 16; ++i) ASSERT_EQ(0, mkdir((deep += "/" + n).c_str(), 0700));
    ASSERT_EQ(0, chdir(deep.c_str()));
    for (const std::string& file : {n, std::string("short")}) close(creat(file.c_str(), 0600));
    for (const char* link : {"/link", "/t/s/link", "/kept"}) ASSERT_EQ(0, symlink("/out", link));
    int error = -7;
    for (const char* path : {"/f/x", "/f", "/link", "/no"})  // nothing, a file, a link, nothing
      EXPECT_TRUE(FS::deleteDirectory(path, &error)) << path;
    EXPECT_EQ(error, -7);
    // The read that found the end of the empty folder stored 0.
    EXPECT_TRUE(FS::deleteDirectory("/e", &error) && error == 0) << error;
    EXPECT_TRUE(FS::deleteDirectory("/t/", &error));
    for (const char* path : {"/e", "/f", "/link", "/t"}) EXPECT_FALSE(exists(path)) << path;
    // The failures, one each.
    EXPECT_FALSE(PosixDeleteDirectory((deep + "/" + n).c_str(), &error));
    EXPECT_EQ(error, ENAMETOOLONG);  // lstat of the path itself
    EXPECT_FALSE(FS::deleteDirectory(deep.c_str(), &error));
    EXPECT_EQ(error, ENOTEMPTY);  // a child passed over; what was deleted stays deleted
    EXPECT_FALSE(exists(deep + "/short"));
    EXPECT_FALSE(deleteDirectoryInternalR("/kept", FILE_STATUS_DIRECTORY, &error));
    EXPECT_EQ(error, ENOTDIR);  // a link seen as a folder is not opened
    for (FileStatus passed : {FILE_STATUS_NOT_FOUND, FILE_STATUS_ERROR})
      EXPECT_TRUE(deleteDirectoryInternalR("/out", passed, &error));  // passed over
    EXPECT_TRUE(exists("/out/keep"));
  });
}

}  // namespace
