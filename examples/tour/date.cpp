// Dates and time zones: one meeting time read on three zones' clocks.
#include <cstdio>

#include "tour.h"
#include "zelkit3/date.h"

namespace {

using namespace zelkit3::date;

// The hour of a serial's time of day, or -1 if it is out of range.
int hourOf(double serial) {
  _SYSTEMTIME t;
  return OleTimeToWindowsTime(serial, &t) ? t.wHour : -1;
}

void print(const char* label, double serial) {
  _SYSTEMTIME t;
  if (!OleTimeToWindowsTime(serial, &t)) {
    std::printf("   %-22s (out of range)\n", label);
    return;
  }
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  std::printf("   %-22s %s %04u-%02u-%02u %02u:%02u\n", label, kDays[t.wDayOfWeek], t.wYear,
              t.wMonth, t.wDay, t.wHour, t.wMinute);
}

int date() {
  // 2010-07-01 09:00 in New York, by the rules of 2010 (daylight time).
  _SYSTEMTIME meeting = {2010, 7, 0, 1, 9, 0, 0, 0};
  double newYork = 0;
  if (!WindowsTimeToOleTime(&meeting, &newYork)) return 1;
  const double utc = DateConvertTz(newYork, eTimeZoneEST, eTimeZoneUTC);
  const double london = DateConvertTz(newYork, "EST", "Europe/London");
  const double sydney = DateConvertTz(newYork, "America/New_York", "Australia/Sydney");
  print("New York", newYork);
  print("UTC", utc);
  print("London", london);
  print("Sydney", sydney);
  // The same wall-clock time in January is standard time: one hour later in UTC.
  const double january = newYork - 181;  // 2010-01-01 09:00
  print("New York, January", january);
  print("UTC, January", DateConvertTz(january, eTimeZoneEST, eTimeZoneUTC));
  // An unknown zone moves nothing.
  const bool unmoved = DateConvertTz(newYork, "EST", "Nowhere/Zone") ==
                       DateConvertTz(newYork, "EST", "UTC");
  return (hourOf(utc) == 13 && hourOf(london) == 14 && hourOf(sydney) == 23 && unmoved) ? 0 : 1;
}

}  // namespace

TOUR_STOP("dates and time zones", date);
