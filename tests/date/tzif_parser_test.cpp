// The TZif parser (bytes in, records out), the file layer around it and the
// year lookup of the helpers.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "date/tz_file.h"
#include "date/tzif_parser.h"
#include "date_test_util.h"
#include "support/temp_dir.h"
#include "tzif_builder.h"
#include "zelkit3/timezone.h"

namespace {

using zelkit3::date::detail::parseTzif;
using zelkit3::date::detail::TziMap;
using zk3test::show;
using zk3test::TzifImage;

// A helper whose map comes from bytes; frees its records like the library's.
class BytesHelper : public AHistoricalTimezoneHelper {
 public:
  explicit BytesHelper(const std::vector<unsigned char>& bytes) {
    result = parseTzif(bytes.data(), bytes.size(), m_mapTZI);
  }
  BytesHelper() {}
  ~BytesHelper() override {
    for (auto& entry : m_mapTZI) delete entry.second;
  }
  TziMap& map() { return m_mapTZI; }
  bool result = false;
};

std::string rule(const _SYSTEMTIME& r) {
  char text[64];
  if (r.wYear == 0) {
    std::snprintf(text, sizeof text, "rel m%u dow%u w%u %02u:%02u", r.wMonth, r.wDayOfWeek, r.wDay,
                  r.wHour, r.wMinute);
  } else {
    std::snprintf(text, sizeof text, "abs %04u-%02u-%02u %02u:%02u", r.wYear, r.wMonth, r.wDay,
                  r.wHour, r.wMinute);
  }
  return text;
}

// One line per record: key, biases and both rules.
std::string describe(BytesHelper& helper) {
  std::string out;
  for (auto& entry : helper.map()) {
    const _TIME_ZONE_INFORMATION& r = *entry.second;
    char text[64];
    std::snprintf(text, sizeof text, "%u: %d/%d/%d ", entry.first, r.Bias, r.StandardBias,
                  r.DaylightBias);
    out += text + std::string("D ") + rule(r.DaylightDate) + " S " + rule(r.StandardDate) + "\n";
  }
  return out;
}

TEST(TzifParser, WorkedExampleGivesTwoRecords) {
  BytesHelper helper(zk3test::newYork2010And2011().bytes());
  EXPECT_FALSE(helper.result);
  EXPECT_EQ(
      "2010: 300/0/-60 D rel m3 dow0 w2 02:00 S rel m11 dow0 w1 02:00\n"
      "2011: 300/0/-60 D abs 2011-03-13 02:00 S abs 2011-11-06 02:00\n",
      describe(helper));
}

TEST(TzifParser, LookupByYear) {
  BytesHelper helper(zk3test::newYork2010And2011().bytes());
  _TIME_ZONE_INFORMATION* r2010 = helper.map().at(2010);
  _TIME_ZONE_INFORMATION* r2011 = helper.map().at(2011);
  const struct {
    unsigned year;
    _TIME_ZONE_INFORMATION* expected;
  } cases[] = {{0, r2010}, {2000, r2010}, {2010, r2010}, {2011, r2011}, {2012, r2011}, {65535, r2011}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.expected, helper.getTimezoneInformationByYear(c.year)) << c.year;
    _SYSTEMTIME date = zk3test::makeTime(static_cast<int>(c.year), 1, 1);
    EXPECT_EQ(c.expected, helper.getTimezoneInformationByYear(&date)) << c.year;
  }
}

TEST(TzifParser, LookupMatchesTheAscendingWalk) {
  BytesHelper helper;
  const unsigned keys[] = {1969, 2000, 2005, 2006, 2010};
  for (unsigned key : keys) helper.map()[key] = new _TIME_ZONE_INFORMATION();
  for (unsigned year = 1900; year < 2100; ++year) {
    _TIME_ZONE_INFORMATION* walk = helper.map().rbegin()->second;
    for (auto& entry : helper.map()) {
      if (entry.first >= year) {
        walk = entry.second;
        break;
      }
    }
    ASSERT_EQ(walk, helper.getTimezoneInformationByYear(year)) << year;
  }
  // Years between two keys get the later one.
  EXPECT_EQ(helper.map().at(2005), helper.getTimezoneInformationByYear(2001u));
  EXPECT_EQ(helper.map().at(2005), helper.getTimezoneInformationByYear(2004u));
}

TEST(TzifParser, EmptyMapGivesNull) {
  BytesHelper helper;
  _SYSTEMTIME date = zk3test::makeTime(2010, 1, 1);
  EXPECT_EQ(nullptr, helper.getTimezoneInformationByYear(2010u));
  EXPECT_EQ(nullptr, helper.getTimezoneInformationByYear(&date));
}

TEST(TzifParser, TransitionsBefore1970CountAsZero) {
  TzifImage west;
  west.types = {{-18000, false}, {-14400, true}};
  west.transitions = {{-2000000000, 1}, {-1000000000, 0}, {-500000000, 1}, {-1, 0}};
  BytesHelper westHelper(west.bytes());
  // 0 - 60 * 300 seconds is 1969-12-31 19:00; the last pair decides.
  EXPECT_EQ("1969: 300/0/-60 D abs 1969-12-31 19:00 S abs 1969-12-31 20:00\n",
            describe(westHelper));

  TzifImage east;
  east.types = {{3600, false}, {7200, true}};
  east.transitions = {{-2000000000, 0}, {-5, 0}};
  BytesHelper eastHelper(east.bytes());
  // Two standard changes pair up anyway: the second is taken as daylight.
  EXPECT_EQ("1970: -60/0/0 D abs 1970-01-01 01:00 S abs 1970-01-01 01:00\n", describe(eastHelper));
}

TEST(TzifParser, ThirdChangeOfAYearReplacesThePairAsASingle) {
  TzifImage image;
  image.types = {{-18000, false}, {-14400, true}};
  // 2010: March to daylight, November to standard, December to daylight;
  // then 2011-06 to standard.
  image.transitions = {{1268550000, 1}, {1289109600, 0}, {1291500000, 1}, {1308000000, 0}};
  BytesHelper helper(image.bytes());
  ASSERT_EQ(2u, helper.map().size());
  const _TIME_ZONE_INFORMATION& r = *helper.map().at(2010);
  EXPECT_EQ(240, r.Bias);  // the daylight offset, all year
  EXPECT_EQ(0, r.DaylightBias);
}

TEST(TzifParser, SingleStandardChangeAnswersForEveryYear) {
  TzifImage image;
  image.types = {{19800, false}};
  image.transitions = {{-764200800, 0}};  // 1945, counts as 1970-01-01 00:00 UTC
  BytesHelper helper(image.bytes());
  EXPECT_EQ("1970: -330/0/0 D abs 1900-01-00 00:00 S abs 1970-01-01 05:30\n", describe(helper));
  EXPECT_EQ(helper.map().at(1970), helper.getTimezoneInformationByYear(1800u));
  EXPECT_EQ(helper.map().at(1970), helper.getTimezoneInformationByYear(2500u));
}

TEST(TzifParser, SouthernZonePairsStandardBeforeDaylight) {
  TzifImage image;
  image.types = {{36000, false}, {39600, true}};
  // 2008-10-05 to daylight (alone in its UTC year), 2009-04-05 to standard,
  // 2009-10-04 to daylight, 2010-04-04 to standard, 2010-10-03 to daylight.
  image.transitions = {{1223136000, 1}, {1238860800, 0}, {1254585600, 1},
                       {1270310400, 0}, {1286035200, 1}};
  BytesHelper helper(image.bytes());
  EXPECT_EQ(
      "2008: -660/0/0 D rel m10 dow0 w1 03:00 S abs 1900-01-00 00:00\n"
      "2009: -600/0/-60 D rel m10 dow0 w1 02:00 S rel m4 dow0 w1 03:00\n"
      "2010: -600/0/-60 D abs 2010-10-03 02:00 S abs 2010-04-04 03:00\n",
      describe(helper));
}

TEST(TzifParser, LastWeekRulesNeedTheNextYear) {
  // A Sunday on the 25th of a 31-day month: last Sunday if the next year's
  // falls on the 31st, fourth Sunday if it falls on the 24th.
  tm first;
  std::memset(&first, 0, sizeof first);
  first.tm_year = 110;
  first.tm_mon = 9;  // October
  first.tm_mday = 25;
  first.tm_wday = 0;
  first.tm_hour = 1;
  first.tm_min = 30;
  tm last = first, fourth = first, other = first;
  last.tm_year = fourth.tm_year = other.tm_year = 111;
  last.tm_mday = 31;
  fourth.tm_mday = 24;
  other.tm_wday = 1;
  _SYSTEMTIME out = zk3test::makeTime(1, 1, 1, 1, 1, 1, 1, 1);
  AHistoricalTimezoneHelper::FillTransitionDate(&out, &first, &last);
  EXPECT_EQ("rel m10 dow0 w5 01:30", rule(out));
  AHistoricalTimezoneHelper::FillTransitionDate(&out, &first, &fourth);
  EXPECT_EQ("rel m10 dow0 w4 01:30", rule(out));
  for (int day = 22; day <= 24; ++day) {
    first.tm_mday = day;
    AHistoricalTimezoneHelper::FillTransitionDate(&out, &first, &fourth);
    EXPECT_EQ("rel m10 dow0 w4 01:30", rule(out)) << day;
  }
  AHistoricalTimezoneHelper::FillTransitionDate(&out, &first, &other);
  EXPECT_EQ("abs 2010-10-24 01:30", rule(out));
  AHistoricalTimezoneHelper::FillTransitionDate(&out, &first, nullptr);
  EXPECT_EQ("abs 2010-10-24 01:30", rule(out));
  // A month that does not exist is never in its last week.
  first.tm_mon = 12;
  fourth.tm_mon = 12;
  AHistoricalTimezoneHelper::FillTransitionDate(&out, &first, &fourth);
  EXPECT_EQ(13, out.wMonth);
  EXPECT_EQ(4, out.wDay);
}

TEST(TzifParser, FilesWithoutTheMagicUseTheShorterLayout) {
  TzifImage image = zk3test::newYork2010And2011();
  image.magic = false;
  BytesHelper plain(image.bytes());
  BytesHelper tzif(zk3test::newYork2010And2011().bytes());
  EXPECT_FALSE(plain.result);
  EXPECT_EQ(describe(tzif), describe(plain));
}

TEST(TzifParser, SizeTestAtTheExactLength) {
  const std::vector<unsigned char> bytes = zk3test::newYork2010And2011().bytes();
  ASSERT_EQ(44u + 5 * 4 + 6 * 2 + 3, bytes.size());
  TziMap map;
  EXPECT_FALSE(parseTzif(bytes.data(), bytes.size(), map));
  EXPECT_EQ(2u, map.size());
  for (auto& entry : map) delete entry.second;
  map.clear();
  // Every shorter prefix, down to nothing, is refused and adds nothing. Each
  // prefix is a fresh allocation, so reading past it is caught under ASan.
  for (size_t size = bytes.size(); size-- > 0;) {
    std::vector<unsigned char> prefix(bytes.begin(), bytes.begin() + static_cast<long>(size));
    EXPECT_TRUE(parseTzif(prefix.data(), prefix.size(), map)) << size;
    EXPECT_TRUE(map.empty());
  }
}

TEST(TzifParser, ZeroCountsReadNothing) {
  TzifImage noTypes = zk3test::newYork2010And2011();
  noTypes.overrideCounts = true;
  noTypes.timecnt = 4;
  noTypes.typecnt = 0;
  noTypes.charcnt = 0xFFFFFFFFu;  // not looked at before typecnt
  BytesHelper a(noTypes.bytes());
  EXPECT_FALSE(a.result);
  EXPECT_TRUE(a.map().empty());

  TzifImage noTimes;
  noTimes.types = {{0, false}};
  BytesHelper b(noTimes.bytes());
  EXPECT_FALSE(b.result);
  EXPECT_TRUE(b.map().empty());
}

TEST(TzifParser, HostileCountsNeverWrap) {
  const uint32_t huge[][3] = {{0xFFFFFFFFu, 1, 0},          {1, 0xFFFFFFFFu, 0},
                              {1, 1, 0xFFFFFFFFu},          {0x33333334u, 1, 0},
                              {0x80000000u, 0x2AAAAAABu, 0}, {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu}};
  for (const auto& counts : huge) {
    TzifImage image = zk3test::newYork2010And2011();
    image.overrideCounts = true;
    image.timecnt = counts[0];
    image.typecnt = counts[1];
    image.charcnt = counts[2];
    BytesHelper helper(image.bytes());
    EXPECT_TRUE(helper.result) << counts[0] << " " << counts[1] << " " << counts[2];
    EXPECT_TRUE(helper.map().empty());
  }
}

TEST(TzifParser, TypeIndexOutsideTheTableRefusesTheFile) {
  TzifImage image = zk3test::newYork2010And2011();
  image.transitions[3].type = 2;  // typecnt is 2
  TziMap map;
  map[1999] = new _TIME_ZONE_INFORMATION();
  const std::vector<unsigned char> bytes = image.bytes();
  EXPECT_TRUE(parseTzif(bytes.data(), bytes.size(), map));
  EXPECT_EQ(1u, map.size());  // unchanged
  image.transitions[3].type = 255;
  const std::vector<unsigned char> bytes255 = image.bytes();
  EXPECT_TRUE(parseTzif(bytes255.data(), bytes255.size(), map));
  EXPECT_EQ(1u, map.size());
  for (auto& entry : map) delete entry.second;
}

TEST(TzifParser, ExtremeOffsetsStayWithinTheirTypes) {
  TzifImage image;
  image.types = {{INT32_MIN, false}, {INT32_MAX, true}};
  image.transitions = {{INT32_MAX, 1}, {INT32_MAX, 0}, {0, 1}, {INT32_MIN, 0}};
  BytesHelper helper(image.bytes());
  EXPECT_FALSE(helper.result);
  EXPECT_FALSE(helper.map().empty());
}

// Files for the reading layer, in a unique temporary directory.
class TzifFile : public ::testing::Test {
 protected:
  TzifFile() : tmp_("zk3_date"), dir_(tmp_.root()) {}
  std::string write(const std::string& name, const std::vector<unsigned char>& bytes) {
    const std::string path = tmp_.path(name);
    FILE* f = std::fopen(path.c_str(), "wb");
    EXPECT_NE(nullptr, f);
    if (f == nullptr) return path;
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    return path;
  }
  // The name that reaches path from the zone directory: names are not
  // examined, so "../.." leads out of it.
  static std::string zoneName(const std::string& path) { return "../../.." + path; }

  zk3test::TempDir tmp_;
  std::string dir_;
};

TEST_F(TzifFile, ReadsAFileByName) {
  const std::string path = write("ny", zk3test::newYork2010And2011().bytes());
  TziMap map;
  EXPECT_FALSE(AHistoricalTimezoneHelper::LoadUnixHistTZI(map, zoneName(path).c_str()));
  EXPECT_EQ(2u, map.size());
  for (auto& entry : map) delete entry.second;
}

TEST_F(TzifFile, MissingEmptyShortAndUnreadableFiles) {
  TziMap map;
  EXPECT_TRUE(zelkit3::date::detail::loadTzifFile((dir_ + "/none").c_str(), map));
  EXPECT_TRUE(zelkit3::date::detail::loadTzifFile(write("empty", {}).c_str(), map));
  std::vector<unsigned char> bytes = zk3test::newYork2010And2011().bytes();
  bytes.pop_back();
  EXPECT_TRUE(zelkit3::date::detail::loadTzifFile(write("short", bytes).c_str(), map));
  // A directory: stat and open succeed, read fails.
  EXPECT_TRUE(zelkit3::date::detail::loadTzifFile(dir_.c_str(), map));
  EXPECT_TRUE(map.empty());
  EXPECT_FALSE(AHistoricalTimezoneHelper::LoadWindowsHistTZI(map, "America/New_York"));
  EXPECT_FALSE(AHistoricalTimezoneHelper::LoadSingleTZI(map, "America/New_York"));
  EXPECT_TRUE(map.empty());
}

TEST_F(TzifFile, ShortReadIsTreatedAsAFailedRead) {
  // sysfs reports a size of a page but yields a few bytes.
  const char* path = "/sys/kernel/mm/transparent_hugepage/enabled";
  struct stat st;
  if (stat(path, &st) != 0 || st.st_size <= 0) GTEST_SKIP() << "no sysfs file with a short read";
  TziMap map;
  EXPECT_TRUE(zelkit3::date::detail::loadTzifFile(path, map));
  EXPECT_TRUE(map.empty());
}

// Sanitizer allocators report a request this large and abort, instead of
// failing it with std::bad_alloc.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZK3_HUGE_ALLOCATIONS_ABORT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZK3_HUGE_ALLOCATIONS_ABORT 1
#endif
#endif

TEST_F(TzifFile, ABufferThatCannotBeAllocatedIsTreatedAsAFailedRead) {
#ifdef ZK3_HUGE_ALLOCATIONS_ABORT
  GTEST_SKIP() << "the sanitizer's allocator aborts on a size no memory holds";
#else
  // A sparse file of 2^62 bytes on tmpfs, which costs no memory. On x86_64
  // no address space holds its buffer; on i386 (32-bit off_t) stat already
  // refuses its size. Either way the file is not loaded.
  char path[] = "/dev/shm/zk3_date_huge_XXXXXX";
  const int fd = mkstemp64(path);  // the 64 forms: the size is past 32-bit off_t
  if (fd < 0) GTEST_SKIP() << "no /dev/shm to hold a sparse file";
  const bool sized = ftruncate64(fd, static_cast<off64_t>(1) << 62) == 0;
  close(fd);
  if (!sized) {
    unlink(path);
    GTEST_SKIP() << "/dev/shm refuses a file of 2^62 bytes";
  }
  TziMap map;
  EXPECT_TRUE(zelkit3::date::detail::loadTzifFile(path, map));
  EXPECT_TRUE(map.empty());
  unlink(path);
#endif
}

TEST_F(TzifFile, NamesAreCutAt129Characters) {
  // A name of exactly 129 characters that reaches a file in our directory.
  std::string name = zoneName(dir_) + "/";
  ASSERT_LT(name.size(), 120u);
  name += std::string(129 - name.size(), 'z');
  ASSERT_EQ(129u, name.size());
  const std::string path = write(name.substr(zoneName(dir_).size() + 1), zk3test::newYork2010And2011().bytes());

  char built[zelkit3::date::detail::kZonePathSize];
  zelkit3::date::detail::buildZonePath(name.c_str(), built);
  EXPECT_EQ("/usr/share/zoneinfo/" + name, std::string(built));

  for (size_t extra : {0, 1, 2, 100, 5000}) {
    const std::string longer = name + std::string(extra, 'q');
    zelkit3::date::detail::buildZonePath(longer.c_str(), built);
    EXPECT_EQ("/usr/share/zoneinfo/" + name, std::string(built)) << extra;
    TziMap map;
    EXPECT_FALSE(AHistoricalTimezoneHelper::LoadUnixHistTZI(map, longer.c_str())) << extra;
    EXPECT_EQ(2u, map.size());
    for (auto& entry : map) delete entry.second;
  }
  // One character short of the file's name finds nothing.
  TziMap map;
  EXPECT_TRUE(AHistoricalTimezoneHelper::LoadUnixHistTZI(map, name.substr(0, 128).c_str()));
  zelkit3::date::detail::buildZonePath(nullptr, built);
  EXPECT_STREQ("/etc/localtime", built);
}

}  // namespace

namespace {

// Every crafted file of the regression corpus parses without reading outside
// its bytes, and the results are those the file was made for.
TEST(TzifCorpus, CraftedFilesParseSafely) {
  const struct {
    const char* file;
    bool result;
    size_t records;
  } cases[] = {{"ny_2010_2011.tzif", false, 2},          {"ny_no_magic.tzif", false, 2},
               {"truncated_by_one.tzif", true, 0},        {"header_only.tzif", true, 0},
               {"type_index_past_typecnt.tzif", true, 0}, {"timecnt_near_2_32.tzif", true, 0},
               {"sum_wraps_32_bits.tzif", true, 0},       {"charcnt_max.tzif", true, 0},
               {"extreme_offsets.tzif", false, 2},        {"empty.tzif", true, 0},
               {"three_bytes.tzif", true, 0}};
  for (const auto& c : cases) {
    const std::string path = std::string(ZK3_SOURCE_DIR "/tests/date/data/corpus/") + c.file;
    FILE* f = std::fopen(path.c_str(), "rb");
    ASSERT_NE(nullptr, f) << path;
    std::vector<unsigned char> bytes;
    for (int ch; (ch = std::fgetc(f)) != EOF;) bytes.push_back(static_cast<unsigned char>(ch));
    std::fclose(f);
    // An exact-size heap copy, so that ASan sees any read past the end.
    std::unique_ptr<unsigned char[]> exact(new unsigned char[bytes.size() + 1]);
    if (!bytes.empty()) std::memcpy(exact.get(), bytes.data(), bytes.size());
    TziMap map;
    EXPECT_EQ(c.result, parseTzif(exact.get(), bytes.size(), map)) << c.file;
    EXPECT_EQ(c.records, map.size()) << c.file;
    for (auto& entry : map) delete entry.second;
    // The file layer agrees with the parser.
    TziMap fromFile;
    EXPECT_EQ(c.result, zelkit3::date::detail::loadTzifFile(path.c_str(), fromFile)) << c.file;
    for (auto& entry : fromFile) delete entry.second;
  }
}

}  // namespace
