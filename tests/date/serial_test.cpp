// The three shapes of a moment and the conversions between them.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "date_test_util.h"
#include "zelkit3/date.h"

namespace {

using namespace zelkit3::date;
using zk3test::makeTime;
using zk3test::show;

struct DecodeCase {
  double serial;
  const char* text;
  int dayOfWeek;
};

TEST(SerialDecode, EdgeValuesAndDaysOfTheWeek) {
  const DecodeCase cases[] = {
      {0.0, "1899-12-30 00:00:00.000", 6},
      {1.0, "1899-12-31 00:00:00.000", 0},
      {2.0, "1900-01-01 00:00:00.000", 1},
      {60.0, "1900-02-28 00:00:00.000", 3},
      {61.0, "1900-03-01 00:00:00.000", 4},
      {36526.5, "2000-01-01 12:00:00.000", 6},
      {36585.0, "2000-02-29 00:00:00.000", 2},
      {36891.0, "2000-12-31 00:00:00.000", 0},
      {2958465.0, "9999-12-31 00:00:00.000", 5},
      {-657434.0, "0100-01-01 00:00:00.000", 5},
      {-1.0, "1899-12-29 00:00:00.000", 5},
      {-1.25, "1899-12-29 06:00:00.000", 5},
      {-1.75, "1899-12-29 18:00:00.000", 5},
      {-0.25, "1899-12-30 06:00:00.000", 6},
      {0.999999999, "1899-12-31 00:00:00.000", 0},
      {0.9999, "1899-12-30 23:59:51.360", 6},
      {1.0416666666666667e-08, "1899-12-30 00:00:00.000", 6},
      {1.099537037037037e-08, "1899-12-30 00:00:00.001", 6},
      {40251.0, "2010-03-14 00:00:00.000", 0},
      {-36522.0, "1800-01-01 00:00:00.000", 3},
  };
  for (const DecodeCase& c : cases) {
    _SYSTEMTIME t;
    std::memset(&t, 0xAB, sizeof t);
    ASSERT_EQ(1, OleTimeToWindowsTime(c.serial, &t)) << c.serial;
    EXPECT_EQ(c.text, show(t)) << c.serial;
    EXPECT_EQ(c.dayOfWeek, t.wDayOfWeek) << c.serial;
  }
}

TEST(SerialDecode, DaysOfTheWeekFollowEachOtherAcrossTheRange) {
  // Every 97th day over the whole range: the weekday advances by 97 % 7.
  _SYSTEMTIME previous;
  ASSERT_EQ(1, OleTimeToWindowsTime(-657434.0, &previous));
  for (double d = -657434.0 + 97; d <= 2958465.0; d += 97) {
    _SYSTEMTIME t;
    ASSERT_EQ(1, OleTimeToWindowsTime(d, &t));
    ASSERT_EQ((previous.wDayOfWeek + 97) % 7, t.wDayOfWeek) << d;
    previous = t;
  }
}

TEST(SerialDecode, RefusedValuesLeaveTheOutputAlone) {
  const double refused[] = {2958465.5,
                            -657434.5,
                            2958466.0,
                            -1e9,
                            std::numeric_limits<double>::quiet_NaN(),
                            -std::numeric_limits<double>::quiet_NaN(),
                            std::numeric_limits<double>::infinity(),
                            -std::numeric_limits<double>::infinity()};
  for (double d : refused) {
    _SYSTEMTIME t = makeTime(1234, 5, 6, 7, 8, 9, 10, 3);
    EXPECT_EQ(0, OleTimeToWindowsTime(d, &t)) << d;
    EXPECT_EQ("1234-05-06 07:08:09.010", show(t));
    tm c;
    std::memset(&c, 0x5A, sizeof c);
    tm before = c;
    EXPECT_EQ(0, OleTimeToCTime(d, &c));
    EXPECT_EQ(0, std::memcmp(&before, &c, sizeof c));
  }
}

TEST(SerialDecode, FractionRoundingToAWholeDayStaysOnItsDay) {
  // x + 1e-9 lands on the largest double below the next whole day: its time
  // of day is the day's last millisecond, never hour 24.
  const double x = std::nextafter(1.0, 0.0) - 1e-9;
  _SYSTEMTIME t;
  ASSERT_EQ(1, OleTimeToWindowsTime(x, &t));
  EXPECT_EQ("1899-12-30 23:59:59.999", show(t));
  ASSERT_EQ(1, OleTimeToWindowsTime(-x, &t));
  EXPECT_EQ("1899-12-30 23:59:59.999", show(t));
}

struct EncodeCase {
  _SYSTEMTIME time;
  int status;
  double serial;
};

TEST(SerialEncode, ValuesAndRefusals) {
  const EncodeCase cases[] = {
      {makeTime(1899, 12, 30), 1, 0.0},
      {makeTime(1899, 12, 30, 6), 1, 0.25},
      {makeTime(1899, 12, 29), 1, -1.0},
      {makeTime(1899, 12, 29, 6), 1, -1.25},
      {makeTime(2000, 1, 1, 12), 1, 36526.5},
      {makeTime(2000, 2, 29), 1, 36585.0},
      {makeTime(0, 1, 1), 1, -693959.0},
      {makeTime(9999, 12, 31, 23, 59, 59, 999), 1, 2958465.9999999884},
      {makeTime(2010, 3, 14, 0, 0, 0, 1500), 1, 40251.0 + 1.5 / 86400.0},
      {makeTime(1900, 2, 29), 0, 0},
      {makeTime(2001, 2, 29), 0, 0},
      {makeTime(2001, 4, 31), 0, 0},
      {makeTime(2001, 1, 0), 0, 0},
      {makeTime(2001, 0, 1), 0, 0},
      {makeTime(2001, 13, 1), 0, 0},
      {makeTime(2001, 1, 1, 24), 0, 0},
      {makeTime(2001, 1, 1, 0, 60), 0, 0},
      {makeTime(2001, 1, 1, 0, 0, 60), 0, 0},
      {makeTime(10000, 1, 1), 0, 0},
  };
  for (const EncodeCase& c : cases) {
    _SYSTEMTIME in = c.time;
    double out = 4242.0;
    ASSERT_EQ(c.status, WindowsTimeToOleTime(&in, &out)) << show(c.time);
    EXPECT_EQ(c.status ? c.serial : 4242.0, out) << show(c.time);
  }
}

TEST(SerialEncode, RecordsRoundTripToTheMillisecond) {
  // A spread of records over the decodable range, milliseconds included.
  for (int year = 100; year <= 9999; year += 37) {
    for (int month = 1; month <= 12; month += 5) {
      const _SYSTEMTIME in = makeTime(year, month, 1 + (year % 28), year % 24, year % 60,
                                      (year * 7) % 60, (year * 13) % 1000);
      _SYSTEMTIME copy = in;
      double serial;
      ASSERT_EQ(1, WindowsTimeToOleTime(&copy, &serial));
      _SYSTEMTIME back;
      ASSERT_EQ(1, OleTimeToWindowsTime(serial, &back));
      EXPECT_EQ(show(in), show(back));
    }
  }
}

TEST(SerialEncode, NegativeSerialsCountTheTimeAwayFromZero) {
  _SYSTEMTIME t;
  ASSERT_EQ(1, OleTimeToWindowsTime(-1.25, &t));
  double back;
  ASSERT_EQ(1, WindowsTimeToOleTime(&t, &back));
  EXPECT_EQ(-1.25, back);
  // -1.75 is later in the day than -1.25.
  ASSERT_EQ(1, OleTimeToWindowsTime(-1.75, &t));
  EXPECT_EQ(18, t.wHour);
}

TEST(CTime, CopiesBothWays) {
  tm c;
  std::memset(&c, 0, sizeof c);
  c.tm_year = 110;
  c.tm_mon = 2;
  c.tm_mday = 14;
  c.tm_hour = 2;
  c.tm_min = 30;
  c.tm_sec = 5;
  c.tm_wday = 0;
  c.tm_yday = 999;  // not read
  c.tm_isdst = 1;   // not read
  _SYSTEMTIME t = makeTime(1, 1, 1, 1, 1, 1, 777, 5);
  CTimeToWindowsTime(&c, &t);
  EXPECT_EQ("2010-03-14 02:30:05.000", show(t));
  EXPECT_EQ(0, t.wDayOfWeek);

  tm back;
  std::memset(&back, 0x11, sizeof back);
  WindowsTimeToCTime(&t, &back);
  EXPECT_EQ(110, back.tm_year);
  EXPECT_EQ(2, back.tm_mon);
  EXPECT_EQ(14, back.tm_mday);
  EXPECT_EQ(72, back.tm_yday);
  EXPECT_EQ(0, back.tm_isdst);

  const struct {
    _SYSTEMTIME time;
    int yday;
  } ydays[] = {{makeTime(2001, 1, 1), 0},       {makeTime(2000, 12, 31), 365},
               {makeTime(2001, 12, 31), 364},   {makeTime(2000, 2, 29), 59},
               {makeTime(2000, 3, 1), 60},      {makeTime(2001, 3, 1), 59},
               {makeTime(2001, 13, 1), -1},     {makeTime(2001, 0, 1), -1}};
  for (const auto& y : ydays) {
    WindowsTimeToCTime(&y.time, &back);
    EXPECT_EQ(y.yday, back.tm_yday) << show(y.time);
  }
}

TEST(CTime, NotNormalisedFieldsAreRefused) {
  tm c;
  std::memset(&c, 0, sizeof c);
  c.tm_year = 100;
  c.tm_mday = 32;
  double out = 7.0;
  EXPECT_EQ(0, CTimeToOleTime(&c, &out));
  c.tm_mday = 1;
  c.tm_sec = 60;
  EXPECT_EQ(0, CTimeToOleTime(&c, &out));
  EXPECT_EQ(7.0, out);
  c.tm_sec = 0;
  c.tm_hour = 12;
  EXPECT_EQ(1, CTimeToOleTime(&c, &out));
  EXPECT_EQ(36526.5, out);

  tm back;
  ASSERT_EQ(1, OleTimeToCTime(36526.5, &back));
  EXPECT_EQ(100, back.tm_year);
  EXPECT_EQ(0, back.tm_mon);
  EXPECT_EQ(1, back.tm_mday);
  EXPECT_EQ(12, back.tm_hour);
  EXPECT_EQ(6, back.tm_wday);
}

TEST(Clock, ReadsTheClockToTheSecond) {
  const time_t before = time(nullptr);
  _SYSTEMTIME utc;
  GetSystemWindowsTime(&utc);
  const time_t after = time(nullptr);
  EXPECT_EQ(0, utc.wMilliseconds);
  double serial;
  ASSERT_EQ(1, WindowsTimeToOleTime(&utc, &serial));
  // Seconds since 1970 from the serial: 25569 is 1970-01-01.
  const double seconds = std::round((serial - 25569.0) * 86400.0);
  EXPECT_GE(seconds, static_cast<double>(before));
  EXPECT_LE(seconds, static_cast<double>(after));

  _SYSTEMTIME local;
  GetLocalWindowsTime(&local);
  EXPECT_EQ(0, local.wMilliseconds);
  const double now = DateNow();
  _SYSTEMTIME decoded;
  ASSERT_EQ(1, OleTimeToWindowsTime(now, &decoded));
  EXPECT_EQ(0, decoded.wMilliseconds);  // a whole number of seconds
  EXPECT_GT(now, 40000.0);
  EXPECT_EQ(1.1574074074074073e-05, OneSecond());
}

}  // namespace
