// The one temporary folder of the tests: a unique folder under $TMPDIR (or
// /tmp), removed with all it holds when the object goes, also when the test
// failed and when the tree is deeper than PATH_MAX (remove_all works relative
// to descriptors). Without a folder the process aborts: no test goes on with
// a path that is not its own.
#ifndef ZELKIT3_TESTS_SUPPORT_TEMP_DIR_H
#define ZELKIT3_TESTS_SUPPORT_TEMP_DIR_H

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>

namespace zk3test {

// The whole content of a file; empty if it cannot be read.
// (A stream insertion, which turns a read error such as EISDIR into failbit
// where an istreambuf_iterator would throw.)
inline std::string readFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

// The descriptors this process has open.
inline long openFds() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class TempDir {
 public:
  // The folder's name starts with "<prefix>-".
  explicit TempDir(const std::string& prefix = "zk3") {
    const char* base = std::getenv("TMPDIR");
    mRoot =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    if (mkdtemp(&mRoot[0]) == nullptr) std::abort();
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(mRoot, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& root() const { return mRoot; }
  std::string path(const std::string& relative) const { return mRoot + "/" + relative; }

  // Makes an empty file (and nothing else) at relative; aborts if it cannot.
  void file(const std::string& relative) const {
    const int fd = open(path(relative).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || close(fd) != 0) std::abort();
  }
  // Makes a folder at relative; aborts if it cannot.
  void folder(const std::string& relative) const {
    if (mkdir(path(relative).c_str(), 0700) != 0) std::abort();
  }

 private:
  std::string mRoot;
};

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_SUPPORT_TEMP_DIR_H
