// The tour of libzelkit3: each family shows itself at work, in name order.
#include <cstdio>

#include "tour.h"

int main() {
  int failures = 0;
  for (const auto& stop : tour::stops()) {
    std::printf("== %s\n", stop.first.c_str());
    if (stop.second() != 0) {
      std::printf("   !! %s did not go as expected\n", stop.first.c_str());
      ++failures;
    }
  }
  std::printf("%d stop(s), %d failure(s)\n", static_cast<int>(tour::stops().size()), failures);
  return failures == 0 ? 0 : 1;
}
