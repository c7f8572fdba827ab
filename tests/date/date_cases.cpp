// The case files: data/cases.txt, worked out by hand, and data/golden.txt,
// the results of the x86_64 build over a spread of inputs, which both ABIs
// must give bit for bit. Each line is an operation, its inputs and, after
// " = ", the text of its result (data/README.md lists the operations).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <vector>

#include "date/tz_file.h"
#include "date/zone_rules.h"
#include "support/temp_dir.h"
#include "zelkit3/date.h"
#include "zelkit3/timezone.h"

namespace {

using namespace zelkit3::date;
using Words = std::vector<std::string>;

const std::string kCorpus = ZK3_SOURCE_DIR "/tests/date/data/corpus/";
std::map<std::string, _TIME_ZONE_INFORMATION> gZones;  // made by "zone" lines

// The text that snprintf makes of the arguments.
template <class... A>
std::string format(const char* pattern, A... args) {
  char out[96];
  std::snprintf(out, sizeof out, pattern, args...);
  return out;
}

// Doubles as %.17g, which tells every two values apart.
std::string text(double d) { return format("%.17g", d); }

// Records as 2010-03-14T01:59:59.400/0, the last field wDayOfWeek.
std::string text(const _SYSTEMTIME& t) {
  return format("%04u-%02u-%02uT%02u:%02u:%02u.%03u/%u", t.wYear, t.wMonth, t.wDay, t.wHour,
                t.wMinute, t.wSecond, t.wMilliseconds, t.wDayOfWeek);
}

_SYSTEMTIME record(const std::string& s) {
  _SYSTEMTIME t{};
  std::sscanf(s.c_str(), "%hu-%hu-%huT%hu:%hu:%hu.%hu/%hu", &t.wYear, &t.wMonth, &t.wDay, &t.wHour,
              &t.wMinute, &t.wSecond, &t.wMilliseconds, &t.wDayOfWeek);
  return t;
}

// tm with its own field values: year-mon-mdayThh:mm:ss/wday, yday, isdst.
std::string text(const tm& c) {
  return format("%d-%d-%dT%d:%d:%d/%d y%d d%d", c.tm_year, c.tm_mon, c.tm_mday, c.tm_hour, c.tm_min,
                c.tm_sec, c.tm_wday, c.tm_yday, c.tm_isdst);
}

tm cTime(const std::string& s) {
  tm c{};
  std::sscanf(s.c_str(), "%d-%d-%dT%d:%d:%d/%d", &c.tm_year, &c.tm_mon, &c.tm_mday, &c.tm_hour,
              &c.tm_min, &c.tm_sec, &c.tm_wday);
  return c;
}

// A record as Bias,StandardBias,DaylightBias D<DaylightDate> S<StandardDate>,
// and " named" if a name field holds anything.
std::string text(const _TIME_ZONE_INFORMATION* r) {
  static const _TIME_ZONE_INFORMATION blank{};
  if (r == nullptr) return "null";
  const bool named = std::memcmp(r->StandardName, blank.StandardName, sizeof blank.StandardName) ||
                     std::memcmp(r->DaylightName, blank.DaylightName, sizeof blank.DaylightName);
  return format("%d,%d,%d D", r->Bias, r->StandardBias, r->DaylightBias) + text(r->DaylightDate) +
         " S" + text(r->StandardDate) + (named ? " named" : "");
}

// A load's result ("true": not read) and its records by year, freed on the way.
std::string outcome(bool failed, detail::TziMap& records) {
  std::string out = failed ? "true" : "false";
  for (const auto& entry : records) {
    out += " | " + std::to_string(entry.first) + ": " + text(entry.second);
    delete entry.second;
  }
  return out;
}

// A date is a record when it has a T, else a serial; results come back alike.
bool isRecord(const std::string& s) { return s.find('T') != std::string::npos; }

double serial(const std::string& s) {
  _SYSTEMTIME t = record(s);
  double d = isRecord(s) ? std::nan("") : std::strtod(s.c_str(), nullptr);
  if (isRecord(s)) WindowsTimeToOleTime(&t, &d);
  return d;
}

std::string dateText(const std::string& like, double d) {
  _SYSTEMTIME t;
  return isRecord(like) && OleTimeToWindowsTime(d, &t) ? text(t) : text(d);
}

// Calls f(args..., output) on an output filled with a pattern: the output's
// text if f succeeds, else whether the output kept every byte.
template <class T, class F, class... A>
std::string attempt(F f, A... args) {
  T out;
  std::memset(&out, 0x5A, sizeof out);
  const T before = out;
  if (f(args..., &out)) return text(out);
  return std::memcmp(&out, &before, sizeof out) == 0 ? "refused" : "refused but written";
}

// A file (of the corpus, unless the path is absolute) through the file layer
// and through the parser, on an exact-size copy that ASan watches for reads
// past its end.
std::string tzif(const std::string& file) {
  const std::string path = file[0] == '/' ? file : kCorpus + file;
  const std::string content = zk3test::readFile(path);
  const std::vector<unsigned char> exact(content.begin(), content.end());
  detail::TziMap parsed, loaded;
  const std::string result = outcome(detail::parseTzif(exact.data(), exact.size(), parsed), parsed);
  const std::string read = outcome(detail::loadTzifFile(path.c_str(), loaded), loaded);
  return result == read ? result : "parser and file layer differ";
}

// "corpus:" names a file of the corpus from the zone folder; "null" is none.
std::string zoneName(const std::string& name) {
  return name.compare(0, 7, "corpus:") ? name : "../../.." + kCorpus + name.substr(7);
}

const char* orNull(const std::string& name) { return name == "null" ? nullptr : name.c_str(); }

// The enumerators of zone names; 3 is outside the enumeration (and, as a
// name, a zone without a file).
const std::map<std::string, int> kEnumerators{{"Local", 0}, {"EST", 1}, {"UTC", 2}, {"3", 3}};

std::string convert(const Words& w) {
  const double d = serial(w.at(3));
  const std::string from = zoneName(w.at(1)), to = zoneName(w.at(2));
  const double r = DateConvertTz(d, orNull(from), orNull(to));
  const auto a = kEnumerators.find(w[1]), b = kEnumerators.find(w[2]), none = kEnumerators.end();
  const double e =
      a == none || b == none ? r : DateConvertTz(d, eTimeZone(a->second), eTimeZone(b->second));
  if (std::memcmp(&r, &e, sizeof r) != 0) return "enumerators differ";
  return dateText(w.at(3), r);
}

std::string evaluate(const Words& w) {
  const std::string& op = w.at(0);
  // The first input as each kind of date; an operation reads the one it needs.
  _SYSTEMTIME r = record(w.at(1));
  tm c = cTime(w[1]);
  const double s = serial(w[1]);
  if (op == "decode") return attempt<_SYSTEMTIME>(OleTimeToWindowsTime, s);
  if (op == "encode") return attempt<double>(WindowsTimeToOleTime, &r);
  if (op == "ctime") return attempt<tm>(OleTimeToCTime, s);
  if (op == "totm") return attempt<tm>([&](tm* o) { return WindowsTimeToCTime(&r, o), true; });
  if (op == "fromtm") {
    return attempt<_SYSTEMTIME>([&](_SYSTEMTIME* o) { return CTimeToWindowsTime(&c, o), true; }) +
           " " + attempt<double>(CTimeToOleTime, &c);
  }
  if (op == "rule") return dateText("T", TransitionToOleTime(&r, std::stoi(w.at(2))));
  if (op == "zone") {
    _TIME_ZONE_INFORMATION& z = gZones[w.at(1)] = _TIME_ZONE_INFORMATION{};
    std::sscanf(w.at(2).c_str(), "%d,%d,%d", &z.Bias, &z.StandardBias, &z.DaylightBias);
    z.DaylightDate = record(w.at(3));
    z.StandardDate = record(w.at(4));
    return "made";
  }
  if (op == "utc" || op == "local") {  // "null" passes a null pointer
    _TIME_ZONE_INFORMATION* z = w.at(1) == "null" ? nullptr : &gZones.at(w[1]);
    _SYSTEMTIME in = record(w.at(2));
    const bool toUTC = op == "utc", dst = z != nullptr && IsDaylightTime(z, !toUTC, serial(w[2]));
    return attempt<_SYSTEMTIME>(toUTC ? TzSpecificLocalTimeToUTCTime : UTCTimeToTzSpecificLocalTime,
                                z, w[2] == "null" ? nullptr : &in) +
           (dst ? " dst" : " std");
  }
  if (op == "fill") {
    _SYSTEMTIME out{};
    tm next = cTime(w.at(2));
    AHistoricalTimezoneHelper::FillTransitionDate(&out, &c, w[2] == "null" ? nullptr : &next);
    return text(out);
  }
  if (op == "tzif") return tzif(w.at(1));
  if (op == "helper") {  // both lookups, by year and by record
    auto* helper = HistoricalTZHelpersFactory::getTZHelper(zoneName(w.at(1)).c_str());
    _SYSTEMTIME date = record(w.at(2) + "-1-1");
    const _TIME_ZONE_INFORMATION* found = helper->getTimezoneInformationByYear(std::stoul(w[2]));
    return found == helper->getTimezoneInformationByYear(&date) ? text(found) : "lookups differ";
  }
  if (op == "convert") return convert(w);
  return "unknown operation";
}

// The recomputed file is written beside the test as <name>.actual: after a
// change meant to alter results, review its difference and take it over.
void expectEveryLine(const char* name) {
  std::ifstream file(std::string(ZK3_SOURCE_DIR "/tests/date/data/") + name);
  std::ofstream rewritten(std::string(name) + ".actual");
  ASSERT_TRUE(file.good()) << name;
  int failures = 0;
  for (std::string line; std::getline(file, line);) {
    std::string actual = line;  // comments and blank lines stay as they are
    if (!line.empty() && line[0] != '#') {
      std::istringstream call(line.substr(0, line.find(" = ")));
      actual = call.str() + " = " + evaluate({std::istream_iterator<std::string>(call), {}});
    }
    rewritten << actual << '\n';
    if (actual != line && ++failures <= 20)
      ADD_FAILURE() << name << " (" ZK3_ARCH ")\n  expected " << line << "\n  actual   " << actual;
  }
  EXPECT_EQ(0, failures) << name;
}

TEST(DateCases, WorkedOutByHand) { expectEveryLine("cases.txt"); }

TEST(DateCases, GoldenOnBothAbis) { expectEveryLine("golden.txt"); }

}  // namespace
