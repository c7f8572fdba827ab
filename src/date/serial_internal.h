// The serial-date codec shared by the date family. Internal: never installed.
#ifndef ZELKIT3_SRC_DATE_SERIAL_INTERNAL_H
#define ZELKIT3_SRC_DATE_SERIAL_INTERNAL_H

#include "zelkit3/date.h"

namespace zelkit3 {
namespace date {
namespace detail {

// The decodable range: 0100-01-01 00:00 to 9999-12-31 00:00, both included.
constexpr double kMinSerial = -657434.0;
constexpr double kMaxSerial = 2958465.0;

// The bodies of OleTimeToWindowsTime and WindowsTimeToOleTime, callable
// without going through the exported (interposable) symbols.
int decodeSerial(double date, _SYSTEMTIME* out);
int encodeSerial(const _SYSTEMTIME* t, double* out);

// The serial that decoding date and encoding the record gives, without the
// calendar: the day stays the same and the time of day is truncated to the
// millisecond. Bit-identical to the two steps; 0 where decoding refuses.
int truncateSerial(double date, double* out);
// truncateSerial that also gives the decoded year.
int truncateSerialWithYear(double date, double* out, unsigned short* year);
// The wYear that decoding date gives, without the rest of the calendar; 0
// where decoding refuses date (a decoded year is never below 100).
unsigned short decodedYear(double date);

}  // namespace detail
}  // namespace date
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_DATE_SERIAL_INTERNAL_H
