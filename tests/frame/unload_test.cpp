// The library at a real unload: this program does not link it but opens a
// caller module that does, so that closing the module unloads the library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "support/child.h"
#include "support/temp_dir.h"

// In a child working in dir: opens the caller module, which loads the
// library, and calls its function `name` (if any). Then it closes the module,
// which unloads the library, or it exits with the library still open: the
// runtime then runs the library's static destructors before its unload hook.
int runCaller(const std::string& dir, const char* name, bool close) {
  const auto exit = close ? zk3test::ChildExit::kImmediate : zk3test::ChildExit::kRunExitHandlers;
  return zk3test::runInChild(
             [&] {
               void* caller = chdir(dir.c_str()) == 0 ? dlopen(ZK3_CALLER_FILE, RTLD_NOW) : nullptr;
               if (caller == nullptr) return 2;
               if (name != nullptr) reinterpret_cast<void (*)()>(dlsym(caller, name))();
               if (close) dlclose(caller);
               return close && dlopen(ZK3_LIBRARY_FILE, RTLD_NOW | RTLD_NOLOAD) ? 3 : 0;
             },
             exit)
      .status();
}

// After an asynchronous end the pool's threads wind down on their own; an
// unload right after it must wait until they have left the library's code.
// Many rounds, since the window is short: a crash shows as a signal.
TEST(Unload, RightAfterAnAsynchronousPoolEnd) {
  for (int round = 0; round < 100; ++round) ASSERT_EQ(0, runCaller(".", "zk3EndPoolAsync", true));
}

std::string readAll(const std::string& path) {
  std::ifstream in(path.c_str(), std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// "performance.log" in the working directory: written at unload only when
// there are records, replacing an older one; one that cannot be opened stops
// nothing.
TEST(Unload, WritesTheReport) {
  zk3test::TempDir dir("zk3-report");
  const std::string report = dir.path("performance.log");
  const std::string old(3000, '#');
  std::ofstream(report.c_str()) << old;
  EXPECT_EQ(0, runCaller(dir.root(), nullptr, false));
  EXPECT_EQ(old, readAll(report));

  EXPECT_EQ(0, runCaller(dir.root(), "zk3Record", true));
  const std::string text = readAll(report);
  const std::string expected = readAll(ZK3_SOURCE_DIR "/tests/frame/performance_report.txt");
  EXPECT_EQ(expected, text.substr(0, expected.size()));
  // The measured record, last by its key: its times are the clock's.
  EXPECT_NE(std::string::npos, text.find("CommandID = ~scoped\nHole time = ", expected.size()));
  EXPECT_NE(std::string::npos, text.find("\nCall count = 2000\n", expected.size()));

  ASSERT_EQ(0, unlink(report.c_str()));
  dir.folder("performance.log");
  EXPECT_EQ(0, runCaller(dir.root(), "zk3Record", true));
}
