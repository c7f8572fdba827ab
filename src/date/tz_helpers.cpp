// The zone helpers: the year-to-record lookup and the helpers that load a zone.
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "date/tz_file.h"
#include "date/tzif_parser.h"
#include "zelkit3/timezone.h"

using zelkit3::date::detail::TziMap;

IHistoricalTimezoneHelper::~IHistoricalTimezoneHelper() {}

_TIME_ZONE_INFORMATION* AHistoricalTimezoneHelper::getTimezoneInformationByYear(unsigned int year) {
  // The first record of a year at or after year, else the last one: the
  // ascending walk's answer, found by the map's own search.
  if (m_mapTZI.empty()) return nullptr;
  TziMap::const_iterator it = m_mapTZI.lower_bound(year);
  if (it == m_mapTZI.end()) --it;
  return it->second;
}

_TIME_ZONE_INFORMATION* AHistoricalTimezoneHelper::getTimezoneInformationByYear(_SYSTEMTIME* date) {
  return getTimezoneInformationByYear(static_cast<unsigned int>(date->wYear));
}

AHistoricalTimezoneHelper::~AHistoricalTimezoneHelper() {}

bool AHistoricalTimezoneHelper::LoadUnixHistTZI(TziMap& tzi, const char* name) {
  char path[zelkit3::date::detail::kZonePathSize];
  zelkit3::date::detail::buildZonePath(name, path);
  return zelkit3::date::detail::loadTzifFile(path, tzi);
}

bool AHistoricalTimezoneHelper::LoadWindowsHistTZI(TziMap&, const char*) { return false; }

bool AHistoricalTimezoneHelper::LoadSingleTZI(TziMap&, const char*) { return false; }

void AHistoricalTimezoneHelper::FillTransitionDate(_SYSTEMTIME* out, const tm* transition,
                                                   const tm* next) {
  zelkit3::date::detail::fillTransitionDate(out, transition, next);
}

namespace {

// Frees every record, in ascending year, and clears the map.
void freeRecords(TziMap& tzi) {
  for (TziMap::iterator it = tzi.begin(); it != tzi.end(); ++it) delete it->second;
  tzi.clear();
}

// Loads into a helper's map; if that throws, the records made so far are
// freed here, since the derived destructor will not run.
void loadOrFree(TziMap& tzi, const char* name) {
  try {
    AHistoricalTimezoneHelper::LoadUnixHistTZI(tzi, name);
  } catch (...) {
    freeRecords(tzi);
    throw;
  }
}

// Hours of a fixed-offset name, held so that 60 * h fits a 32-bit Bias.
int fixedOffsetHours(const char* digits) {
  const long h = strtol(digits, nullptr, 10);
  const long limit = INT_MAX / 60;
  return static_cast<int>(h > limit ? limit : (h < -limit ? -limit : h));
}

}  // namespace

HistoricalTimezoneHelper::HistoricalTimezoneHelper(const char* name) {
  if (name != nullptr && strlen(name) > 3 && strncmp(name, "UTC", 3) == 0) {
    _TIME_ZONE_INFORMATION* record = new _TIME_ZONE_INFORMATION();
    record->Bias = -60 * fixedOffsetHours(name + 3);
    try {
      m_mapTZI.emplace(1970u, record);  // the only record answers every year
    } catch (...) {
      delete record;
      throw;
    }
    return;
  }
  loadOrFree(m_mapTZI, name);
}

HistoricalTimezoneHelper::~HistoricalTimezoneHelper() { freeRecords(m_mapTZI); }

IHistoricalTimezoneHelper* ESTHistoricalTimezoneHelper::s_pInst = nullptr;

ESTHistoricalTimezoneHelper::ESTHistoricalTimezoneHelper() {
  loadOrFree(m_mapTZI, "America/New_York");
}

ESTHistoricalTimezoneHelper::~ESTHistoricalTimezoneHelper() { freeRecords(m_mapTZI); }

IHistoricalTimezoneHelper* ESTHistoricalTimezoneHelper::getInstance() {
  if (s_pInst == nullptr) s_pInst = new ESTHistoricalTimezoneHelper();
  return s_pInst;
}

void ESTHistoricalTimezoneHelper::cleanup() {
  IHistoricalTimezoneHelper* instance = s_pInst;
  s_pInst = nullptr;
  delete instance;
}

IHistoricalTimezoneHelper* LocalHistoricalTimezoneHelper::s_pInst = nullptr;

LocalHistoricalTimezoneHelper::LocalHistoricalTimezoneHelper() { loadOrFree(m_mapTZI, nullptr); }

LocalHistoricalTimezoneHelper::~LocalHistoricalTimezoneHelper() { freeRecords(m_mapTZI); }

IHistoricalTimezoneHelper* LocalHistoricalTimezoneHelper::getInstance() {
  if (s_pInst == nullptr) s_pInst = new LocalHistoricalTimezoneHelper();
  return s_pInst;
}

void LocalHistoricalTimezoneHelper::cleanup() {
  IHistoricalTimezoneHelper* instance = s_pInst;
  s_pInst = nullptr;
  delete instance;
}
