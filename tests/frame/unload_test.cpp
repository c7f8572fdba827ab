// The library at a real unload: this program does not link it but opens a
// caller module that does, so that closing the module unloads the library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "support/child.h"
#include "support/temp_dir.h"
#include "zelkit3/thread_pool.h"

// A task that keeps its worker busy for a while. It lives in this program,
// which outlives the library, as a caller's task must.
struct BusyTask : zelkit3::IRunnable {
  void run() override { usleep(50 * 1000); }
  void addRef() override {}
  void release() override {}
} gTask;

// In a child working in dir: opens the caller module, which loads the library.
// Without `use` it exits with the library still open, when the runtime runs
// the library's static destructors before its unload hook. With `use` it
// calls the module's function and closes the module, after which neither the
// library nor a thread of it may remain. Gives "" if the child ends well, else
// how it ended.
std::string runCaller(const std::string& dir, bool use) {
  zk3test::Child child(
      [&] {
        // /proc/self/task has 2 links, and 1 per thread of this process. A
        // sanitizer starts a thread of its own at the first thread made:
        // make one first.
        std::thread([] {}).join();
        struct stat before, after;
        if (stat("/proc/self/task", &before) != 0) return 5;
        void* caller = chdir(dir.c_str()) == 0 ? dlopen(ZK3_CALLER_FILE, RTLD_NOW) : nullptr;
        if (caller == nullptr) return 2;
        if (!use) return 0;
        reinterpret_cast<void (*)(void*)>(dlsym(caller, "zk3Use"))(&gTask);
        dlclose(caller);
        if (dlopen(ZK3_LIBRARY_FILE, RTLD_NOW | RTLD_NOLOAD) != nullptr) return 3;
        return stat("/proc/self/task", &after) == 0 && after.st_nlink == before.st_nlink ? 0 : 4;
      },
      /*runExitHandlers=*/true);
  return child.wait() == 0 ? "" : child.describe();
}

// "performance.log" in the working directory: written at unload only when
// there are records, replacing an older one; one that cannot be opened stops
// nothing. A pool ended asynchronously right before the unload still runs its
// tasks: the unload waits until its threads have gone.
TEST(Unload, WritesTheReportAfterAnAsynchronousPoolEnd) {
  zk3test::TempDir dir("zk3-report");
  const std::string report = dir.path("performance.log");
  const std::string old(3000, '#');
  std::ofstream(report.c_str()) << old;
  EXPECT_EQ("", runCaller(dir.root(), false));
  EXPECT_EQ(old, zk3test::readFile(report));

  EXPECT_EQ("", runCaller(dir.root(), true));
  const std::string text = zk3test::readFile(report);
  const std::string expected =
      zk3test::readFile(ZK3_SOURCE_DIR "/tests/frame/performance_report.txt");
  EXPECT_EQ(expected, text.substr(0, expected.size()));
  // The measured record, last by its key, with a time of the clock's.
  EXPECT_NE(std::string::npos, text.find("\nCall count = 1\n", expected.size()));
  EXPECT_EQ(std::string::npos, text.find('#'));

  ASSERT_EQ(0, unlink(report.c_str()));
  dir.folder("performance.log");
  EXPECT_EQ("", runCaller(dir.root(), true));
}
