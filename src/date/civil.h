// Calendar arithmetic shared by the date conversions and the zone loader.
// Internal: never installed. Proleptic Gregorian calendar throughout.
#ifndef ZELKIT3_SRC_DATE_CIVIL_H
#define ZELKIT3_SRC_DATE_CIVIL_H

#include <stdint.h>

namespace zelkit3 {
namespace date {
namespace detail {

// Days before each month of a common year; entry m is the number of days in
// the first m months.
extern const int kDaysBeforeMonth[13];
// Lengths of the months of a common year, January first.
extern const int kMonthLength[12];

// Day number that counts 0000-01-01 as 0 is 693959 on 1899-12-30 (serial 0).
constexpr int kSerialEpochDay = 693959;

inline bool isLeapYear(int year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

// Days from 0000-01-01 (day 0) to year-month-day, month 1..12. The day is
// not limited, so a day past the month's end runs into the next month.
inline int dayNumber(int year, int month, int day) {
  int n = 365 * year + year / 4 - year / 100 + year / 400 + kDaysBeforeMonth[month - 1] + day;
  if (month <= 2 && isLeapYear(year)) n -= 1;
  return n;
}

// Day of the week of a date, 0 for Sunday: the Julian Day Number plus one.
inline int dayOfWeek(int year, int month, int day) {
  const int a = (14 - month) / 12;
  const int y = year + 4800 - a;
  const int m = month + 12 * a - 3;
  const int j = day + (153 * m + 2) / 5 + 365 * y + y / 4 - y / 100 + y / 400 - 32044;
  return j % 7;
}

// A broken-down UTC time from seconds since 1970-01-01 00:00:00, like
// gmtime_r but for any 64-bit input and with no dependence on the width of
// time_t (32 bits on i386), so both ABIs agree.
struct CivilTime {
  int year;   // full year
  int month;  // 0..11, as tm_mon
  int mday;   // 1..31
  int hour;
  int minute;
  int second;
  int wday;  // 0 is Sunday
};
CivilTime civilFromUnixSeconds(int64_t seconds);

}  // namespace detail
}  // namespace date
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_DATE_CIVIL_H
