// libFuzzer target for the TZif parser: any bytes in, records out, and the
// records put through the rule evaluation. Built by scripts/fuzz-date.sh.
#include <stdint.h>

#include "date/tzif_parser.h"
#include "date/zone_rules.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zelkit3::date::detail::TziMap map;
  zelkit3::date::detail::parseTzif(data, size, map);
  for (auto& entry : map) {
    for (double date : {-657434.0, 0.0, 25569.5, 40251.0833, 2958465.0}) {
      _SYSTEMTIME in, out;
      if (zelkit3::date::OleTimeToWindowsTime(date, &in)) {
        zelkit3::date::TzSpecificLocalTimeToUTCTime(entry.second, &in, &out);
        zelkit3::date::UTCTimeToTzSpecificLocalTime(entry.second, &in, &out);
      }
    }
    delete entry.second;
  }
  return 0;
}
