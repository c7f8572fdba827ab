// Writes the golden conversions to standard output. Run from the x86_64
// build: build/dev/tests/date_golden_gen > tests/date/data/golden.txt
#include <cstdio>

#include "golden_cases.h"

int main() {
  for (const std::string& line : zk3test::goldenLines()) std::printf("%s\n", line.c_str());
  return 0;
}
