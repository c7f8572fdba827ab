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

// IsDaylightTime for a date whose decoded year the caller already has; year
// 0 stands for a date that decoding refuses, which is in no daylight period.
bool isDaylightInYear(const _TIME_ZONE_INFORMATION* tz, bool isUTC, double date,
                      unsigned short year);

// The one conversion leg behind TzSpecificLocalTimeToUTCTime,
// UTCTimeToTzSpecificLocalTime and DateConvertTz: the serial d, on tz's wall
// clock if toUTC and in UTC otherwise, moved to the other clock by the biases
// of the period it lies in under the rules of year, its decoded year (0 if it
// has none). The result is neither range-checked nor truncated: the record
// conversions decode it, DateConvertTz truncates it to the millisecond, which
// gives the same serial as decoding and encoding again.
double shiftLeg(const _TIME_ZONE_INFORMATION* tz, double d, unsigned short year, bool toUTC);

}  // namespace detail

}  // namespace date
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_DATE_ZONE_RULES_H
