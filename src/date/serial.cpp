// Conversions between the serial date, _SYSTEMTIME and tm, and the clocks.
#include <math.h>
#include <time.h>

#include "date/civil.h"
#include "date/serial_internal.h"
#include "zelkit3/date.h"

namespace zelkit3 {
namespace date {

using detail::kDaysBeforeMonth;

namespace detail {

namespace {

// The whole days (toward zero) and the milliseconds of the day of a serial
// in range. A bias of 1e-9 day stands in for rounding: it is larger than the
// spacing of doubles anywhere in the range, so records round-trip exactly.
inline void splitSerial(double date, int* days, int* ms) {
  const double x = date >= 0 ? date + 1e-9 : date - 1e-9;
  *days = static_cast<int>(x);  // truncates toward 0
  const double magnitude = fabs(x);
  *ms = static_cast<int>((magnitude - floor(magnitude)) * 86400000.0);
  // The largest fraction below 1 still rounds below a whole day here; the
  // guard keeps hour 24 impossible should the arithmetic ever change.
  if (*ms > 86399999) *ms = 86399999;
}

// The serial of a day and a time of day, as encodeSerial forms it.
inline double joinSerial(int days, int ms) {
  // Whole seconds, then milliseconds: the same steps give the same bits.
  // NOLINTNEXTLINE(bugprone-integer-division)
  const double f = (ms / 1000) / 86400.0 + (ms % 1000) / 86400000.0;
  return days >= 0 ? days + f : days - f;
}

// Year, 0-based day of the year and whether the year is a leap year, of a
// day number that counts 0000-01-01 as 0: 400-year blocks, centuries, then
// 4-year groups.
inline int splitDayNumber(int n, int* dayOfYear, bool* leapYear) {
  const int q400 = n / 146097;
  const int d = n % 146097;
  const int q100 = (d - 1) / 36524;
  int q4, e;
  bool groupHasLeap;
  if (q100 == 0) {
    q4 = d / 1461;
    e = d % 1461;
    groupHasLeap = true;
  } else {
    const int r = (d - 1) % 36524;
    q4 = (r + 1) / 1461;
    if (q4 != 0) {
      e = (r + 1) % 1461;
      groupHasLeap = true;
    } else {
      e = r;
      groupHasLeap = false;
    }
  }
  int q1;
  if (groupHasLeap) {
    q1 = (e - 1) / 365;
    if (q1 != 0) e = (e - 1) % 365;
  } else {
    q1 = e / 365;
    e = e % 365;
  }
  *dayOfYear = e;
  *leapYear = groupHasLeap && q1 == 0;
  return 400 * q400 + 100 * q100 + 4 * q4 + q1;
}

}  // namespace

int truncateSerial(double date, double* out) {
  if (!(date <= kMaxSerial && date >= kMinSerial)) return 0;
  int days, ms;
  splitSerial(date, &days, &ms);
  *out = joinSerial(days, ms);
  return 1;
}

int truncateSerialWithYear(double date, double* out, unsigned short* year) {
  if (!(date <= kMaxSerial && date >= kMinSerial)) return 0;
  int days, ms, dayOfYear;
  bool leapYear;
  splitSerial(date, &days, &ms);
  *year =
      static_cast<unsigned short>(splitDayNumber(days + kSerialEpochDay, &dayOfYear, &leapYear));
  *out = joinSerial(days, ms);
  return 1;
}

unsigned short decodedYear(double date) {
  if (!(date <= kMaxSerial && date >= kMinSerial)) return 0;
  int days, ms, dayOfYear;
  bool leapYear;
  splitSerial(date, &days, &ms);
  return static_cast<unsigned short>(splitDayNumber(days + kSerialEpochDay, &dayOfYear, &leapYear));
}

int decodeSerial(double date, _SYSTEMTIME* out) {
  // Written so that NaN fails the test: it compares false with everything.
  if (!(date <= kMaxSerial && date >= kMinSerial)) return 0;
  int days, ms;
  splitSerial(date, &days, &ms);
  const int n = days + kSerialEpochDay;

  int e;
  bool leapYear;
  const int year = splitDayNumber(n, &e, &leapYear);

  int month, day;
  if (leapYear && e == 59) {
    month = 2;
    day = 29;
  } else {
    if (leapYear && e > 59) e -= 1;
    const int dd = e + 1;
    month = (dd >> 5) + 1;  // a month number is never below dd / 32
    while (dd > kDaysBeforeMonth[month]) ++month;
    day = dd - kDaysBeforeMonth[month - 1];
  }

  const int s = ms / 1000;
  out->wYear = static_cast<unsigned short>(year);
  out->wMonth = static_cast<unsigned short>(month);
  out->wDay = static_cast<unsigned short>(day);
  out->wMilliseconds = static_cast<unsigned short>(ms % 1000);
  out->wSecond = static_cast<unsigned short>(s % 60);
  out->wMinute = static_cast<unsigned short>(s / 60 % 60);
  out->wHour = static_cast<unsigned short>(s / 3600);
  out->wDayOfWeek = static_cast<unsigned short>(dayOfWeek(year, month, day));
  return 1;
}

int encodeSerial(const _SYSTEMTIME* t, double* out) {
  if (t->wYear > 9999 || t->wMonth < 1 || t->wMonth > 12 || t->wDay == 0) return 0;
  const int year = t->wYear;
  int length = detail::kMonthLength[t->wMonth - 1];
  if (t->wMonth == 2 && isLeapYear(year)) length = 29;
  if (t->wDay > length || t->wHour > 23 || t->wMinute > 59 || t->wSecond > 59) return 0;
  const int days = dayNumber(year, t->wMonth, t->wDay) - kSerialEpochDay;
  const double f =
      (3600 * t->wHour + 60 * t->wMinute + t->wSecond) / 86400.0 + t->wMilliseconds / 86400000.0;
  *out = days >= 0 ? days + f : days - f;
  return 1;
}

}  // namespace detail

int OleTimeToWindowsTime(double date, _SYSTEMTIME* out) { return detail::decodeSerial(date, out); }

int WindowsTimeToOleTime(_SYSTEMTIME* time, double* out) { return detail::encodeSerial(time, out); }

void CTimeToWindowsTime(const tm* time, _SYSTEMTIME* out) {
  out->wYear = static_cast<unsigned short>(time->tm_year + 1900);
  out->wMonth = static_cast<unsigned short>(time->tm_mon + 1);
  out->wDayOfWeek = static_cast<unsigned short>(time->tm_wday);
  out->wDay = static_cast<unsigned short>(time->tm_mday);
  out->wHour = static_cast<unsigned short>(time->tm_hour);
  out->wMinute = static_cast<unsigned short>(time->tm_min);
  out->wSecond = static_cast<unsigned short>(time->tm_sec);
  out->wMilliseconds = 0;
}

void WindowsTimeToCTime(const _SYSTEMTIME* time, tm* out) {
  out->tm_year = time->wYear - 1900;
  out->tm_mon = time->wMonth - 1;
  out->tm_wday = time->wDayOfWeek;
  out->tm_mday = time->wDay;
  out->tm_hour = time->wHour;
  out->tm_min = time->wMinute;
  out->tm_sec = time->wSecond;
  out->tm_isdst = 0;
  // A month outside 1..12 has no days before it; -1 says so instead of
  // reading outside the table.
  if (time->wMonth < 1 || time->wMonth > 12) {
    out->tm_yday = -1;
    return;
  }
  out->tm_yday = kDaysBeforeMonth[time->wMonth - 1] + time->wDay - 1 +
                 (time->wMonth > 2 && detail::isLeapYear(time->wYear) ? 1 : 0);
}

int CTimeToOleTime(tm* time, double* out) {
  _SYSTEMTIME st;
  CTimeToWindowsTime(time, &st);
  return WindowsTimeToOleTime(&st, out);
}

int OleTimeToCTime(double date, tm* out) {
  _SYSTEMTIME st;
  if (!OleTimeToWindowsTime(date, &st)) return 0;
  WindowsTimeToCTime(&st, out);
  return 1;
}

// The reentrant forms give the same fields without the shared result record.
void GetLocalWindowsTime(_SYSTEMTIME* out) {
  const time_t now = time(nullptr);
  tm local;
  localtime_r(&now, &local);
  CTimeToWindowsTime(&local, out);
}

void GetSystemWindowsTime(_SYSTEMTIME* out) {
  const time_t now = time(nullptr);
  tm utc;
  gmtime_r(&now, &utc);
  CTimeToWindowsTime(&utc, out);
}

double DateNow() {
  double result = 0.0;
  _SYSTEMTIME st;
  GetLocalWindowsTime(&st);
  WindowsTimeToOleTime(&st, &result);
  return result;
}

double OneSecond() { return 1.1574074074074073e-05; }

}  // namespace date
}  // namespace zelkit3
