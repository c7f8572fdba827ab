// The report in process: the unload hook is called by name (and the library
// brought up again after it) in a fresh temporary working directory.
#include "zelkit3/performance.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/temp_dir.h"
#include "zelkit3/lifecycle.h"

using zelkit3::PerformanceLogger;

namespace {

static_assert(!std::is_copy_constructible<PerformanceLogger>::value, "the singleton is not copyable");
static_assert(!std::is_constructible<PerformanceLogger>::value, "only getInstance makes one");

class Report : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(nullptr, getcwd(mPrevious, sizeof mPrevious));
    ASSERT_EQ(0, chdir(mDir.root().c_str()));
  }
  void TearDown() override { EXPECT_EQ(0, chdir(mPrevious)); }

  // The unload hook, then the load hook, so the library stays usable.
  static void unloadAndReload() {
    ZelKit3AtUnload();
    ZelKit3AtLoad();
  }

  static std::string report() {
    std::ifstream in("performance.log", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // Lines 2 to 7 of the record of one command, one line each.
  static std::string figures(const std::string& text, const std::string& command) {
    const size_t start = text.find("CommandID = " + command + "\n");
    if (start == std::string::npos) return "<missing>";
    const size_t from = text.find('\n', start) + 1;
    return text.substr(from, text.find("=====", from) - from);
  }

  zk3test::TempDir mDir{"zk3-perf"};
  char mPrevious[PATH_MAX];
};

struct AverageCase {
  const char* command;
  std::vector<double> times;
  const char* expected;
};

TEST_F(Report, AveragesWithAndWithoutTheExtremes) {
  const AverageCase cases[] = {
      {"one", {5},
       "Hole time = 5\nCall count = 1\nMin time = 5\nMax time = 5\n"
       "Average time = 5\nAverage time* = 5\n"},
      {"two", {1, 4},
       "Hole time = 5\nCall count = 2\nMin time = 1\nMax time = 4\n"
       "Average time = 2.5\nAverage time* = 2.5\n"},
      {"three", {2, 6, 1},
       "Hole time = 9\nCall count = 3\nMin time = 1\nMax time = 6\n"
       "Average time = 3\nAverage time* = 2\n"},
      {"same", {7, 7, 7, 7},
       "Hole time = 28\nCall count = 4\nMin time = 7\nMax time = 7\n"
       "Average time = 7\nAverage time* = 7\n"},
      {"fraction", {0.1, 1.0 / 3},
       "Hole time = 0.433333\nCall count = 2\nMin time = 0.1\nMax time = 0.333333\n"
       "Average time = 0.216667\nAverage time* = 0.216667\n"},
  };
  PerformanceLogger* logger = PerformanceLogger::getInstance();
  for (const AverageCase& c : cases) {
    for (double t : c.times) logger->addTime(c.command, t);
  }
  unloadAndReload();
  const std::string text = report();
  for (const AverageCase& c : cases) EXPECT_EQ(c.expected, figures(text, c.command)) << c.command;
}

TEST_F(Report, KeyOrderNamesAndNullEntries) {
  PerformanceLogger* logger = PerformanceLogger::getInstance();
  logger->addTime("b", 1);
  logger->addTime("B", 1);  // 'B' sorts before 'a' by its byte
  logger->addTime("a", 1);
  logger->getRecord("key")->mCommandId = "printed";
  logger->addTime("key", 2);
  logger->mRecords["null"] = nullptr;
  unloadAndReload();
  const std::string text = report();
  const size_t upperB = text.find("CommandID = B\n");
  const size_t lowerA = text.find("CommandID = a\n");
  const size_t lowerB = text.find("CommandID = b\n");
  ASSERT_NE(std::string::npos, lowerB);
  EXPECT_LT(upperB, lowerA);
  EXPECT_LT(lowerA, lowerB);
  EXPECT_NE(std::string::npos, text.find("CommandID = printed\n"));
  EXPECT_EQ(std::string::npos, text.find("CommandID = key\n"));
  EXPECT_EQ(std::string::npos, text.find("null"));
  EXPECT_EQ(4u * 8u, static_cast<size_t>(std::count(text.begin(), text.end(), '\n')));
}

TEST_F(Report, ZeroCallsPrintWhatTheDivisionGives) {
  PerformanceLogger* logger = PerformanceLogger::getInstance();
  logger->getRecord("none");
  logger->getRecord("total")->mTotalTime = 3;  // a count of 0 with a total
  unloadAndReload();
  const std::string text = report();
  const std::string none = figures(text, "none");
  EXPECT_NE(std::string::npos, none.find("Average time = ")) << none;
  EXPECT_NE(std::string::npos, none.find("nan\nAverage time* = ")) << none;
  EXPECT_NE(std::string::npos, figures(text, "total").find("Average time = inf\nAverage time* = inf\n"));
}

TEST_F(Report, NoRecordsWriteNothingAndTheSingletonIsRenewed) {
  {
    std::ofstream old("performance.log");
    old << "old\n";
  }
  PerformanceLogger* logger = PerformanceLogger::getInstance();
  EXPECT_EQ(logger, PerformanceLogger::getInstance());
  EXPECT_EQ("performance.log", logger->mFileName);
  unloadAndReload();
  EXPECT_EQ(nullptr, PerformanceLogger::mInstance);
  EXPECT_EQ("old\n", report());
  unloadAndReload();  // a second unload finds nothing either
  EXPECT_EQ("old\n", report());
  EXPECT_TRUE(PerformanceLogger::getInstance()->mRecords.empty());
}

TEST_F(Report, AReportThatCannotBeOpenedStopsNothing) {
  ASSERT_EQ(0, mkdir("performance.log", 0700));  // a folder where the file goes
  PerformanceLogger::getInstance()->addTime("lost", 1);
  unloadAndReload();
  EXPECT_EQ(nullptr, PerformanceLogger::mInstance);  // freed all the same
  struct stat info;
  ASSERT_EQ(0, stat("performance.log", &info));
  EXPECT_TRUE(S_ISDIR(info.st_mode));
}

TEST_F(Report, ScopedMeasurementsFromManyThreads) {
  PerformanceLogger::getInstance();  // the first call must not overlap another
  const int threads = 8;
  const int calls = 500;
  std::promise<void> gate;
  std::shared_future<void> start = gate.get_future().share();
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i) {
    workers.emplace_back([start, i] {
      start.wait();
      for (int n = 0; n < calls; ++n) {
        performance::ScopedMeasurement measured(i % 2 == 0 ? "even" : "odd");
      }
    });
  }
  gate.set_value();
  for (std::thread& t : workers) t.join();
  PerformanceLogger* logger = PerformanceLogger::getInstance();
  for (const char* command : {"even", "odd"}) {
    const performance::stream_guard* record = logger->getRecord(command);
    EXPECT_EQ(uint32_t(threads / 2 * calls), record->mCallCount);
    EXPECT_GE(record->mMinTime, 0.0);
    EXPECT_LE(record->mMinTime, record->mMaxTime);
    EXPECT_LE(record->mMaxTime, record->mTotalTime);
    EXPECT_EQ(&logger->mStream, record->mOut);
  }
  unloadAndReload();
  EXPECT_NE(std::string::npos, report().find("Call count = 2000\n"));
}

}  // namespace
