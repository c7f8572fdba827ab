// Writes a case file with every result recomputed, for data/golden.txt from
// the x86_64 build:
//   build/dev/tests/date/date_golden_gen tests/date/data/golden.txt > new.txt
#include <fstream>
#include <iostream>
#include <string>

namespace zk3test {
std::string recompute(const std::string& line);  // date_cases.cpp
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::ifstream in(argv[1]);
  for (std::string line; std::getline(in, line);) std::cout << zk3test::recompute(line) << '\n';
  return in.eof() ? 0 : 1;
}
