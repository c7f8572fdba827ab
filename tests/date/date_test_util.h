// Helpers shared by the date family's tests.
#ifndef ZELKIT3_TESTS_DATE_TEST_UTIL_H
#define ZELKIT3_TESTS_DATE_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "zelkit3/date.h"

namespace zk3test {

inline _SYSTEMTIME makeTime(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0,
                            int dow = 0) {
  _SYSTEMTIME t;
  t.wYear = static_cast<unsigned short>(y);
  t.wMonth = static_cast<unsigned short>(mo);
  t.wDayOfWeek = static_cast<unsigned short>(dow);
  t.wDay = static_cast<unsigned short>(d);
  t.wHour = static_cast<unsigned short>(h);
  t.wMinute = static_cast<unsigned short>(mi);
  t.wSecond = static_cast<unsigned short>(s);
  t.wMilliseconds = static_cast<unsigned short>(ms);
  return t;
}

// "YYYY-MM-DD hh:mm:ss.mmm" of a record, for one-line comparisons.
inline std::string show(const _SYSTEMTIME& t) {
  char text[48];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay,
                t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  return text;
}

// The serial of a record that must convert.
inline double serialOf(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
  _SYSTEMTIME t = makeTime(y, mo, d, h, mi, s, ms);
  double out = -1e300;
  EXPECT_EQ(1, zelkit3::date::WindowsTimeToOleTime(&t, &out)) << show(t);
  return out;
}

// The text of a serial that must decode.
inline std::string showSerial(double date) {
  _SYSTEMTIME t;
  if (!zelkit3::date::OleTimeToWindowsTime(date, &t)) return "refused";
  return show(t);
}

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_DATE_TEST_UTIL_H
