// One zone's yearly rules applied between its wall clock and UTC.
#include "date/zone_rules.h"

#include <math.h>

#include "date/civil.h"
#include "date/serial_internal.h"

namespace zelkit3 {
namespace date {

using detail::dayNumber;
using detail::kSerialEpochDay;

namespace {

// Half a second in days: changes are matched with this tolerance.
constexpr double kHalfSecond = 5.787037037037037e-06;

double dayToSerial(int year, int month, int day) {
  return static_cast<double>(dayNumber(year, month, day) - kSerialEpochDay);
}

// Weekday of a day number (0000-01-01 is 0, a Saturday): the same as
// dayOfWeek of the date for every year from 0 on, with one calendar pass.
inline int weekdayOfDayNumber(int n) { return (n + 6) % 7; }

// Shift of a conversion: b / 1440.0 + Bias / 1440.0, kept in this order so
// that every caller rounds alike.
inline double shiftOf(const _TIME_ZONE_INFORMATION* tz, bool daylight) {
  const int b = daylight ? tz->DaylightBias : tz->StandardBias;
  return b / 1440.0 + tz->Bias / 1440.0;
}

}  // namespace

double TransitionToOleTime(const _SYSTEMTIME* rule, unsigned short year) {
  // Such a rule names no date; NaN makes every comparison with it false.
  if (rule->wMonth < 1 || rule->wMonth > 12) return NAN;
  const double hours = rule->wHour / 24.0;
  if (rule->wYear != 0) return dayToSerial(rule->wYear, rule->wMonth, rule->wDay) + hours;
  const int r = rule->wDayOfWeek;
  if (rule->wDay == 5) {
    // The last R of the month: step back from the first day of the next one.
    int nextYear = year, nextMonth = rule->wMonth + 1;
    if (nextMonth == 13) {
      nextMonth = 1;
      nextYear += 1;
    }
    const int n = dayNumber(nextYear, nextMonth, 1);
    const int f = n - kSerialEpochDay;
    const int w = weekdayOfDayNumber(n);
    const int day = r < w ? f - (w - r) : f + (r - w) - 7;
    return static_cast<double>(day) + hours;
  }
  const int n = dayNumber(year, rule->wMonth, 1);
  const int f = n - kSerialEpochDay;
  const int w = weekdayOfDayNumber(n);
  int day = f + (r - w);
  if (r < w) day += 7;
  if (rule->wDay != 0) day += 7 * (rule->wDay - 1);
  return static_cast<double>(day) + hours;
}

bool IsDaylightTime(const _TIME_ZONE_INFORMATION* tz, bool isUTC, double date) {
  // No decodable year, no rules: the conversion itself is refused then too.
  return detail::isDaylightInYear(tz, isUTC, date, detail::decodedYear(date));
}

bool detail::isDaylightInYear(const _TIME_ZONE_INFORMATION* tz, bool isUTC, double date,
                              unsigned short year) {
  if (tz->DaylightBias == 0 && tz->StandardBias == 0) return false;
  if (year == 0) return false;  // no year, no rules to evaluate
  const double begin = TransitionToOleTime(&tz->DaylightDate, year);
  const double end = TransitionToOleTime(&tz->StandardDate, year);
  double t = date, u = date;
  if (isUTC) {
    // Summed in double: a caller's biases can't overflow the addition, and
    // for sane values the sum is the same exact integer.
    t = date - (static_cast<double>(tz->Bias) + tz->StandardBias) / 1440.0;
    u = date - (static_cast<double>(tz->Bias) + tz->DaylightBias) / 1440.0;
  }
  const bool inside = begin > end ? (t >= begin || u < end) : (t >= begin && u < end);
  return (inside || fabs(t - begin) < kHalfSecond) && fabs(u - end) >= kHalfSecond;
}

double detail::shiftLeg(const _TIME_ZONE_INFORMATION* tz, double d, unsigned short year,
                        bool toUTC) {
  // The date's own clock decides the period: wall clock going to UTC, UTC
  // coming from it.
  const double shift = shiftOf(tz, isDaylightInYear(tz, !toUTC, d, year));
  return toUTC ? d + shift : d - shift;
}

namespace {

int convert(_TIME_ZONE_INFORMATION* tz, _SYSTEMTIME* in, _SYSTEMTIME* out, bool toUTC) {
  if (tz == nullptr || in == nullptr || out == nullptr) return 0;
  double d;
  if (!detail::encodeSerial(in, &d)) return 0;
  // The rules of the year that d decodes to, as IsDaylightTime takes them.
  return detail::decodeSerial(detail::shiftLeg(tz, d, detail::decodedYear(d), toUTC), out);
}

}  // namespace

int TzSpecificLocalTimeToUTCTime(_TIME_ZONE_INFORMATION* tz, _SYSTEMTIME* local, _SYSTEMTIME* utc) {
  return convert(tz, local, utc, true);
}

int UTCTimeToTzSpecificLocalTime(_TIME_ZONE_INFORMATION* tz, _SYSTEMTIME* utc, _SYSTEMTIME* local) {
  return convert(tz, utc, local, false);
}

}  // namespace date
}  // namespace zelkit3
