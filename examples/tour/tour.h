// A stop of the tour registers itself: TOUR_STOP("events", fn) in its file.
#ifndef ZELKIT3_EXAMPLES_TOUR_H
#define ZELKIT3_EXAMPLES_TOUR_H

#include <map>
#include <string>

namespace tour {

using Stop = int (*)();

inline std::map<std::string, Stop>& stops() {
  static std::map<std::string, Stop> all;
  return all;
}

struct Register {
  Register(const char* name, Stop stop) { stops()[name] = stop; }
};

}  // namespace tour

#define TOUR_STOP(name, fn) static tour::Register tourRegister_##fn(name, fn)

#endif  // ZELKIT3_EXAMPLES_TOUR_H
