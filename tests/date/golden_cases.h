// The conversions recorded in data/golden.txt: both ABIs must reproduce
// every line bit for bit.
#ifndef ZELKIT3_TESTS_DATE_GOLDEN_CASES_H
#define ZELKIT3_TESTS_DATE_GOLDEN_CASES_H

#include <string>
#include <vector>

namespace zk3test {

// One line per operation and input: name, inputs, status and outputs, with
// doubles as the hex of their bits.
std::vector<std::string> goldenLines();

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_DATE_GOLDEN_CASES_H
