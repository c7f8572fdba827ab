// zelkit3/date.h - dates as OLE serial numbers, Win32 time records and
// conversion between time zones.
//
// A moment has three shapes here: the OLE serial date (a double counting
// days from 1899-12-30, its fraction the time of day, with the same sign as
// the whole part), the Win32 record _SYSTEMTIME and the POSIX record tm.
// Zone conversion applies the rules of the date's own year, read from the
// system's TZif files by the helpers of zelkit3/timezone.h.
//
// Failure is told by a status of 1 (success) or 0 (failure); on failure the
// output is left untouched. Nothing throws, logs or sets errno. NaN and the
// infinities are refused like any other out-of-range serial.
//
// Thread-safety: every function may run on any thread. The conversions keep
// no state and allocate nothing. DateConvertTz by enumerator only reads the
// two built-in helpers; DateConvertTz by name may create a helper for a name
// seen for the first time, which is serialised internally.
// Lifetime: the zone functions need the library loaded (the load hook sets
// the time-zone factory up); the pure conversions need nothing.
#ifndef ZELKIT3_DATE_H
#define ZELKIT3_DATE_H

#include <time.h>

#include "zelkit3/export.h"

// Win32 records, in the global namespace under their published names. The
// guards let another header of this library (or a caller's own Win32 shim
// that uses the same guards) define them first.
#ifndef ZK3_SYSTEMTIME_DEFINED
#define ZK3_SYSTEMTIME_DEFINED
// A calendar moment; all fields unsigned 16-bit. wDayOfWeek: 0 is Sunday.
struct _SYSTEMTIME {
  unsigned short wYear;
  unsigned short wMonth;
  unsigned short wDayOfWeek;
  unsigned short wDay;
  unsigned short wHour;
  unsigned short wMinute;
  unsigned short wSecond;
  unsigned short wMilliseconds;
};
#endif

#ifndef ZK3_TIME_ZONE_INFORMATION_DEFINED
#define ZK3_TIME_ZONE_INFORMATION_DEFINED
// One zone's rules for one year. UTC = local + Bias + the period's bias, all
// in minutes. StandardDate (on the daylight clock) and DaylightDate (on the
// standard clock) are rules: wYear 0 means "wDay-th wDayOfWeek of wMonth"
// (5 = last), any other wYear an absolute date. The names are never used.
struct _TIME_ZONE_INFORMATION {
  int Bias;
  wchar_t StandardName[32];
  _SYSTEMTIME StandardDate;
  int StandardBias;
  wchar_t DaylightName[32];
  _SYSTEMTIME DaylightDate;
  int DaylightBias;
};
#endif

namespace zelkit3 {
namespace date {

// The built-in zones of the enumerator overload of DateConvertTz.
enum eTimeZone {
  eTimeZoneLocal = 0,  // the machine's zone, from "/etc/localtime"
  eTimeZoneEST = 1,    // US Eastern time with daylight time ("America/New_York")
  eTimeZoneUTC = 2
};

// Serial to record. Accepts -657434.0 (0100-01-01) to 2958465.0 (9999-12-31
// 00:00) inclusive; anything else, NaN included, returns 0 and leaves *out
// alone. Milliseconds are truncated after a bias of 1e-9 day.
ZK3_API int OleTimeToWindowsTime(double date, _SYSTEMTIME* out);

// Record to serial. Refuses (0, *out untouched) wYear > 9999, a month outside
// 1..12, a day outside the month, wHour > 23, wMinute > 59, wSecond > 59.
// wDayOfWeek is not read; wMilliseconds is not limited.
ZK3_API int WindowsTimeToOleTime(_SYSTEMTIME* time, double* out);

// Field-by-field copy (tm_year + 1900, tm_mon + 1, ...), cut to 16 bits and
// with wMilliseconds 0. Tests nothing.
ZK3_API void CTimeToWindowsTime(const tm* time, _SYSTEMTIME* out);

// Field-by-field copy back, with tm_yday computed and tm_isdst 0. Tests
// nothing; for a wMonth outside 1..12 tm_yday is -1.
ZK3_API void WindowsTimeToCTime(const _SYSTEMTIME* time, tm* out);

// tm to serial through _SYSTEMTIME; a tm is not normalised, so a field out
// of range (tm_sec 60, tm_mday 32) is refused with 0.
ZK3_API int CTimeToOleTime(tm* time, double* out);

// Serial to tm through _SYSTEMTIME; 0 and *out untouched on a refused serial.
ZK3_API int OleTimeToCTime(double date, tm* out);

// The current local wall clock, to the second (wMilliseconds is 0).
ZK3_API void GetLocalWindowsTime(_SYSTEMTIME* out);
// The current UTC time, to the second (wMilliseconds is 0).
ZK3_API void GetSystemWindowsTime(_SYSTEMTIME* out);
// The current local wall clock as a serial, a whole number of seconds.
ZK3_API double DateNow();
// One second in days: 1.1574074074074073e-05.
ZK3_API double OneSecond();

// Wall-clock time under tz to UTC, by the rules of the local date's year. The
// half second before each change already counts as after it; a skipped or
// repeated wall-clock hour counts as daylight time. Returns 0 (utc untouched)
// for a null pointer, a refused record or a result outside the serial range.
ZK3_API int TzSpecificLocalTimeToUTCTime(_TIME_ZONE_INFORMATION* tz, _SYSTEMTIME* local,
                                         _SYSTEMTIME* utc);
// UTC to wall-clock time under tz, by the rules of the UTC date's year. Same
// failure rules as TzSpecificLocalTimeToUTCTime.
ZK3_API int UTCTimeToTzSpecificLocalTime(_TIME_ZONE_INFORMATION* tz, _SYSTEMTIME* utc,
                                         _SYSTEMTIME* local);

// Moves a serial from one built-in zone's wall clock to another's, through
// UTC, truncating to the millisecond on each leg. Equal zones give date bit
// for bit. A date or zone that can't be converted gives date back.
ZK3_API double DateConvertTz(double date, eTimeZone from, eTimeZone to);
// The same by zone name ("Local", "EST", "UTC", "UTC+3", or a name under
// "/usr/share/zoneinfo/"); null means "Local". An unknown name moves nothing.
// The first use of a name reads its file (once per name, under a lock).
ZK3_API double DateConvertTz(double date, const char* from, const char* to);

}  // namespace date
}  // namespace zelkit3

#endif  // ZELKIT3_DATE_H
