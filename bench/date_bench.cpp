// Zone conversion per call: DateConvertTz by enumerator and by name, against
// date::zoned_time, absl::TimeZone and glibc localtime_r/mktime, on the same
// 4096 moments of 1971-2037; and the serial <-> _SYSTEMTIME round trip.
#include <benchmark/benchmark.h>
#include <date/tz.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "absl/time/civil_time.h"
#include "absl/time/time.h"
#include "zelkit3/date.h"

namespace {

using namespace zelkit3::date;

constexpr size_t kMoments = 4096;

// Moments as UTC seconds, spread over 1971-2037 by a fixed LCG.
const std::vector<int64_t>& moments() {
  static const std::vector<int64_t> all = [] {
    std::vector<int64_t> out;
    uint64_t state = 42;
    for (size_t i = 0; i < kMoments; ++i) {
      state = state * 6364136223846793005ULL + 1442695040888963407ULL;
      out.push_back(31536000 + static_cast<int64_t>((state >> 33) % 2113000000ULL));
    }
    return out;
  }();
  return all;
}

// The same moments as serials and as broken-down wall-clock fields of zone.
std::vector<double> serials() {
  std::vector<double> out;
  for (int64_t t : moments()) out.push_back(25569.0 + static_cast<double>(t) / 86400.0);
  return out;
}

std::vector<absl::CivilSecond> civils() {
  std::vector<absl::CivilSecond> out;
  for (int64_t t : moments()) out.push_back(absl::ToCivilSecond(absl::FromUnixSeconds(t), absl::UTCTimeZone()));
  return out;
}

std::vector<date::local_seconds> locals() {
  std::vector<date::local_seconds> out;
  for (int64_t t : moments()) out.push_back(date::local_seconds{std::chrono::seconds{t}});
  return out;
}

void BM_Ours_Enum_EST_to_UTC(benchmark::State& state) {
  const std::vector<double> in = serials();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(DateConvertTz(in[i++ & (kMoments - 1)], eTimeZoneEST, eTimeZoneUTC));
  }
}
BENCHMARK(BM_Ours_Enum_EST_to_UTC);

void BM_Ours_Enum_UTC_to_EST(benchmark::State& state) {
  const std::vector<double> in = serials();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(DateConvertTz(in[i++ & (kMoments - 1)], eTimeZoneUTC, eTimeZoneEST));
  }
}
BENCHMARK(BM_Ours_Enum_UTC_to_EST);

template <const char* const* kZone>
void BM_Ours_Name_to_UTC(benchmark::State& state) {
  const std::vector<double> in = serials();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(DateConvertTz(in[i++ & (kMoments - 1)], *kZone, "UTC"));
  }
}
const char* const kLondon = "Europe/London";
const char* const kNewYork = "America/New_York";
BENCHMARK_TEMPLATE(BM_Ours_Name_to_UTC, &kLondon)->Name("BM_Ours_Name_London_to_UTC");
BENCHMARK_TEMPLATE(BM_Ours_Name_to_UTC, &kNewYork)->Name("BM_Ours_Name_NewYork_to_UTC");

// date: a zoned_time built from the zone's name on every call.
template <const char* const* kZone>
void BM_Date_ZonedTime_Name_to_UTC(benchmark::State& state) {
  const std::vector<date::local_seconds> in = locals();
  size_t i = 0;
  for (auto _ : state) {
    date::zoned_time<std::chrono::seconds> zt{*kZone, in[i++ & (kMoments - 1)], date::choose::earliest};
    benchmark::DoNotOptimize(zt.get_sys_time());
  }
}
BENCHMARK_TEMPLATE(BM_Date_ZonedTime_Name_to_UTC, &kLondon)->Name("BM_Date_ZonedTime_Name_London_to_UTC");
BENCHMARK_TEMPLATE(BM_Date_ZonedTime_Name_to_UTC, &kNewYork)->Name("BM_Date_ZonedTime_Name_NewYork_to_UTC");

// absl: the zone looked up by name on every call (absl caches loaded zones).
template <const char* const* kZone>
void BM_Absl_Name_to_UTC(benchmark::State& state) {
  const std::vector<absl::CivilSecond> in = civils();
  size_t i = 0;
  for (auto _ : state) {
    absl::TimeZone tz;
    absl::LoadTimeZone(*kZone, &tz);
    const absl::Time t = absl::FromCivil(in[i++ & (kMoments - 1)], tz);
    benchmark::DoNotOptimize(absl::ToCivilSecond(t, absl::UTCTimeZone()));
  }
}
BENCHMARK_TEMPLATE(BM_Absl_Name_to_UTC, &kLondon)->Name("BM_Absl_Name_London_to_UTC");
BENCHMARK_TEMPLATE(BM_Absl_Name_to_UTC, &kNewYork)->Name("BM_Absl_Name_NewYork_to_UTC");

// glibc with TZ set once to New York: UTC to local, and local to UTC.
void BM_Glibc_localtime_r_NewYork(benchmark::State& state) {
  setenv("TZ", "America/New_York", 1);
  tzset();
  size_t i = 0;
  for (auto _ : state) {
    const time_t t = static_cast<time_t>(moments()[i++ & (kMoments - 1)]);
    tm out;
    benchmark::DoNotOptimize(localtime_r(&t, &out));
  }
}
BENCHMARK(BM_Glibc_localtime_r_NewYork);

void BM_Glibc_mktime_NewYork(benchmark::State& state) {
  setenv("TZ", "America/New_York", 1);
  tzset();
  std::vector<tm> in;
  for (int64_t s : moments()) {
    const time_t t = static_cast<time_t>(s);
    tm local;
    gmtime_r(&t, &local);
    local.tm_isdst = -1;
    in.push_back(local);
  }
  size_t i = 0;
  for (auto _ : state) {
    tm copy = in[i++ & (kMoments - 1)];
    benchmark::DoNotOptimize(mktime(&copy));
  }
}
BENCHMARK(BM_Glibc_mktime_NewYork);

void BM_Ours_Serial_RoundTrip(benchmark::State& state) {
  const std::vector<double> in = serials();
  size_t i = 0;
  for (auto _ : state) {
    _SYSTEMTIME t;
    double back;
    OleTimeToWindowsTime(in[i++ & (kMoments - 1)], &t);
    WindowsTimeToOleTime(&t, &back);
    benchmark::DoNotOptimize(back);
  }
}
BENCHMARK(BM_Ours_Serial_RoundTrip);

}  // namespace

BENCHMARK_MAIN();
