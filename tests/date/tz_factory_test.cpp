// The zone helpers' factory: counting, the built-in zones, named and
// fixed-offset zones, and lookups from several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/sync.h"
#include "zelkit3/date.h"
#include "zelkit3/timezone.h"

namespace {

using F = HistoricalTZHelpersFactory;

// The library's load hook has already counted one user.
TEST(TzFactory, CountsUsersAndSetsUpOnce) {
  ASSERT_EQ(1u, F::s_dwRef);
  IHistoricalTimezoneHelper* est = F::getESTHelper();
  EXPECT_EQ(2u, F::addRef());
  EXPECT_EQ(3u, F::addRef());
  EXPECT_EQ(est, F::getESTHelper());  // init did not run again
  EXPECT_EQ(2u, F::release());
  EXPECT_EQ(1u, F::release());
  EXPECT_EQ(est, ESTHistoricalTimezoneHelper::s_pInst);
}

TEST(TzFactory, ReleaseToZeroCleansUpAndAddRefStartsAfresh) {
  ASSERT_NE(nullptr, F::getTZHelper("UTC+7")->getTimezoneInformationByYear(2000u));
  EXPECT_EQ(0u, F::release());
  EXPECT_EQ(nullptr, ESTHistoricalTimezoneHelper::s_pInst);
  EXPECT_EQ(nullptr, LocalHistoricalTimezoneHelper::s_pInst);
  EXPECT_EQ(1u, F::addRef());
  EXPECT_NE(nullptr, ESTHistoricalTimezoneHelper::s_pInst);
  EXPECT_NE(nullptr, LocalHistoricalTimezoneHelper::s_pInst);
  EXPECT_EQ(F::getESTHelper(), ESTHistoricalTimezoneHelper::s_pInst);
  EXPECT_EQ(F::getLocalHelper(), LocalHistoricalTimezoneHelper::s_pInst);
  // cleanup reports the count it found.
  EXPECT_EQ(1u, F::s_dwRef);
}

TEST(TzFactory, BuiltInNamesAreTheSingletons) {
  EXPECT_EQ(F::getESTHelper(), F::getTZHelper("EST"));
  EXPECT_EQ(F::getLocalHelper(), F::getTZHelper("Local"));
  EXPECT_NE(nullptr, F::getESTHelper()->getTimezoneInformationByYear(2010u));
  // Small letters are other names: files of those names don't exist.
  EXPECT_NE(F::getESTHelper(), F::getTZHelper("est"));
  EXPECT_EQ(nullptr, F::getTZHelper("est")->getTimezoneInformationByYear(2010u));
  EXPECT_EQ(nullptr, F::getTZHelper("local")->getTimezoneInformationByYear(2010u));
}

TEST(TzFactory, NamedZonesAreCached) {
  IHistoricalTimezoneHelper* london = F::getTZHelper("Europe/London");
  EXPECT_EQ(london, F::getTZHelper(std::string("Europe/London").c_str()));
  _TIME_ZONE_INFORMATION* r = london->getTimezoneInformationByYear(2010u);
  ASSERT_NE(nullptr, r);
  EXPECT_EQ(0, r->Bias);
  EXPECT_EQ(-60, r->DaylightBias);
  EXPECT_EQ(nullptr, F::getTZHelper("No/Such_Zone")->getTimezoneInformationByYear(2010u));
}

struct FixedCase {
  const char* name;
  int bias;
};

TEST(TzFactory, FixedOffsets) {
  const FixedCase cases[] = {{"UTC+3", -180},   {"UTC-5", 300},  {"UTC0", 0},
                             {"UTC+5:30", -300}, {"UTCabc", 0},   {"UTC+14", -840},
                             {"UTC99999999999999999999", -(2147483647 / 60) * 60}};
  for (const FixedCase& c : cases) {
    IHistoricalTimezoneHelper* helper = F::getTZHelper(c.name);
    for (unsigned year : {1800u, 1970u, 2500u}) {
      _TIME_ZONE_INFORMATION* r = helper->getTimezoneInformationByYear(year);
      ASSERT_NE(nullptr, r) << c.name;
      EXPECT_EQ(c.bias, r->Bias) << c.name;
      EXPECT_EQ(0, r->StandardBias);
      EXPECT_EQ(0, r->DaylightBias);
    }
  }
  // "UTC" itself is a zone file: one type, no transitions, so no record.
  EXPECT_EQ(nullptr, F::getTZHelper("UTC")->getTimezoneInformationByYear(2010u));
}

TEST(TzFactory, LongNamesAreCutNotOverrun) {
  for (size_t length : {128u, 129u, 130u, 149u, 150u, 1000u, 100000u}) {
    const std::string name(length, 'x');
    IHistoricalTimezoneHelper* helper = F::getTZHelper(name.c_str());
    EXPECT_EQ(nullptr, helper->getTimezoneInformationByYear(2010u)) << length;
    EXPECT_EQ(helper, F::getTZHelper(name.c_str()));
  }
  // Names that differ only after the 129th character are still different
  // names to the cache, but read the same file.
  const std::string base = "Europe/London" + std::string(116, '/');
  ASSERT_EQ(129u, base.size());
  IHistoricalTimezoneHelper* a = F::getTZHelper((base + "a").c_str());
  IHistoricalTimezoneHelper* b = F::getTZHelper((base + "b").c_str());
  EXPECT_NE(a, b);
}

TEST(TzFactory, NewNamesFromManyThreadsAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kNames = 40;
  zk3test::Gate gate(kThreads);
  std::vector<std::vector<IHistoricalTimezoneHelper*>> seen(
      kThreads, std::vector<IHistoricalTimezoneHelper*>(kNames, nullptr));
  std::atomic<int> changed(0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      gate.arriveAndWait();
      for (int round = 0; round < 3; ++round) {
        for (int n = 0; n < kNames; ++n) {
          // Every thread asks for the same new names, in different orders,
          // mixed with real zones and lookups on what it got.
          const int k = (n + 7 * t + round) % kNames;
          const std::string name = k % 4 == 0 ? "UTC+" + std::to_string(k % 13)
                                              : "Hammer/Zone" + std::to_string(k);
          IHistoricalTimezoneHelper* h = F::getTZHelper(name.c_str());
          h->getTimezoneInformationByYear(2000u + static_cast<unsigned>(k));
          if (seen[t][k] == nullptr) seen[t][k] = h;
          if (seen[t][k] != h) changed.fetch_add(1);  // a name's helper never changes
          F::getTZHelper(k % 2 ? "America/Sao_Paulo" : "Asia/Kolkata");
          zelkit3::date::DateConvertTz(40000.5 + k, zelkit3::date::eTimeZoneEST,
                                       zelkit3::date::eTimeZoneUTC);
        }
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(0, changed.load());
  for (int t = 0; t < kThreads; ++t) {
    for (int k = 0; k < kNames; ++k) {
      ASSERT_NE(nullptr, seen[t][k]);
      EXPECT_EQ(seen[0][k], seen[t][k]) << t << " " << k;
    }
  }
}

}  // namespace
