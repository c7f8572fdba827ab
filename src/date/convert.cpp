// Conversion of serial dates between zones, always through UTC.
#include <string.h>

#include "date/serial_internal.h"
#include "date/zone_rules.h"
#include "zelkit3/date.h"
#include "zelkit3/timezone.h"

namespace zelkit3 {
namespace date {

namespace {

// One leg between a zone and UTC. Gives date back if it can't be decoded,
// the zone has no record or the result leaves the serial range.
double convertLeg(double date, IHistoricalTimezoneHelper* helper, bool toUTC) {
  // Decoding, the record conversion and encoding again, done on the serial
  // with the same roundings: d is the decoded-and-encoded input.
  double d;
  unsigned short year;  // the year on the clock the date is given in
  if (!detail::truncateSerialWithYear(date, &d, &year)) return date;
  _TIME_ZONE_INFORMATION* tz =
      helper->getTimezoneInformationByYear(static_cast<unsigned int>(year));
  if (tz == nullptr) return date;
  // Truncating the shifted serial is encoding what decoding it gives.
  detail::truncateSerial(detail::shiftLeg(tz, d, year, toUTC), &date);
  return date;
}

IHistoricalTimezoneHelper* builtInHelper(eTimeZone zone) {
  switch (zone) {
    case eTimeZoneLocal: return HistoricalTZHelpersFactory::getLocalHelper();
    case eTimeZoneEST: return HistoricalTZHelpersFactory::getESTHelper();
    default: return nullptr;  // UTC, or a value outside the enumeration
  }
}

}  // namespace

double DateConvertTz(double date, eTimeZone from, eTimeZone to) {
  if (from == to) return date;
  if (from != eTimeZoneUTC && to != eTimeZoneUTC) {
    return DateConvertTz(DateConvertTz(date, from, eTimeZoneUTC), eTimeZoneUTC, to);
  }
  const bool toUTC = to == eTimeZoneUTC;
  IHistoricalTimezoneHelper* helper = builtInHelper(toUTC ? from : to);
  if (helper == nullptr) return date;
  return convertLeg(date, helper, toUTC);
}

double DateConvertTz(double date, const char* from, const char* to) {
  if (from == nullptr) from = "Local";
  if (to == nullptr) to = "Local";
  if (strcmp(from, to) == 0) return date;
  const bool fromUTC = strcmp(from, "UTC") == 0;
  const bool toUTC = strcmp(to, "UTC") == 0;
  if (!fromUTC && !toUTC) return DateConvertTz(DateConvertTz(date, from, "UTC"), "UTC", to);
  return convertLeg(date, HistoricalTZHelpersFactory::getTZHelper(toUTC ? from : to), toUTC);
}

}  // namespace date
}  // namespace zelkit3
