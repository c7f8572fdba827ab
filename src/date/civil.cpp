#include "date/civil.h"

namespace zelkit3 {
namespace date {
namespace detail {

const int kDaysBeforeMonth[13] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};
const int kMonthLength[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

namespace {
int64_t floorDiv(int64_t a, int64_t b) {
  const int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}
}  // namespace

CivilTime civilFromUnixSeconds(int64_t seconds) {
  const int64_t days = floorDiv(seconds, 86400);
  const int64_t secondOfDay = seconds - days * 86400;
  // Days from 0000-03-01, so that the leap day ends each 400-year era.
  const int64_t z = days + 719468;
  const int64_t era = floorDiv(z, 146097);
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int64_t month = mp < 10 ? mp + 3 : mp - 9;  // 1..12
  CivilTime c;
  c.year = static_cast<int>(yoe + era * 400 + (month <= 2 ? 1 : 0));
  c.month = static_cast<int>(month - 1);
  c.mday = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  c.hour = static_cast<int>(secondOfDay / 3600);
  c.minute = static_cast<int>(secondOfDay / 60 % 60);
  c.second = static_cast<int>(secondOfDay % 60);
  int64_t wday = (days + 4) % 7;  // 1970-01-01 was a Thursday
  if (wday < 0) wday += 7;
  c.wday = static_cast<int>(wday);
  return c;
}

}  // namespace detail
}  // namespace date
}  // namespace zelkit3
