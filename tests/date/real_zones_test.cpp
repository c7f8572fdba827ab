// Conversions with the system's zone data, compared with glibc.
//
// The library turns each zone into one rule record per year. That model
// holds in a year with exactly two clock changes on whole local hours, away
// from the changes themselves; there the results must equal glibc's. Other
// years are compared too and their departures are reported, not asserted.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "date_test_util.h"
#include "zelkit3/date.h"

namespace {

using namespace zelkit3::date;

// Sets TZ for the whole process; restored by the destructor.
class ScopedTz {
 public:
  explicit ScopedTz(const char* zone) {
    const char* old = std::getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTz() {
    if (had_) setenv("TZ", old_.c_str(), 1);
    else unsetenv("TZ");
    tzset();
  }

 private:
  bool had_ = false;
  std::string old_;
};

long offsetAt(int64_t t) {
  const time_t tt = static_cast<time_t>(t);
  tm local;
  localtime_r(&tt, &local);
  return local.tm_gmtoff;
}

// The UTC seconds at which the offset changes in [from, to), found by hourly
// steps and a binary search inside each step.
std::vector<int64_t> changesBetween(int64_t from, int64_t to) {
  std::vector<int64_t> changes;
  long before = offsetAt(from);
  for (int64_t t = from + 3600; t < to + 3600; t += 3600) {
    const long now = offsetAt(t);
    if (now == before) continue;
    int64_t lo = t - 3600, hi = t;  // offset(lo) == before, offset(hi) != before
    while (hi - lo > 1) {
      const int64_t mid = lo + (hi - lo) / 2;
      (offsetAt(mid) == before ? lo : hi) = mid;
    }
    if (hi >= from && hi < to) changes.push_back(hi);
    before = now;
  }
  return changes;
}

int64_t yearStart(int year) {
  tm t{};
  t.tm_year = year - 1900;
  t.tm_mday = 1;
  return static_cast<int64_t>(timegm(&t));
}

double serialOfTm(const tm& t) {
  _SYSTEMTIME st;
  CTimeToWindowsTime(&t, &st);
  double d = 0;
  EXPECT_EQ(1, WindowsTimeToOleTime(&st, &d));
  return d;
}

std::string showTm(const tm& t) {
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.000", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return text;
}

struct Tally {
  int compared = 0;
  int agreed = 0;
};

TEST(RealZones, AgreeWithGlibcWhereTheYearlyModelHolds) {
  const char* zones[] = {"America/New_York", "Europe/London", "Australia/Sydney",
                         "America/Sao_Paulo", "Asia/Kolkata"};
  uint64_t seed = 12345;
  int representable = 0;
  for (const char* zone : zones) {
    ScopedTz tz(zone);
    Tally model, other;
    std::map<int, int> departedYears;  // year -> moments that differ
    for (int year = 1971; year <= 2037; ++year) {
      // Changes from the last day of the year before to the first of the
      // next: either calendar may be the local one.
      const int64_t begin = yearStart(year), end = yearStart(year + 1);
      const std::vector<int64_t> changes = changesBetween(begin - 86400, end + 86400);
      std::vector<int64_t> inYear;
      bool wholeHours = true;
      for (int64_t c : changes) {
        if (c >= begin && c < end) inYear.push_back(c);
        if ((c + offsetAt(c - 1)) % 3600 != 0) wholeHours = false;
      }
      const bool holds = inYear.size() == 2 && changes.size() == 2 && wholeHours;
      for (int i = 0; i < 60; ++i) {
        seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
        // Away from New Year (both clocks in the same year) and from changes.
        const int64_t t = begin + 2 * 86400 + static_cast<int64_t>((seed >> 33) % uint64_t(end - begin - 4 * 86400));
        bool nearChange = false;
        for (int64_t c : changes) nearChange = nearChange || (t > c - 3 * 3600 && t < c + 3 * 3600);
        if (nearChange) continue;
        const time_t tt = static_cast<time_t>(t);
        tm utc, local;
        gmtime_r(&tt, &utc);
        localtime_r(&tt, &local);
        const std::string toLocal = zk3test::showSerial(DateConvertTz(serialOfTm(utc), "UTC", zone));
        const std::string toUtc = zk3test::showSerial(DateConvertTz(serialOfTm(local), zone, "UTC"));
        const bool agree = toLocal == showTm(local) && toUtc == showTm(utc);
        Tally& tally = holds ? model : other;
        tally.compared += 2;
        tally.agreed += (toLocal == showTm(local)) + (toUtc == showTm(utc));
        if (holds) {
          EXPECT_TRUE(agree) << zone << " UTC " << showTm(utc) << ": local " << toLocal << " vs "
                             << showTm(local) << ", back " << toUtc;
        } else if (!agree) {
          ++departedYears[year];
        }
      }
    }
    representable += model.compared;
    std::string years;
    for (const auto& y : departedYears) years += " " + std::to_string(y.first);
    std::printf("%-18s model years: %d/%d agree; other years: %d/%d agree; departing years:%s\n",
                zone, model.agreed, model.compared, other.agreed, other.compared,
                years.empty() ? " none" : years.c_str());
  }
  EXPECT_GT(representable, 4000);
}

}  // namespace
