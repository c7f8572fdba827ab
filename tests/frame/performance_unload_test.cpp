// The report at a real unload: a child process loads the library with
// dlopen, fills records through a caller module, and closes the library in a
// fresh temporary working directory; the report must then be byte for byte.
// This executable does not link the library, so that dlclose unloads it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "frame/dl_module.h"
#include "support/child.h"
#include "support/temp_dir.h"

namespace {

std::string readAll(const std::string& path) {
  std::ifstream in(path.c_str(), std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The report's bytes in the working directory, or a mark that there is none.
std::string reportNow() {
  if (access("performance.log", F_OK) != 0) return "<none>";
  return readAll("performance.log");
}

// In the child, in dir: loads the library, lets the recorder module fill
// records (or not), and closes the library again, so that its unload hook
// writes the report into the working directory. Exit code: 0 done; 3 load
// failure; 4 the report file changed before the unload; 5 records and no
// report after the unload; 120 no way into dir.
int loadRecordAndUnload(const std::string& dir, bool record) {
  if (chdir(dir.c_str()) != 0) return 120;
  const std::string before = reportNow();
  // RTLD_GLOBAL: the recorder module finds the library already loaded.
  zk3test::DlModule library(ZK3_LIBRARY_FILE, RTLD_NOW | RTLD_GLOBAL);
  if (!library.opened()) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 3;
  }
  if (record) {
    zk3test::DlModule recorder(ZK3_RECORDER_FILE, RTLD_NOW);
    if (!recorder.opened()) {
      std::fprintf(stderr, "%s\n", dlerror());
      return 3;
    }
    void (*fill)() = recorder.symbol<void (*)()>("zk3FillRecords");
    if (fill == nullptr) return 3;
    fill();
    recorder.close();
    if (reportNow() != before) return 4;  // only the unload writes
  }
  library.close();  // runs ZelKit3AtUnload
  if (record && access("performance.log", F_OK) != 0) return 5;
  return 0;
}

class UnloadReport : public ::testing::Test {
 protected:
  UnloadReport() : mDir("zk3-perf-unload"), mReport(mDir.path("performance.log")) {}

  // Runs the load, the records (or none) and the unload in a child, in mDir.
  zk3test::ChildResult runHelper(const char* mode) {
    const bool record = std::string(mode) == "record";
    const std::string dir = mDir.root();
    return zk3test::runInChild([dir, record] { return loadRecordAndUnload(dir, record); },
                               zk3test::ChildExit::kRunExitHandlers);
  }

  zk3test::TempDir mDir;
  std::string mReport;
};

const char kLine[] = "===============================================\n";

// What the recorder module's records give.
std::string expectedReport() {
  return std::string() +
      "CommandID = alpha\n"
      "Hole time = 0.5\n"
      "Call count = 1\n"
      "Min time = 0.5\n"
      "Max time = 0.5\n"
      "Average time = 0.5\n"
      "Average time* = 0.5\n" + kLine +
      "CommandID = beta\n"
      "Hole time = 9\n"
      "Call count = 3\n"
      "Min time = 1\n"
      "Max time = 6\n"
      "Average time = 3\n"
      "Average time* = 2\n" + kLine +
      "CommandID = gamma\n"
      "Hole time = 1.23457e+06\n"
      "Call count = 2\n"
      "Min time = 0.25\n"
      "Max time = 1.23457e+06\n"
      "Average time = 617284\n"
      "Average time* = 617284\n" + kLine +
      "CommandID = renamed\n"
      "Hole time = 4\n"
      "Call count = 1\n"
      "Min time = 4\n"
      "Max time = 4\n"
      "Average time = 4\n"
      "Average time* = 4\n" + kLine;
}

TEST_F(UnloadReport, WrittenByteForByteAtDlclose) {
  const zk3test::ChildResult r = runHelper("record");
  ASSERT_EQ(0, r.status()) << r.describe();
  EXPECT_EQ(expectedReport(), readAll(mReport));
  EXPECT_EQ(47u, sizeof kLine - 2);
}

TEST_F(UnloadReport, NoRecordsNoFile) {
  const zk3test::ChildResult r = runHelper("none");
  ASSERT_EQ(0, r.status()) << r.describe();
  EXPECT_NE(0, access(mReport.c_str(), F_OK));
}

TEST_F(UnloadReport, NoRecordsLeavesAnOldReportAlone) {
  {
    std::ofstream old(mReport.c_str());
    old << "an old report\n";
  }
  const zk3test::ChildResult r = runHelper("none");
  ASSERT_EQ(0, r.status()) << r.describe();
  EXPECT_EQ("an old report\n", readAll(mReport));
}

TEST_F(UnloadReport, RecordsReplaceAnOldReport) {
  {
    std::ofstream old(mReport.c_str());
    old << std::string(10000, '#');
  }
  const zk3test::ChildResult r = runHelper("record");
  ASSERT_EQ(0, r.status()) << r.describe();
  EXPECT_EQ(expectedReport(), readAll(mReport));  // replaced, not appended or overlaid
}

}  // namespace
