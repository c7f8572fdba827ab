// The rule logic behind the zone conversions. Internal: never installed.
#ifndef ZELKIT3_SRC_DATE_ZONE_RULES_H
#define ZELKIT3_SRC_DATE_ZONE_RULES_H

#include "zelkit3/date.h"

namespace zelkit3 {
namespace date {

// Serial of the change that rule describes in year (absolute rules ignore
// year). Only wYear, wMonth, wDayOfWeek, wDay and wHour are read. A rule
// whose month is outside 1..12 names no date and gives NaN.
double TransitionToOleTime(const _SYSTEMTIME* rule, unsigned short year);

// Whether date (UTC if isUTC, else wall clock under tz) lies in tz's daylight
// period of the date's own year, with half a second of tolerance before each
// change. False when both biases are 0, for a date that has no decodable year
// and for a rule that names no date.
bool IsDaylightTime(const _TIME_ZONE_INFORMATION* tz, bool isUTC, double date);

namespace detail {

// IsDaylightTime for a date whose decoded year the caller already has.
bool isDaylightInYear(const _TIME_ZONE_INFORMATION* tz, bool isUTC, double date,
                      unsigned short year);

// One leg of a zone conversion on a serial: what converting the decoded
// record with tz and encoding the result gives, bit for bit. d is a serial
// already truncated to the millisecond (truncateSerialWithYear) and year its
// decoded year. Returns 0 (out untouched) where the record conversion fails.
int convertSerial(const _TIME_ZONE_INFORMATION* tz, double d, unsigned short year, bool toUTC,
                  double* out);

}  // namespace detail

}  // namespace date
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_DATE_ZONE_RULES_H
