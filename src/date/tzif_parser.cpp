#include "date/tzif_parser.h"

#include <stdint.h>
#include <string.h>

#include <memory>

#include "date/civil.h"

namespace zelkit3 {
namespace date {
namespace detail {

namespace {

uint32_t readU32(const unsigned char* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

int32_t readI32(const unsigned char* p) { return static_cast<int32_t>(readU32(p)); }

// gmtime of seconds into a zeroed tm. Our own arithmetic works on 64 bits,
// so shifted times of a hostile file neither overflow nor depend on time_t.
tm toTm(int64_t seconds) {
  tm out;
  memset(&out, 0, sizeof out);
  const CivilTime c = civilFromUnixSeconds(seconds);
  out.tm_year = c.year - 1900;
  out.tm_mon = c.month;
  out.tm_mday = c.mday;
  out.tm_hour = c.hour;
  out.tm_min = c.minute;
  out.tm_sec = c.second;
  out.tm_wday = c.wday;
  return out;
}

tm zeroTm() {
  tm out;
  memset(&out, 0, sizeof out);
  return out;
}

// True if the moment lies in the last seven days of its month. A tm_mon
// outside 0..11 has no length and counts as not in the last week.
bool inLastWeek(const tm* t) {
  if (t->tm_mon < 0 || t->tm_mon > 11) return false;
  int length = kMonthLength[t->tm_mon];
  if (t->tm_mon == 1 && isLeapYear(t->tm_year + 1900)) length = 29;
  return length <= t->tm_mday + 6;
}

// The layout of the parts of the first data block that are read.
struct Block {
  const unsigned char* times;   // timecnt big-endian int32
  const unsigned char* types;   // timecnt bytes
  const unsigned char* ttinfo;  // typecnt records of 6 bytes
  uint32_t timecnt;
  uint32_t typecnt;

  // Transition time k; nothing before 1970 is represented.
  int64_t time(uint32_t k) const {
    const int32_t t = readI32(times + 4 * size_t(k));
    return t < 0 ? 0 : t;
  }
  int32_t offset(uint32_t k) const { return readI32(ttinfo + 6 * size_t(types[k])); }
  bool isDst(uint32_t k) const { return ttinfo[6 * size_t(types[k]) + 4] != 0; }
};

}  // namespace

void fillTransitionDate(_SYSTEMTIME* out, const tm* transition, const tm* next) {
  out->wMinute = static_cast<unsigned short>(transition->tm_min);
  out->wHour = static_cast<unsigned short>(transition->tm_hour);
  out->wMonth = static_cast<unsigned short>(transition->tm_mon + 1);
  if (next == nullptr || next->tm_wday != transition->tm_wday) {
    out->wDay = static_cast<unsigned short>(transition->tm_mday);
    out->wYear = static_cast<unsigned short>(transition->tm_year + 1900);
    return;
  }
  out->wYear = 0;
  out->wDayOfWeek = static_cast<unsigned short>(transition->tm_wday);
  // Only the next year's position tells a fourth weekday from a last one.
  if (inLastWeek(transition) && inLastWeek(next)) {
    out->wDay = 5;
  } else {
    out->wDay = static_cast<unsigned short>((transition->tm_mday - 1) / 7 + 1);
  }
}

bool parseTzif(const unsigned char* data, size_t size, TziMap& tzi) {
  const bool isTzif = size >= 4 && memcmp(data, "TZif", 4) == 0;
  // Files without the magic are read with everything four bytes earlier.
  const size_t header = isTzif ? 44 : 40;
  if (size < header) return true;  // not even the counts are there
  const unsigned char* counts = data + header - 12;
  Block block;
  block.timecnt = readU32(counts);
  block.typecnt = readU32(counts + 4);
  const uint32_t charcnt = readU32(counts + 8);
  if (block.typecnt == 0) return false;
  // 64-bit sum: counts near 2^32 can't wrap it (at most about 11 * 2^32).
  const uint64_t needed = uint64_t(header) + 5 * uint64_t(block.timecnt) +
                          6 * uint64_t(block.typecnt) + uint64_t(charcnt);
  if (needed > uint64_t(size)) return true;
  if (block.timecnt == 0) return false;
  block.times = data + header;
  block.types = block.times + 4 * size_t(block.timecnt);
  block.ttinfo = block.types + size_t(block.timecnt);
  // The format forbids a type index at or past typecnt; such a file is
  // refused whole, like one that is too short, rather than read around.
  for (uint32_t k = 0; k < block.timecnt; ++k) {
    if (block.types[k] >= block.typecnt) return true;
  }

  const uint32_t n = block.timecnt;
  uint32_t i = 0;
  while (i < n) {
    const bool paired = i + 1 < n && civilFromUnixSeconds(block.time(i)).year ==
                                         civilFromUnixSeconds(block.time(i + 1)).year;
    // -1 is absent; the kind of i + 1 is taken to be the opposite of i's.
    const int64_t here = i;
    int64_t s, d;
    if (paired) {
      d = block.isDst(i) ? here : here + 1;
      s = block.isDst(i) ? here + 1 : here;
    } else {
      d = block.isDst(i) ? here : -1;
      s = block.isDst(i) ? -1 : here;
    }
    std::unique_ptr<_TIME_ZONE_INFORMATION> rec(new _TIME_ZONE_INFORMATION());
    rec->StandardBias = 0;
    const int32_t bias =
        s >= 0 ? -(block.offset(uint32_t(s)) / 60) : -(block.offset(uint32_t(d)) / 60);
    const int32_t daylightBias = d >= 0 ? -(block.offset(uint32_t(d)) / 60) - bias : 0;
    rec->Bias = bias;
    rec->DaylightBias = daylightBias;

    // Each change is written on the clock that it ends.
    const int64_t daylightShift = 60 * int64_t(bias) + 60 * int64_t(daylightBias);
    const int64_t standardShift = 60 * int64_t(bias);
    tm a = zeroTm(), b = zeroTm(), a2 = zeroTm(), b2 = zeroTm();
    bool haveA2 = false, haveB2 = false;
    if (s >= 0) {
      a = toTm(block.time(uint32_t(s)) - daylightShift);
      if (s + 2 < n) {
        a2 = toTm(block.time(uint32_t(s + 2)) - daylightShift);
        haveA2 = true;
      }
    }
    if (d >= 0) {
      b = toTm(block.time(uint32_t(d)) - standardShift);
      if (d + 2 < n) {
        b2 = toTm(block.time(uint32_t(d + 2)) - standardShift);
        haveB2 = true;
      }
    }
    const unsigned int key = static_cast<unsigned int>((d >= 0 ? b.tm_year : a.tm_year) + 1900);
    fillTransitionDate(&rec->StandardDate, &a, haveA2 ? &a2 : nullptr);
    fillTransitionDate(&rec->DaylightDate, &b, haveB2 ? &b2 : nullptr);

    // A later pair or single of the same year wins.
    TziMap::iterator it = tzi.find(key);
    if (it != tzi.end()) {
      delete it->second;
      it->second = rec.release();
    } else {
      tzi.emplace(key, rec.get());
      rec.release();  // NOLINT(bugprone-unused-return-value): the map owns it now
    }
    i += paired ? 2 : 1;
  }
  return false;
}

}  // namespace detail
}  // namespace date
}  // namespace zelkit3
