// What the case files can't express: the zone factory's counting and caching,
// threads asking for new zones, zone files that can't be read, the clocks.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/sync.h"
#include "support/temp_dir.h"
#include "zelkit3/date.h"
#include "zelkit3/timezone.h"

namespace {

using namespace zelkit3::date;
using F = HistoricalTZHelpersFactory;

// The records loaded from path, reached from the zone folder; -1 if the load
// reports that the file was not read (and then it must keep no record).
int records(const std::string& path) {
  std::map<unsigned int, _TIME_ZONE_INFORMATION*> map;
  const bool failed = AHistoricalTimezoneHelper::LoadUnixHistTZI(map, ("../../.." + path).c_str());
  for (auto& entry : map) delete entry.second;
  return failed ? -1 - static_cast<int>(map.size()) : static_cast<int>(map.size());
}

TEST(TzFactory, CountsReferencesAndCachesHelpers) {
  ASSERT_EQ(1u, F::s_dwRef);  // the library's load hook holds the first
  IHistoricalTimezoneHelper* named = F::getTZHelper("UTC+7");
  EXPECT_EQ(2u, F::addRef());
  EXPECT_EQ(1u, F::release());
  EXPECT_EQ(named, F::getTZHelper("UTC+7"));  // neither init nor cleanup ran
  EXPECT_NE(nullptr, ESTHistoricalTimezoneHelper::s_pInst);
  EXPECT_EQ(0u, F::release());
  EXPECT_EQ(nullptr, ESTHistoricalTimezoneHelper::s_pInst);
  EXPECT_EQ(nullptr, LocalHistoricalTimezoneHelper::s_pInst);
  EXPECT_EQ(1u, F::addRef());
  EXPECT_NE(nullptr, ESTHistoricalTimezoneHelper::s_pInst);  // made by init, not on demand
  EXPECT_NE(nullptr, LocalHistoricalTimezoneHelper::s_pInst);
  // The built-in names give the singletons, which users hold as the interface.
  EXPECT_EQ(F::getTZHelper("EST"), ESTHistoricalTimezoneHelper::s_pInst);
  EXPECT_EQ(F::getTZHelper("Local"), LocalHistoricalTimezoneHelper::s_pInst);
  EXPECT_THROW(F::getTZHelper(nullptr), std::logic_error);
}

// Callers may ask for new names from several threads at once: every thread
// gets the one helper of each name.
TEST(TzFactory, NewNamesFromManyThreadsAtOnce) {
  constexpr int kThreads = 8, kNames = 40;
  auto name = [](int k) { return "Many/Zone" + std::to_string(k); };
  zk3test::Gate gate(kThreads);
  IHistoricalTimezoneHelper* seen[kThreads][kNames];
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      gate.arrive_and_wait();
      for (int n = 0; n < kNames; ++n) {
        const int k = (n + 7 * t) % kNames;  // the same names in other orders
        seen[t][k] = F::getTZHelper(name(k).c_str());
        seen[t][k]->getTimezoneInformationByYear(2000u);
      }
    });
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t)
    for (int k = 0; k < kNames; ++k) EXPECT_EQ(seen[t][k], F::getTZHelper(name(k).c_str())) << t;
}

TEST(ZoneFiles, NamesAreCutAt129Characters) {
  std::string name = ZK3_SOURCE_DIR "/tests/date/data/corpus/ny_2010_2011.tzif";
  ASSERT_LE(name.size() + 8, 129u);
  // Added slashes lengthen the name to 129 characters and keep the file.
  name.insert(name.rfind('/'), 129 - 8 - name.size(), '/');
  EXPECT_EQ(2, records(name));
  EXPECT_EQ(2, records(name + "ignored"));
  EXPECT_EQ(-1, records(name.substr(0, 128 - 8)));
}

// Present when a sanitizer's runtime is, whichever compiler linked it.
extern "C" __attribute__((weak)) void __asan_init();
extern "C" __attribute__((weak)) void __tsan_init();

TEST(ZoneFiles, ABufferThatCannotBeAllocatedIsAFailedRead) {
  // Sanitizer allocators abort on a request this large instead of failing it.
  if (__asan_init != nullptr || __tsan_init != nullptr)
    GTEST_SKIP() << "the sanitizer's allocator aborts on a size no memory holds";
  // A sparse file of 2^62 bytes on tmpfs, which costs no memory. On x86_64
  // no address space holds its buffer; on i386 (32-bit off_t) stat already
  // refuses its size. Either way the file is not loaded, nor left open.
  char path[] = "/dev/shm/zk3_date_huge_XXXXXX";
  const int fd = mkstemp64(path);  // the 64 forms: the size is past 32-bit off_t
  if (fd < 0) GTEST_SKIP() << "no /dev/shm to hold a sparse file";
  const bool sized = ftruncate64(fd, static_cast<off64_t>(1) << 62) == 0;
  close(fd);
  const long fds = zk3test::openFds();
  const int loaded = sized ? records(path) : 0;
  unlink(path);
  if (!sized) GTEST_SKIP() << "/dev/shm refuses a file of 2^62 bytes";
  EXPECT_EQ(-1, loaded);
  EXPECT_EQ(fds, zk3test::openFds());
}

// The clocks read time() to the second, the local one (DateNow, through
// GetLocalWindowsTime) under TZ, through the reentrant forms: glibc's one
// record for localtime and gmtime keeps its value.
TEST(Clock, ReadsTheClockToTheSecond) {
  setenv("TZ", "XST-5:30", 1);
  tzset();
  const time_t epoch = 0, before = time(nullptr);
  const tm* shared = localtime(&epoch);
  _SYSTEMTIME utc;
  GetSystemWindowsTime(&utc);
  const double now = DateNow();
  const time_t after = time(nullptr);
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(70, shared->tm_year);
  double utcSerial = 0;
  WindowsTimeToOleTime(&utc, &utcSerial);
  EXPECT_GE(utcSerial, 25569 + (before - 0.001) / 86400);  // 25569 is 1970-01-01
  EXPECT_LE(utcSerial, 25569 + (after + 0.001) / 86400);
  EXPECT_NEAR(utcSerial + 5.5 / 24, now, (after - before + 1.0) / 86400);
  EXPECT_EQ(1.0 / 86400, OneSecond());
}

}  // namespace
