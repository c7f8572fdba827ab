// getFileStatus and the delete family: results, errorCode, deep trees, links
// that must not be followed, and trees that change during the walk.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "support/temp_dir.h"
#include "zelkit3/filesystem.h"

using namespace zelkit3;
using zk3test::exists;
using zk3test::TempDir;

namespace {

const int kUntouched = -7;

// A folder name of 250 characters: 17 of them make a path beyond PATH_MAX.
const std::string kLongName(250, 'n');

// Makes levels nested folders named `name` under root, each opened relative to
// the one above (so the chain may outgrow PATH_MAX); returns the last one's fd.
int makeChain(const std::string& root, const std::string& name, int levels) {
  int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (int i = 0; i < levels && fd >= 0; ++i) {
    if (mkdirat(fd, name.c_str(), 0700) != 0) std::abort();
    const int child = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(fd);
    fd = child;
  }
  return fd;
}

void touchAt(int fd, const std::string& name) {
  const int file = openat(fd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0) std::abort();
  close(file);
}

TEST(GetFileStatus, Table) {
  TempDir tree;
  tree.folder("d");
  tree.file("f");
  ASSERT_EQ(0, symlink("d", tree.path("dirlink").c_str()));
  ASSERT_EQ(0, symlink("nowhere", tree.path("dangling").c_str()));
  ASSERT_EQ(0, mkfifo(tree.path("fifo").c_str(), 0600));
  const struct {
    const char* name;
    FileStatus status;
  } cases[] = {{"d", FILE_STATUS_DIRECTORY},    {"f", FILE_STATUS_FILE},
               {"dirlink", FILE_STATUS_FILE},   {"dangling", FILE_STATUS_FILE},
               {"fifo", FILE_STATUS_FILE},      {"missing", FILE_STATUS_NOT_FOUND},
               {"f/below", FILE_STATUS_NOT_FOUND}, {"dirlink/", FILE_STATUS_DIRECTORY}};
  for (const auto& c : cases) {
    int error = kUntouched;
    EXPECT_EQ(c.status, getFileStatus(tree.path(c.name).c_str(), &error)) << c.name;
    EXPECT_EQ(kUntouched, error) << c.name;
  }
  int error = kUntouched;
  const std::string tooLong = tree.root() + "/" + std::string(5000, 'x');
  EXPECT_EQ(FILE_STATUS_ERROR, getFileStatus(tooLong.c_str(), &error));
  EXPECT_EQ(ENAMETOOLONG, error);
  EXPECT_FALSE(PosixDeleteDirectory(tooLong.c_str(), &error));
}

TEST(DeleteInternals, ReportEveryFailure) {
  TempDir tree;
  tree.folder("d");
  tree.file("d/f");
  int error = kUntouched;
  EXPECT_FALSE(deleteFileInternal(tree.path("missing").c_str(), &error));
  EXPECT_EQ(ENOENT, error);
  EXPECT_FALSE(deleteDirectoryInternal(tree.path("d").c_str(), &error));
  EXPECT_EQ(ENOTEMPTY, error);
  EXPECT_TRUE(deleteFileInternal(tree.path("d/f").c_str(), &error));
  EXPECT_TRUE(deleteDirectoryInternal(tree.path("d").c_str(), &error));
  EXPECT_FALSE(deleteDirectoryInternal(tree.path("d").c_str(), &error));
  EXPECT_EQ(ENOENT, error);
  // NOT_FOUND and ERROR are passed over without a look at the path.
  EXPECT_TRUE(deleteDirectoryInternalR(tree.root().c_str(), FILE_STATUS_NOT_FOUND, &error));
  EXPECT_TRUE(deleteDirectoryInternalR(tree.root().c_str(), FILE_STATUS_ERROR, &error));
  EXPECT_TRUE(exists(tree.root()));
}

TEST(DeleteDirectory, SimpleShapes) {
  TempDir tree;
  tree.folder("empty");
  int error = kUntouched;
  EXPECT_TRUE(FileSystemUtils::deleteDirectory(tree.path("empty").c_str(), &error));
  EXPECT_FALSE(exists(tree.path("empty")));
  EXPECT_EQ(0, error);  // the read that found the end stored 0

  tree.file("plain");
  error = kUntouched;
  EXPECT_TRUE(FileSystemUtils::deleteDirectory(tree.path("plain").c_str(), &error));
  EXPECT_FALSE(exists(tree.path("plain")));
  EXPECT_EQ(kUntouched, error);

  EXPECT_TRUE(FileSystemUtils::deleteDirectory(tree.path("missing").c_str(), &error));
  EXPECT_EQ(kUntouched, error);

  tree.folder("slash");
  tree.file("slash/f");
  EXPECT_TRUE(FileSystemUtils::deleteDirectory(tree.path("slash/").c_str(), &error));
  EXPECT_FALSE(exists(tree.path("slash")));
}

TEST(DeleteDirectory, LinkToADirectoryIsRemovedNotFollowed) {
  TempDir tree;
  tree.folder("target");
  tree.file("target/keep");
  ASSERT_EQ(0, symlink(tree.path("target").c_str(), tree.path("link").c_str()));
  int error = kUntouched;
  EXPECT_TRUE(FileSystemUtils::deleteDirectory(tree.path("link").c_str(), &error));
  EXPECT_FALSE(exists(tree.path("link")));
  EXPECT_TRUE(exists(tree.path("target/keep")));
}

TEST(DeleteDirectory, LinksInsideTheTreeAreUnlinked) {
  TempDir tree;
  tree.folder("outside");
  tree.file("outside/keep");
  tree.folder("t");
  tree.folder("t/sub");
  ASSERT_EQ(0, symlink(tree.path("outside").c_str(), tree.path("t/sub/out").c_str()));
  ASSERT_EQ(0, symlink("nowhere", tree.path("t/dangling").c_str()));
  ASSERT_EQ(0, mkfifo(tree.path("t/fifo").c_str(), 0600));
  tree.file("t/sub/f");
  int error = kUntouched;
  EXPECT_TRUE(FileSystemUtils::deleteDirectory(tree.path("t").c_str(), &error));
  EXPECT_FALSE(exists(tree.path("t")));
  EXPECT_TRUE(exists(tree.path("outside/keep")));
}

TEST(DeleteDirectory, DeepTreeOfTenThousandFiles) {
  TempDir tree;
  const int levels = 300;
  const int filesPerLevel = 33;
  int fd = open(tree.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int files = 0;
  for (int level = 0; level < levels; ++level) {
    ASSERT_EQ(0, mkdirat(fd, "d", 0700));
    const int child = openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(fd);
    fd = child;
    ASSERT_GE(fd, 0);
    const int here = level + 1 == levels ? 10000 - files : filesPerLevel;
    for (int i = 0; i < here; ++i) touchAt(fd, "f" + std::to_string(i));
    files += here;
  }
  close(fd);
  ASSERT_EQ(10000, files);
  int error = kUntouched;
  EXPECT_TRUE(FileSystemUtils::deleteDirectory(tree.path("d").c_str(), &error)) << error;
  EXPECT_EQ(0, error);
  EXPECT_FALSE(exists(tree.path("d")));
}

// Root reads anything, so a child whose status cannot be read is made with a
// path beyond PATH_MAX: lstat gives ENAMETOOLONG, the child is passed over and
// the final rmdir finds its folder not empty.
TEST(DeleteDirectory, ChildWhoseStatusCannotBeReadIsPassedOver) {
  TempDir tree;
  // root + 16 * 251 characters stays below 4096; one more name goes beyond.
  const int fd = makeChain(tree.root(), kLongName, 16);
  ASSERT_GE(fd, 0);
  touchAt(fd, kLongName);
  touchAt(fd, "short");
  close(fd);
  std::string deepest = tree.root();
  for (int i = 0; i < 16; ++i) deepest += "/" + kLongName;
  ASSERT_LT(deepest.size() + 1 + 1, 4096u);
  ASSERT_GE(deepest.size() + 1 + kLongName.size(), 4096u);

  int error = kUntouched;
  EXPECT_FALSE(FileSystemUtils::deleteDirectory(tree.path(kLongName).c_str(), &error));
  EXPECT_EQ(ENOTEMPTY, error);
  EXPECT_FALSE(exists(deepest + "/short"));  // deleted before the walk stopped
  EXPECT_TRUE(exists(deepest));
}

TEST(DeleteDirectory, FailuresStopTheWalk) {
  TempDir tree;
  tree.file("file");
  int error = kUntouched;
  // A status that no longer fits the path: the folder cannot be opened.
  EXPECT_FALSE(deleteDirectoryInternalR(tree.path("file").c_str(), FILE_STATUS_DIRECTORY, &error));
  EXPECT_EQ(ENOTDIR, error);
  EXPECT_TRUE(exists(tree.path("file")));
  // A link put where a directory was seen is not followed: the open refuses
  // it (Linux gives ENOTDIR for O_DIRECTORY with O_NOFOLLOW).
  tree.folder("victim");
  tree.file("victim/keep");
  ASSERT_EQ(0, symlink(tree.path("victim").c_str(), tree.path("swapped").c_str()));
  EXPECT_FALSE(deleteDirectoryInternalR(tree.path("swapped").c_str(), FILE_STATUS_DIRECTORY, &error));
  EXPECT_TRUE(error == ENOTDIR || error == ELOOP) << error;
  EXPECT_TRUE(exists(tree.path("victim/keep")));
  // A name ending in a backslash is a folder by addSlashToPath's rule, so its
  // children are looked up under a path that does not exist and passed over.
  tree.folder("odd\\");
  tree.file("odd\\/f");
  EXPECT_FALSE(FileSystemUtils::deleteDirectory(tree.path("odd\\").c_str(), &error));
  EXPECT_EQ(ENOTEMPTY, error);
}

// One thread swaps folders of the tree for links to a folder outside while
// another deletes the tree: whatever the interleaving, the walk never enters
// the link, and a second delete finishes the job.
TEST(DeleteDirectory, TreeChangingDuringTheWalkNeverLeadsOutside) {
  TempDir tree;
  tree.folder("victim");
  for (int i = 0; i < 20; ++i) tree.file("victim/keep" + std::to_string(i));
  const int rounds = 10;
  const int folders = 30;
  for (int round = 0; round < rounds; ++round) {
    tree.folder("t");
    for (int i = 0; i < folders; ++i) {
      const std::string sub = "t/s" + std::to_string(i);
      tree.folder(sub);
      for (int j = 0; j < 5; ++j) tree.file(sub + "/f" + std::to_string(j));
    }
    std::promise<void> gate;
    std::shared_future<void> start = gate.get_future().share();
    std::thread swapper([&] {
      start.wait();
      for (int i = folders - 1; i >= 0; --i) {
        const std::string sub = tree.path("t/s" + std::to_string(i));
        if (rename(sub.c_str(), (sub + "moved").c_str()) == 0) {
          (void)symlink(tree.path("victim").c_str(), sub.c_str());
        }
      }
    });
    int error = kUntouched;
    gate.set_value();
    const bool first = FileSystemUtils::deleteDirectory(tree.path("t").c_str(), &error);
    swapper.join();
    if (!first) {
      EXPECT_TRUE(error == ENOTDIR || error == ELOOP || error == ENOTEMPTY || error == ENOENT) << error;
    }
    EXPECT_TRUE(FileSystemUtils::deleteDirectory(tree.path("t").c_str(), &error)) << error;
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(exists(tree.path("victim/keep" + std::to_string(i))));
  }
}

}  // namespace
