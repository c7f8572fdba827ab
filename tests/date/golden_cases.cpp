#include "golden_cases.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "date/tzif_parser.h"
#include "date/zone_rules.h"
#include "tzif_builder.h"
#include "zelkit3/date.h"
#include "zelkit3/timezone.h"

namespace zk3test {

namespace {

using namespace zelkit3::date;

std::string hex(double d) {
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  char text[24];
  std::snprintf(text, sizeof text, "%016" PRIx64, bits);
  return text;
}

std::string fields(const _SYSTEMTIME& t) {
  char text[80];
  std::snprintf(text, sizeof text, "%u/%u/%u/%u/%u/%u/%u/%u", t.wYear, t.wMonth, t.wDayOfWeek,
                t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  return text;
}

std::string record(const _TIME_ZONE_INFORMATION& r) {
  return std::to_string(r.Bias) + "," + std::to_string(r.StandardBias) + "," +
         std::to_string(r.DaylightBias) + ",S" + fields(r.StandardDate) + ",D" + fields(r.DaylightDate);
}

// A fixed pseudo-random sequence (64-bit LCG), the same on every ABI.
struct Sequence {
  uint64_t state = 0x2545F4914F6CDD1DULL;
  uint32_t next() {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<uint32_t>(state >> 33);
  }
  // A serial in [lo, hi) with a fraction that lands off the millisecond.
  double serial(double lo, double hi) { return lo + (hi - lo) * (next() / 4294967296.0) + next() / 1e15; }
};

_SYSTEMTIME zeroTime() {
  _SYSTEMTIME t;
  std::memset(&t, 0, sizeof t);
  return t;
}

}  // namespace

std::vector<std::string> goldenLines() {
  if (HistoricalTZHelpersFactory::s_dwRef == 0) HistoricalTZHelpersFactory::addRef();
  std::vector<std::string> lines;
  Sequence seq;

  // Serial to record and back, over the whole range and near its ends.
  for (int i = 0; i < 1500; ++i) {
    double d = i < 1000 ? seq.serial(-657434.0, 2958465.0) : seq.serial(-3.0, 3.0);
    _SYSTEMTIME t = zeroTime();
    const int ok = OleTimeToWindowsTime(d, &t);
    double back = 0.0;
    const int okBack = ok ? WindowsTimeToOleTime(&t, &back) : 0;
    tm c;
    std::memset(&c, 0, sizeof c);
    const int okC = OleTimeToCTime(d, &c);
    double fromC = 0.0;
    const int okFromC = okC ? CTimeToOleTime(&c, &fromC) : 0;
    lines.push_back("serial " + hex(d) + " " + std::to_string(ok) + " " + fields(t) + " " +
                    std::to_string(okBack) + " " + hex(back) + " " + std::to_string(okC) + " " +
                    std::to_string(c.tm_yday) + " " + std::to_string(okFromC) + " " + hex(fromC));
  }

  // Rules and the two record conversions, for New York's 2007 rules and a
  // southern zone with a last-Sunday rule.
  _TIME_ZONE_INFORMATION zones[2];
  std::memset(zones, 0, sizeof zones);
  zones[0].Bias = 300;
  zones[0].DaylightBias = -60;
  zones[0].DaylightDate = {0, 3, 0, 2, 2, 0, 0, 0};
  zones[0].StandardDate = {0, 11, 0, 1, 2, 0, 0, 0};
  zones[1].Bias = -600;
  zones[1].DaylightBias = -60;
  zones[1].DaylightDate = {0, 10, 0, 5, 2, 0, 0, 0};
  zones[1].StandardDate = {0, 4, 0, 1, 3, 0, 0, 0};
  for (int z = 0; z < 2; ++z) {
    for (int year = 1971; year <= 2037; ++year) {
      const double begin = TransitionToOleTime(&zones[z].DaylightDate, static_cast<unsigned short>(year));
      const double end = TransitionToOleTime(&zones[z].StandardDate, static_cast<unsigned short>(year));
      lines.push_back("transition " + std::to_string(z) + " " + std::to_string(year) + " " +
                      hex(begin) + " " + hex(end));
    }
    for (int i = 0; i < 600; ++i) {
      const double d = seq.serial(25569.0, 50000.0);
      _SYSTEMTIME in = zeroTime(), utc = zeroTime(), local = zeroTime();
      OleTimeToWindowsTime(d, &in);
      const int a = TzSpecificLocalTimeToUTCTime(&zones[z], &in, &utc);
      const int b = UTCTimeToTzSpecificLocalTime(&zones[z], &in, &local);
      lines.push_back("rules " + std::to_string(z) + " " + hex(d) + " " +
                      std::to_string(IsDaylightTime(&zones[z], false, d)) +
                      std::to_string(IsDaylightTime(&zones[z], true, d)) + " " + std::to_string(a) +
                      " " + fields(utc) + " " + std::to_string(b) + " " + fields(local));
    }
  }

  // The parser on a crafted image.
  {
    const std::vector<unsigned char> bytes = newYork2010And2011().bytes();
    zelkit3::date::detail::TziMap map;
    const bool result = zelkit3::date::detail::parseTzif(bytes.data(), bytes.size(), map);
    for (auto& entry : map) {
      lines.push_back("tzif " + std::to_string(result) + " " + std::to_string(entry.first) + " " +
                      record(*entry.second));
      delete entry.second;
    }
  }

  // Zone conversion with the system's zone data (the 32-bit block covers
  // 1901-2037) and with fixed offsets.
  const char* names[] = {"America/New_York", "Europe/London", "Australia/Sydney",
                         "America/Sao_Paulo", "Asia/Kolkata", "UTC+3", "UTC-5"};
  for (const char* name : names) {
    for (int i = 0; i < 300; ++i) {
      const double d = seq.serial(25569.0, 50406.0);
      lines.push_back(std::string("convert ") + name + " " + hex(d) + " " +
                      hex(DateConvertTz(d, name, "UTC")) + " " + hex(DateConvertTz(d, "UTC", name)) +
                      " " + hex(DateConvertTz(d, name, "EST")));
    }
  }
  for (int i = 0; i < 500; ++i) {
    const double d = seq.serial(25569.0, 50406.0);
    lines.push_back("convert-enum " + hex(d) + " " + hex(DateConvertTz(d, eTimeZoneEST, eTimeZoneUTC)) +
                    " " + hex(DateConvertTz(d, eTimeZoneUTC, eTimeZoneEST)));
  }
  return lines;
}

}  // namespace zk3test
