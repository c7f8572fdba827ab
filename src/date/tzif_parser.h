// TZif bytes in, yearly rule records out. Internal: never installed.
//
// The parser reads nothing but its buffer, so tests and the fuzzer feed it
// bytes directly; tz_file.cpp is the thin layer that reads the file.
#ifndef ZELKIT3_SRC_DATE_TZIF_PARSER_H
#define ZELKIT3_SRC_DATE_TZIF_PARSER_H

#include <stddef.h>
#include <time.h>

#include <map>

#include "zelkit3/date.h"

namespace zelkit3 {
namespace date {
namespace detail {

using TziMap = std::map<unsigned int, _TIME_ZONE_INFORMATION*>;

// Turns the first (32-bit) data block of a TZif image into one record per
// year, adding to tzi (a record of a year already there is freed and
// replaced). A buffer that does not begin with "TZif" is read with the counts
// four bytes nearer the start. Returns true when the image is too short for
// its counts or names a type that does not exist; tzi is then unchanged.
// Returns false when the image was read, even if it gave no record (typecnt
// or timecnt 0). Never reads outside [data, data + size). The new records are
// allocated with new and owned by tzi; std::bad_alloc passes out, with the
// records made so far already in tzi.
bool parseTzif(const unsigned char* data, size_t size, TziMap& tzi);

// Writes the rule of a change from its wall-clock moment and the same change
// one year on (next, may be null): a weekday rule if both fall on the same
// weekday, else the absolute date of transition. wSecond, wMilliseconds and,
// for the absolute form, wDayOfWeek are not written.
void fillTransitionDate(_SYSTEMTIME* out, const tm* transition, const tm* next);

}  // namespace detail
}  // namespace date
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_DATE_TZIF_PARSER_H
