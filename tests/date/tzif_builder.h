// Builds TZif images in memory for the parser's tests and the golden file.
#ifndef ZELKIT3_TESTS_DATE_TZIF_BUILDER_H
#define ZELKIT3_TESTS_DATE_TZIF_BUILDER_H

#include <cstdint>
#include <string>
#include <vector>

namespace zk3test {

struct TzifType {
  int32_t utoff;
  bool isdst;
};

struct TzifTransition {
  int64_t time;  // stored as signed 32 bits
  uint8_t type;
};

struct TzifImage {
  bool magic = true;  // false: the four-bytes-shorter layout without "TZif"
  std::vector<TzifTransition> transitions;
  std::vector<TzifType> types;
  std::string designations = "LMT";
  // When set, these replace the counts computed from the vectors.
  bool overrideCounts = false;
  uint32_t timecnt = 0, typecnt = 0, charcnt = 0;

  std::vector<unsigned char> bytes() const {
    std::vector<unsigned char> out;
    auto u32 = [&out](uint32_t v) {
      for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(v >> shift));
    };
    out.reserve(64 + 5 * transitions.size() + 6 * types.size() + designations.size());
    static const char kMagic[] = "TZif2";
    for (int k = 0; k < 20; ++k) {
      out.push_back(static_cast<unsigned char>(magic && k < 5 ? kMagic[k] : 0));
    }
    u32(0);  // isutcnt
    u32(0);  // isstdcnt
    if (magic) u32(0);  // leapcnt; the shorter layout has its counts 4 bytes earlier
    u32(overrideCounts ? timecnt : static_cast<uint32_t>(transitions.size()));
    u32(overrideCounts ? typecnt : static_cast<uint32_t>(types.size()));
    u32(overrideCounts ? charcnt : static_cast<uint32_t>(designations.size()));
    for (const TzifTransition& t : transitions) u32(static_cast<uint32_t>(static_cast<int32_t>(t.time)));
    for (const TzifTransition& t : transitions) out.push_back(t.type);
    for (const TzifType& t : types) {
      u32(static_cast<uint32_t>(t.utoff));
      out.push_back(t.isdst ? 1 : 0);
      out.push_back(0);
    }
    for (char c : designations) out.push_back(static_cast<unsigned char>(c));
    return out;
  }
};

// New York in 2010 and 2011: the example of the zone loader's documentation.
inline TzifImage newYork2010And2011() {
  TzifImage image;
  image.types = {{-18000, false}, {-14400, true}};
  image.transitions = {{1268550000, 1}, {1289109600, 0}, {1299999600, 1}, {1320559200, 0}};
  image.designations = "EST\0EDT";
  return image;
}

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_DATE_TZIF_BUILDER_H
