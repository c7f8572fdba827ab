// The report at a real unload: a helper process loads the library with
// dlopen, fills records through a caller module, and closes the library in a
// fresh temporary working directory; the report must then be byte for byte.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

class UnloadReport : public ::testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/zk3-perf-unload-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(templ));
    mDir = templ;
    mReport = mDir + "/performance.log";
  }
  void TearDown() override {
    unlink(mReport.c_str());
    rmdir(mDir.c_str());
  }

  // Runs the helper in mDir; returns its exit status, or -1.
  int runHelper(const char* mode) {
    const pid_t child = fork();
    if (child == 0) {
      if (chdir(mDir.c_str()) != 0) _exit(120);
      execl(ZK3_UNLOAD_HELPER_FILE, ZK3_UNLOAD_HELPER_FILE, ZK3_LIBRARY_FILE, ZK3_RECORDER_FILE,
            mode, static_cast<char*>(nullptr));
      _exit(121);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

  std::string read(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string mDir;
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
  ASSERT_EQ(0, runHelper("record"));
  EXPECT_EQ(expectedReport(), read(mReport));
  EXPECT_EQ(47u, sizeof kLine - 2);
}

TEST_F(UnloadReport, NoRecordsNoFile) {
  ASSERT_EQ(0, runHelper("none"));
  EXPECT_NE(0, access(mReport.c_str(), F_OK));
}

TEST_F(UnloadReport, NoRecordsLeavesAnOldReportAlone) {
  {
    std::ofstream old(mReport.c_str());
    old << "an old report\n";
  }
  ASSERT_EQ(0, runHelper("none"));
  EXPECT_EQ("an old report\n", read(mReport));
}

TEST_F(UnloadReport, RecordsReplaceAnOldReport) {
  {
    std::ofstream old(mReport.c_str());
    old << std::string(10000, '#');
  }
  ASSERT_EQ(0, runHelper("record"));
  EXPECT_EQ(expectedReport(), read(mReport));  // replaced, not appended or overlaid
}

}  // namespace
