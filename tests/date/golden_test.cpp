// Both ABIs reproduce the conversions recorded by the x86_64 build.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "golden_cases.h"

namespace {

TEST(Golden, EveryConversionMatchesBitForBit) {
  std::ifstream file(ZK3_SOURCE_DIR "/tests/date/data/golden.txt");
  ASSERT_TRUE(file.good());
  std::vector<std::string> expected;
  for (std::string line; std::getline(file, line);) expected.push_back(line);
  const std::vector<std::string> actual = zk3test::goldenLines();
  ASSERT_EQ(expected.size(), actual.size());
  int mismatches = 0;
  for (size_t i = 0; i < actual.size(); ++i) {
    if (expected[i] != actual[i] && ++mismatches <= 10) {
      ADD_FAILURE() << "line " << i + 1 << " (" ZK3_ARCH ")\n  expected " << expected[i]
                    << "\n  actual   " << actual[i];
    }
  }
  EXPECT_EQ(0, mismatches);
}

}  // namespace
