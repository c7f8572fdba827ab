// One zone's yearly rules between its wall clock and UTC.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "date/zone_rules.h"
#include "date_test_util.h"

namespace {

using namespace zelkit3::date;
using zk3test::makeTime;
using zk3test::serialOf;
using zk3test::show;

_SYSTEMTIME relativeRule(int month, int weekday, int week, int hour) {
  return makeTime(0, month, week, hour, 0, 0, 0, weekday);
}

_TIME_ZONE_INFORMATION zone(int bias, int daylightBias, _SYSTEMTIME daylightDate,
                            _SYSTEMTIME standardDate) {
  _TIME_ZONE_INFORMATION tz;
  std::memset(&tz, 0, sizeof tz);
  tz.Bias = bias;
  tz.DaylightBias = daylightBias;
  tz.DaylightDate = daylightDate;
  tz.StandardDate = standardDate;
  return tz;
}

// US Eastern time as the 2007 rules have it.
_TIME_ZONE_INFORMATION newYork() {
  return zone(300, -60, relativeRule(3, 0, 2, 2), relativeRule(11, 0, 1, 2));
}

struct ConversionCase {
  _SYSTEMTIME in;
  bool daylight;
  const char* out;
};

TEST(ZoneRules, NewYork2010LocalToUtc) {
  const ConversionCase cases[] = {
      {makeTime(2010, 3, 14, 1, 59, 59), false, "2010-03-14 06:59:59.000"},
      {makeTime(2010, 3, 14, 1, 59, 59, 400), false, "2010-03-14 06:59:59.400"},
      {makeTime(2010, 3, 14, 1, 59, 59, 600), true, "2010-03-14 05:59:59.600"},
      {makeTime(2010, 3, 14, 2, 0, 0), true, "2010-03-14 06:00:00.000"},
      {makeTime(2010, 3, 14, 2, 30, 0), true, "2010-03-14 06:30:00.000"},
      {makeTime(2010, 11, 7, 1, 30, 0), true, "2010-11-07 05:30:00.000"},
      {makeTime(2010, 11, 7, 1, 59, 59, 400), true, "2010-11-07 05:59:59.400"},
      {makeTime(2010, 11, 7, 1, 59, 59, 600), false, "2010-11-07 06:59:59.600"},
      {makeTime(2010, 11, 7, 2, 0, 0), false, "2010-11-07 07:00:00.000"},
  };
  _TIME_ZONE_INFORMATION tz = newYork();
  for (const ConversionCase& c : cases) {
    _SYSTEMTIME in = c.in;
    double d;
    ASSERT_EQ(1, WindowsTimeToOleTime(&in, &d));
    EXPECT_EQ(c.daylight, IsDaylightTime(&tz, false, d)) << show(c.in);
    _SYSTEMTIME utc;
    ASSERT_EQ(1, TzSpecificLocalTimeToUTCTime(&tz, &in, &utc)) << show(c.in);
    EXPECT_EQ(c.out, show(utc)) << show(c.in);
  }
}

TEST(ZoneRules, NewYork2010UtcToLocal) {
  const ConversionCase cases[] = {
      {makeTime(2010, 3, 14, 6, 59, 59), false, "2010-03-14 01:59:59.000"},
      {makeTime(2010, 3, 14, 7, 0, 0), true, "2010-03-14 03:00:00.000"},
      {makeTime(2010, 11, 7, 5, 59, 59), true, "2010-11-07 01:59:59.000"},
      {makeTime(2010, 11, 7, 6, 0, 0), false, "2010-11-07 01:00:00.000"},
  };
  _TIME_ZONE_INFORMATION tz = newYork();
  for (const ConversionCase& c : cases) {
    _SYSTEMTIME in = c.in;
    double d;
    ASSERT_EQ(1, WindowsTimeToOleTime(&in, &d));
    EXPECT_EQ(c.daylight, IsDaylightTime(&tz, true, d)) << show(c.in);
    _SYSTEMTIME local;
    ASSERT_EQ(1, UTCTimeToTzSpecificLocalTime(&tz, &in, &local)) << show(c.in);
    EXPECT_EQ(c.out, show(local)) << show(c.in);
  }
}

TEST(ZoneRules, SouthernHemisphereYearStartsAndEndsInDaylightTime) {
  _TIME_ZONE_INFORMATION tz = zone(-600, -60, relativeRule(10, 0, 1, 2), relativeRule(4, 0, 1, 3));
  const ConversionCase cases[] = {
      {makeTime(2010, 1, 15, 12), true, "2010-01-15 01:00:00.000"},
      {makeTime(2010, 7, 1, 12), false, "2010-07-01 02:00:00.000"},
      {makeTime(2010, 12, 25, 12), true, "2010-12-25 01:00:00.000"},
  };
  for (const ConversionCase& c : cases) {
    _SYSTEMTIME in = c.in;
    _SYSTEMTIME utc;
    ASSERT_EQ(1, TzSpecificLocalTimeToUTCTime(&tz, &in, &utc));
    EXPECT_EQ(c.out, show(utc)) << show(c.in);
    _SYSTEMTIME back;
    ASSERT_EQ(1, UTCTimeToTzSpecificLocalTime(&tz, &utc, &back));
    EXPECT_EQ(show(c.in), show(back));
  }
}

struct RuleCase {
  _SYSTEMTIME rule;
  int year;
  const char* when;
};

TEST(ZoneRules, TransitionDates) {
  const RuleCase cases[] = {
      {relativeRule(3, 0, 2, 2), 2010, "2010-03-14 02:00:00.000"},
      {relativeRule(11, 0, 1, 2), 2010, "2010-11-07 02:00:00.000"},
      {relativeRule(3, 5, 5, 1), 2010, "2010-03-26 01:00:00.000"},   // last Friday
      {relativeRule(10, 0, 5, 3), 2010, "2010-10-31 03:00:00.000"},  // last Sunday
      {relativeRule(2, 3, 5, 0), 2012, "2012-02-29 00:00:00.000"},   // last Wednesday
      {relativeRule(12, 3, 5, 0), 2011, "2011-12-28 00:00:00.000"},  // over New Year
      {relativeRule(3, 0, 0, 2), 2010, "2010-03-07 02:00:00.000"},   // week 0 reads as 1
      {relativeRule(3, 0, 1, 2), 2010, "2010-03-07 02:00:00.000"},
      {relativeRule(8, 1, 4, 0), 2010, "2010-08-23 00:00:00.000"},   // fourth Monday
      {makeTime(2037, 3, 8, 2), 1999, "2037-03-08 02:00:00.000"},    // absolute
      {makeTime(2037, 3, 8, 2, 30), 2037, "2037-03-08 02:00:00.000"},  // minutes ignored
  };
  for (const RuleCase& c : cases) {
    EXPECT_EQ(c.when, zk3test::showSerial(TransitionToOleTime(&c.rule, c.year)))
        << show(c.rule) << " in " << c.year;
  }
}

TEST(ZoneRules, WeekdayRulesLandOnTheirWeekdayInEveryYear) {
  for (int year = 100; year <= 9998; year += 7) {
    for (int month = 1; month <= 12; ++month) {
      for (int weekday = 0; weekday < 7; weekday += 3) {
        for (int week : {1, 3, 5}) {
          const _SYSTEMTIME r = relativeRule(month, weekday, week, 0);
          _SYSTEMTIME t;
          ASSERT_EQ(1, OleTimeToWindowsTime(TransitionToOleTime(&r, static_cast<unsigned short>(year)), &t));
          ASSERT_EQ(weekday, t.wDayOfWeek) << year << "-" << month;
          ASSERT_EQ(month, t.wMonth) << year << "-" << month << " week " << week;
          if (week == 5) {
            const _SYSTEMTIME first = makeTime(year, month, 1);
            const _SYSTEMTIME next = makeTime(year, month + 1, 1);
            const int length = month == 12 ? 31 : static_cast<int>(TransitionToOleTime(&next, 0) -
                                                                   TransitionToOleTime(&first, 0));
            ASSERT_GT(t.wDay + 7, length) << year << "-" << month;
          } else {
            ASSERT_EQ((week - 1) * 7 + 1, (t.wDay - 1) / 7 * 7 + 1) << year << "-" << month;
          }
        }
      }
    }
  }
}

TEST(ZoneRules, AbsoluteRulesDoNotRecur) {
  // A record with 2037's dates: a later year lies after both changes.
  _TIME_ZONE_INFORMATION tz =
      zone(300, -60, makeTime(2037, 3, 8, 2), makeTime(2037, 11, 1, 2));
  EXPECT_TRUE(IsDaylightTime(&tz, false, serialOf(2037, 7, 1)));
  EXPECT_FALSE(IsDaylightTime(&tz, false, serialOf(2038, 7, 1)));
  EXPECT_FALSE(IsDaylightTime(&tz, false, serialOf(2036, 7, 1)));
}

TEST(ZoneRules, ZeroBiasesNeedNoRules) {
  _SYSTEMTIME garbage = makeTime(0, 77, 9, 99, 0, 0, 0, 42);
  _TIME_ZONE_INFORMATION tz = zone(-180, 0, garbage, garbage);
  EXPECT_FALSE(IsDaylightTime(&tz, false, serialOf(2010, 7, 1)));
  _SYSTEMTIME in = makeTime(2010, 7, 1, 12), out;
  ASSERT_EQ(1, TzSpecificLocalTimeToUTCTime(&tz, &in, &out));
  EXPECT_EQ("2010-07-01 09:00:00.000", show(out));
}

TEST(ZoneRules, ARuleThatNamesNoDateGivesStandardTime) {
  // A month outside 1..12 with non-zero biases: no table is read outside it,
  // and the date counts as standard time.
  _TIME_ZONE_INFORMATION tz = zone(300, -60, relativeRule(0, 0, 2, 2), relativeRule(13, 0, 1, 2));
  EXPECT_TRUE(std::isnan(TransitionToOleTime(&tz.DaylightDate, 2010)));
  EXPECT_FALSE(IsDaylightTime(&tz, false, serialOf(2010, 7, 1)));
  EXPECT_FALSE(IsDaylightTime(&tz, true, serialOf(2010, 7, 1)));
}

TEST(ZoneRules, HostileBiasesDoNotOverflow) {
  _TIME_ZONE_INFORMATION tz = newYork();
  tz.Bias = std::numeric_limits<int>::max();
  tz.StandardBias = std::numeric_limits<int>::max();
  tz.DaylightBias = std::numeric_limits<int>::min();
  _SYSTEMTIME in = makeTime(2010, 7, 1), out = makeTime(1, 1, 1);
  EXPECT_EQ(0, UTCTimeToTzSpecificLocalTime(&tz, &in, &out));  // far out of range
  EXPECT_EQ("0001-01-01 00:00:00.000", show(out));
}

TEST(ZoneRules, AnInputWithoutADecodableYearConvertsByStandardTime) {
  // Daylight time from October to April, five hours behind UTC.
  _TIME_ZONE_INFORMATION tz = zone(300, -60, relativeRule(10, 0, 1, 2), relativeRule(4, 0, 1, 3));
  _SYSTEMTIME in = makeTime(9999, 12, 30, 2), out;
  ASSERT_EQ(1, UTCTimeToTzSpecificLocalTime(&tz, &in, &out));
  EXPECT_EQ("9999-12-29 22:00:00.000", show(out));
  // Past 9999-12-31 00:00 the input has no year, hence no rules: the
  // standard bias alone brings it back into range.
  in = makeTime(9999, 12, 31, 2);
  ASSERT_EQ(1, UTCTimeToTzSpecificLocalTime(&tz, &in, &out));
  EXPECT_EQ("9999-12-30 21:00:00.000", show(out));
}

TEST(ZoneRules, FailuresLeaveTheOutputAlone) {
  _TIME_ZONE_INFORMATION tz = newYork();
  _SYSTEMTIME good = makeTime(2010, 7, 1), bad = makeTime(2010, 2, 30);
  _SYSTEMTIME out = makeTime(1, 2, 3);
  EXPECT_EQ(0, TzSpecificLocalTimeToUTCTime(nullptr, &good, &out));
  EXPECT_EQ(0, TzSpecificLocalTimeToUTCTime(&tz, nullptr, &out));
  EXPECT_EQ(0, TzSpecificLocalTimeToUTCTime(&tz, &good, nullptr));
  EXPECT_EQ(0, UTCTimeToTzSpecificLocalTime(&tz, &bad, &out));
  // The shifted result leaves the decodable range.
  _SYSTEMTIME last = makeTime(9999, 12, 30, 22);
  EXPECT_EQ(0, TzSpecificLocalTimeToUTCTime(&tz, &last, &out));
  _SYSTEMTIME first = makeTime(100, 1, 1, 1);
  EXPECT_EQ(0, UTCTimeToTzSpecificLocalTime(&tz, &first, &out));
  EXPECT_EQ("0001-02-03 00:00:00.000", show(out));
  // Years below 100 give IsDaylightTime no year: standard time.
  EXPECT_FALSE(IsDaylightTime(&tz, false, serialOf(50, 7, 1)));
}

}  // namespace
