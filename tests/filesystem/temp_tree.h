// A unique temporary folder for one test, removed with all it holds at the
// end (relative to descriptors, so that trees deeper than PATH_MAX go too).
#ifndef ZELKIT3_TESTS_FILESYSTEM_TEMP_TREE_H
#define ZELKIT3_TESTS_FILESYSTEM_TEMP_TREE_H

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace zk3test {

// Removes name under parentFd, whatever it is; never follows a link.
inline void removeAt(int parentFd, const char* name) {
  if (unlinkat(parentFd, name, 0) == 0) return;
  const int fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    return;
  }
  fchmod(fd, 0700);
  while (struct dirent* entry = readdir(dir)) {
    const std::string child = entry->d_name;
    if (child != "." && child != "..") removeAt(fd, child.c_str());
  }
  closedir(dir);
  unlinkat(parentFd, name, AT_REMOVEDIR);
}

class TempTree {
 public:
  TempTree() {
    char templ[] = "/tmp/zk3-fs-XXXXXX";
    if (mkdtemp(templ) == nullptr) std::abort();
    mRoot = templ;
  }
  ~TempTree() { removeAt(AT_FDCWD, mRoot.c_str()); }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::string& root() const { return mRoot; }
  std::string path(const std::string& relative) const { return mRoot + "/" + relative; }

  // Makes an empty file (and nothing else) at relative.
  void file(const std::string& relative) const {
    const int fd = open(path(relative).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) std::abort();
    close(fd);
  }
  void folder(const std::string& relative) const {
    if (mkdir(path(relative).c_str(), 0700) != 0) std::abort();
  }

 private:
  std::string mRoot;
};

inline bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_FILESYSTEM_TEMP_TREE_H
