// zelkit3/timezone.h - time-zone helpers and their factory.
//
// A helper answers one question: which _TIME_ZONE_INFORMATION record holds
// for a zone in a given year. Records are made from the first (32-bit) data
// block of the zone's TZif file: one record per year in which the clock
// changed, with the changes written as yearly rules where they recur.
//
// Lifetime: HistoricalTZHelpersFactory owns every helper. The load hook calls
// addRef (which sets the factory up and reads "/etc/localtime" and the
// "America/New_York" file) and the unload hook calls release. A helper and
// each record it returns stay valid until the factory is cleaned up; callers
// free neither.
//
// Thread-safety: lookups on an existing helper may run on any thread.
// getTZHelper may be called from several threads at once, also with names
// not seen before (a new name is loaded once, under an internal lock). The
// first addRef and the last release must not overlap any other use.
#ifndef ZELKIT3_TIMEZONE_H
#define ZELKIT3_TIMEZONE_H

#include <time.h>

#include <map>
#include <string>

#include "zelkit3/date.h"
#include "zelkit3/export.h"

// The interface of every time-zone helper.
class ZK3_API IHistoricalTimezoneHelper {
 public:
  // The record for year, or null if the zone has no records.
  virtual _TIME_ZONE_INFORMATION* getTimezoneInformationByYear(unsigned int year) = 0;
  // The record for date->wYear.
  virtual _TIME_ZONE_INFORMATION* getTimezoneInformationByYear(_SYSTEMTIME* date) = 0;
  virtual ~IHistoricalTimezoneHelper();
};

// The common base: holds the year-to-record map, filled once by a derived
// constructor and never changed after that. Its own destructor frees only the
// map; each derived destructor frees the records first.
class ZK3_API AHistoricalTimezoneHelper : public IHistoricalTimezoneHelper {
 public:
  // The first record whose year is year or later; the last record if all are
  // earlier; null if there are none. Only reads: any thread may call it.
  _TIME_ZONE_INFORMATION* getTimezoneInformationByYear(unsigned int year) override;
  // Calls the overload above (virtually) with date->wYear.
  _TIME_ZONE_INFORMATION* getTimezoneInformationByYear(_SYSTEMTIME* date) override;
  ~AHistoricalTimezoneHelper() override;

  // Loads "/usr/share/zoneinfo/" + at most 129 characters of name, or
  // "/etc/localtime" for a null name, into tzi. The name is not examined.
  // Returns true if the file was missing, unreadable, short of what its
  // counts claim or malformed (tzi unchanged); false if it was read, even
  // with no record. Nothing is reported otherwise.
  static bool LoadUnixHistTZI(std::map<unsigned int, _TIME_ZONE_INFORMATION*>& tzi,
                              const char* name);
  // Does nothing; returns false.
  static bool LoadWindowsHistTZI(std::map<unsigned int, _TIME_ZONE_INFORMATION*>& tzi,
                                 const char* name);
  // Does nothing; returns false.
  static bool LoadSingleTZI(std::map<unsigned int, _TIME_ZONE_INFORMATION*>& tzi, const char* name);
  // Writes the rule of a change from its wall-clock moment and the same
  // change a year on (next, may be null): relative (weekday) form when both
  // fall on one weekday, else the absolute date of transition.
  static void FillTransitionDate(_SYSTEMTIME* out, const tm* transition, const tm* next);

 protected:
  AHistoricalTimezoneHelper() {}

  std::map<unsigned int, _TIME_ZONE_INFORMATION*> m_mapTZI;

 private:
  AHistoricalTimezoneHelper(const AHistoricalTimezoneHelper&) = delete;
  AHistoricalTimezoneHelper& operator=(const AHistoricalTimezoneHelper&) = delete;
};

// A zone by name: "UTC<h>" (more than 3 characters) is a fixed offset of h
// whole hours (strtol; UTC+5:30 is UTC+5, letters give 0) and reads no file;
// any other name, "UTC" itself included, is a file under the zone directory.
// A missing or bad file gives a helper without records.
class ZK3_API HistoricalTimezoneHelper : public AHistoricalTimezoneHelper {
 public:
  explicit HistoricalTimezoneHelper(const char* name);
  ~HistoricalTimezoneHelper() override;
};

// US Eastern time, from "America/New_York". Singleton.
class ZK3_API ESTHistoricalTimezoneHelper : public AHistoricalTimezoneHelper {
 public:
  ESTHistoricalTimezoneHelper();
  ~ESTHistoricalTimezoneHelper() override;
  // The instance, made (and its file read) on first use. Not thread-safe
  // while the instance is being made; the factory makes it at load.
  static IHistoricalTimezoneHelper* getInstance();
  // Destroys the instance (s_pInst is null before the destructor runs).
  static void cleanup();
  static IHistoricalTimezoneHelper* s_pInst;
};

// The machine's zone, from "/etc/localtime". Singleton, as above.
class ZK3_API LocalHistoricalTimezoneHelper : public AHistoricalTimezoneHelper {
 public:
  LocalHistoricalTimezoneHelper();
  ~LocalHistoricalTimezoneHelper() override;
  static IHistoricalTimezoneHelper* getInstance();
  static void cleanup();
  static IHistoricalTimezoneHelper* s_pInst;
};

// Owns all helpers; static members only. Call addRef first and release last.
class HistoricalTZHelpersFactory {
 public:
  // Adds a user; on the step from 0 to 1 sets the factory up (init).
  // Returns the new count.
  ZK3_API static unsigned int addRef();
  // Drops a user; on the step from 1 to 0 cleans up. Returns the new count.
  // The count is unsigned and wraps below 0.
  ZK3_API static unsigned int release();
  // Creates the map and both singletons (the New York file is read first).
  ZK3_API static void init();
  // Destroys every helper and the map; returns s_dwRef as it was at entry.
  ZK3_API static unsigned int cleanup();
  // The US Eastern singleton; never null.
  ZK3_API static IHistoricalTimezoneHelper* getESTHelper();
  // The local singleton; never null.
  ZK3_API static IHistoricalTimezoneHelper* getLocalHelper();
  // The helper for name (exact, case-sensitive): "Local" and "EST" are the
  // singletons, any other name is loaded at first use and cached. Never
  // null; name must not be null. Safe on several threads at once.
  ZK3_API static IHistoricalTimezoneHelper* getTZHelper(const char* name);

  // Users not yet matched by release; changed by atomic addition only.
  ZK3_API static unsigned int s_dwRef;

 private:
  // Helpers by name. Published atomically: a new name replaces the map by a
  // copy with the new entry, so readers never take the lock.
  static std::map<std::string, IHistoricalTimezoneHelper*>* s_pHelpers;
  static IHistoricalTimezoneHelper* s_pLocalHelper;
  static IHistoricalTimezoneHelper* s_pESTHelper;
};

#endif  // ZELKIT3_TIMEZONE_H
