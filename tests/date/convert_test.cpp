// Conversion of serial dates between zones.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

#include "date_test_util.h"
#include "support/temp_dir.h"
#include "tzif_builder.h"
#include "zelkit3/date.h"

namespace {

using namespace zelkit3::date;
using zk3test::serialOf;
using zk3test::showSerial;

bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(DateConvertTz, EqualZonesGiveTheInputBitForBit) {
  const double inputs[] = {40251.123456789012, -1.75, 1e300, std::nan(""), -0.0};
  for (double d : inputs) {
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, eTimeZoneEST, eTimeZoneEST)));
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, "Europe/London", "Europe/London")));
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, nullptr, "Local")));
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, "Local", nullptr)));
  }
}

TEST(DateConvertTz, BadDatesAndZonesComeBackUnchanged) {
  const double bad[] = {std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::infinity(),
                        -std::numeric_limits<double>::infinity(), 2958465.5, -657435.0, 1e18};
  for (double d : bad) {
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, eTimeZoneEST, eTimeZoneUTC)));
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, eTimeZoneUTC, eTimeZoneEST)));
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, eTimeZoneLocal, eTimeZoneEST)));
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, "UTC", "Europe/London")));
    EXPECT_TRUE(sameBits(d, DateConvertTz(d, "UTC+3", "Asia/Kolkata")));
  }
  const double d = serialOf(2010, 7, 1, 12, 0, 0, 250);
  EXPECT_EQ(d, DateConvertTz(d, "UTC", "No/Such_Zone"));
  EXPECT_EQ(d, DateConvertTz(d, "No/Such_Zone", "UTC"));
  EXPECT_EQ(d, DateConvertTz(d, static_cast<eTimeZone>(7), eTimeZoneUTC));
  EXPECT_EQ(d, DateConvertTz(d, eTimeZoneUTC, static_cast<eTimeZone>(-1)));
  // A shifted result beyond 9999-12-31 00:00 is refused: the leg gives back its input.
  const double last = serialOf(9999, 12, 30, 22);
  EXPECT_EQ(last, DateConvertTz(last, "UTC-5", "UTC"));
}

TEST(DateConvertTz, FixedOffsetsMoveByTheirHours) {
  for (double d : {serialOf(2010, 7, 1, 12, 0, 0, 250), serialOf(1800, 1, 1), serialOf(2500, 6, 6, 23, 59, 59, 999)}) {
    EXPECT_EQ(showSerial(d + 0.125), showSerial(DateConvertTz(d, "UTC", "UTC+3")));
    EXPECT_EQ(showSerial(d - 0.125), showSerial(DateConvertTz(d, "UTC+3", "UTC")));
    EXPECT_EQ(showSerial(d + 0.125), showSerial(DateConvertTz(d, "UTC-5", "UTC-2")));
    EXPECT_EQ(d, DateConvertTz(d, "UTC", "UTC0"));
  }
}

struct ZoneCase {
  const char* from;
  const char* to;
  double in;
  const char* out;
};

TEST(DateConvertTz, NewYorkByEnumeratorAndByName) {
  const ZoneCase cases[] = {
      {"EST", "UTC", serialOf(2010, 3, 14, 1, 59, 59), "2010-03-14 06:59:59.000"},
      {"EST", "UTC", serialOf(2010, 3, 14, 2, 30), "2010-03-14 06:30:00.000"},
      {"EST", "UTC", serialOf(2010, 11, 7, 1, 30), "2010-11-07 05:30:00.000"},
      {"EST", "UTC", serialOf(2010, 11, 7, 2), "2010-11-07 07:00:00.000"},
      {"UTC", "EST", serialOf(2010, 3, 14, 7), "2010-03-14 03:00:00.000"},
      {"UTC", "EST", serialOf(2010, 11, 7, 6), "2010-11-07 01:00:00.000"},
      {"UTC", "EST", serialOf(1985, 7, 1, 12), "1985-07-01 08:00:00.000"},
      {"UTC", "EST", serialOf(1985, 1, 1, 12), "1985-01-01 07:00:00.000"},
      {"EST", "Europe/London", serialOf(2010, 7, 1, 12), "2010-07-01 17:00:00.000"},
      {"Australia/Sydney", "UTC", serialOf(2010, 1, 15, 12), "2010-01-15 01:00:00.000"},
      {"Australia/Sydney", "UTC", serialOf(2010, 7, 1, 12), "2010-07-01 02:00:00.000"},
      {"UTC", "Asia/Kolkata", serialOf(2010, 7, 1, 12), "2010-07-01 17:30:00.000"},
  };
  for (const ZoneCase& c : cases) {
    EXPECT_EQ(c.out, showSerial(DateConvertTz(c.in, c.from, c.to))) << c.from << " " << c.to;
    const bool builtIn = (!std::strcmp(c.from, "EST") || !std::strcmp(c.from, "UTC")) &&
                         (!std::strcmp(c.to, "EST") || !std::strcmp(c.to, "UTC"));
    if (builtIn) {
      const eTimeZone from = std::strcmp(c.from, "EST") ? eTimeZoneUTC : eTimeZoneEST;
      const eTimeZone to = std::strcmp(c.to, "EST") ? eTimeZoneUTC : eTimeZoneEST;
      EXPECT_EQ(c.out, showSerial(DateConvertTz(c.in, from, to))) << c.from << " " << c.to;
    }
  }
}

TEST(DateConvertTz, LocalZoneGoesThroughEtcLocaltime) {
  // Whatever the machine's zone is, there and back gives the same moment
  // away from changes.
  const double d = serialOf(2010, 7, 1, 12);
  const double utc = DateConvertTz(d, eTimeZoneLocal, eTimeZoneUTC);
  EXPECT_EQ(showSerial(d), showSerial(DateConvertTz(utc, eTimeZoneUTC, eTimeZoneLocal)));
  EXPECT_EQ(showSerial(utc), showSerial(DateConvertTz(d, nullptr, "UTC")));
}

TEST(DateConvertTz, EachLegUsesTheYearOfItsOwnInput) {
  // A crafted zone at +1 h in 2010 and +2 h from 2011 (UTC years), reached
  // by a name that leads out of the zone directory.
  zk3test::TzifImage image;
  image.types = {{3600, false}, {7200, false}};
  image.transitions = {{1262304000, 0}, {1293840000, 1}};  // 2010-01-01, 2011-01-01
  const zk3test::TempDir dir("zk3_date_legs");
  const std::string path = dir.path("zone");
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  const std::vector<unsigned char> bytes = image.bytes();
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
  close(fd);
  const std::string name = std::string("../../..") + path;
  // New York 2010-12-31 20:00 is 2011-01-01 01:00 UTC: the second leg takes
  // the 2011 record of the crafted zone, not the 2010 one.
  const double d = serialOf(2010, 12, 31, 20);
  EXPECT_EQ("2011-01-01 03:00:00.000", showSerial(DateConvertTz(d, "EST", name.c_str())));
  EXPECT_EQ("2011-01-01 03:00:00.000", showSerial(DateConvertTz(d, "America/New_York", name.c_str())));
}

}  // namespace
