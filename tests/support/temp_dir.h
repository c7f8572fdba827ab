// The one temporary folder of the tests: a unique folder under $TMPDIR (or
// /tmp), removed with all it holds when the object goes, also when the test
// failed. Without a folder the process aborts: no test goes on with a path
// that is not its own. Removal works relative to descriptors, so that trees deeper than
// PATH_MAX go too, and gives itself the rights it needs on the folders.
#ifndef ZELKIT3_TESTS_SUPPORT_TEMP_DIR_H
#define ZELKIT3_TESTS_SUPPORT_TEMP_DIR_H

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
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

inline bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

class TempDir {
 public:
  // The folder's name starts with "<prefix>-".
  explicit TempDir(const std::string& prefix = "zk3") {
    const char* base = std::getenv("TMPDIR");
    std::string templ =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    if (mkdtemp(&templ[0]) == nullptr) {
      std::perror(templ.c_str());
      std::abort();
    }
    mRoot = templ;
  }
  ~TempDir() { remove(); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& root() const { return mRoot; }
  std::string path(const std::string& relative) const { return mRoot + "/" + relative; }

  // Makes an empty file (and nothing else) at relative; aborts if it cannot.
  void file(const std::string& relative) const {
    const int fd = open(path(relative).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) std::abort();
    close(fd);
  }
  // Makes a folder at relative; aborts if it cannot.
  void folder(const std::string& relative) const {
    if (mkdir(path(relative).c_str(), 0700) != 0) std::abort();
  }

  // Removes the folder and all it holds now (the destructor does it too).
  void remove() {
    if (!mRoot.empty()) removeAt(AT_FDCWD, mRoot.c_str());
    mRoot.clear();
  }

 private:
  std::string mRoot;
};

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_SUPPORT_TEMP_DIR_H
