// Percent-escaping of text data.
#include "zelkit3/escape.h"

#include <ctype.h>

#include <cstring>
#include <limits>
#include <new>

namespace zelkit3 {

namespace {

// 1 for the bytes that are escaped unless the locale calls them alphanumeric:
// everything outside 0x20..0x7E, and '%', '&', '+'. Every other printable
// ASCII byte passes whatever isalnum says. (0x00 ends the text.)
struct EscapeCandidates {
  unsigned char maybe[256];
  constexpr EscapeCandidates() : maybe() {
    for (int b = 0; b < 256; ++b) maybe[b] = (b < 0x20 || b > 0x7E || b == 0x25 || b == 0x26 || b == 0x2B) ? 1 : 0;
  }
};
constexpr EscapeCandidates kCandidates;

const char kHexDigits[] = "0123456789ABCDEF";

// isalnum of the byte taken as a signed char, in the calling thread's
// locale. With glibc the classification table is fetched once per call
// instead of one library call per byte; the table is indexed from -128 to
// 255, which is what makes signed chars valid there.
class AlnumTest {
 public:
#ifdef __GLIBC__
  AlnumTest() : mTable(*__ctype_b_loc()) {}
  bool operator()(unsigned char b) const {
    return (mTable[static_cast<signed char>(b)] & static_cast<unsigned short>(_ISalnum)) != 0;
  }

 private:
  const unsigned short* mTable;
#else
  bool operator()(unsigned char b) const { return isalnum(static_cast<signed char>(b)) != 0; }
#endif
};

}  // namespace

CEscapeDataHelper* CEscapeDataHelper::s_pInst = nullptr;

CEscapeDataHelper::CEscapeDataHelper() {}

CEscapeDataHelper* CEscapeDataHelper::getInst() {
  CEscapeDataHelper* inst = __atomic_load_n(&s_pInst, __ATOMIC_ACQUIRE);
  if (inst != nullptr) return inst;
  // No lock: first callers racing each make an object, one of them wins and
  // the others delete theirs, so there is neither a race nor a leak.
  CEscapeDataHelper* made = new CEscapeDataHelper();
  if (__atomic_compare_exchange_n(&s_pInst, &inst, made, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
    return made;
  delete made;
  return inst;
}

bool CEscapeDataHelper::needEscape(char c) {
  const unsigned char b = static_cast<unsigned char>(c);
  if (AlnumTest()(b)) return false;
  if (b < 0x20 || b > 0x7E) return true;
  if (b < 0x25) return false;
  return b == 0x25 || b == 0x26 || b == 0x2B;
}

std::string CEscapeDataHelper::escapeData(const char* text) {
  if (text == nullptr) return std::string();
  const AlnumTest isAlnum;
  const unsigned char* const begin = reinterpret_cast<const unsigned char*>(text);

  // Pass 1: length and number of escaped bytes, so that the result is
  // allocated once at its exact size. Both passes use the same table.
  std::size_t length = 0;
  std::size_t escaped = 0;
  for (const unsigned char* p = begin; *p != 0; ++p, ++length)
    escaped += (kCandidates.maybe[*p] != 0 && !isAlnum(*p)) ? 1 : 0;
  if (escaped == 0) return std::string(text, length);
  if (escaped > (std::numeric_limits<std::size_t>::max() / 2) - length) throw std::bad_alloc();

  // Pass 2: copy runs that pass, expand the others.
  std::string out(length + 2 * escaped, '\0');
  char* o = &out[0];
  const unsigned char* run = begin;
  const unsigned char* const end = begin + length;
  for (const unsigned char* p = begin; p != end; ++p) {
    const unsigned char b = *p;
    if (kCandidates.maybe[b] == 0 || isAlnum(b)) continue;
    const std::size_t runLength = static_cast<std::size_t>(p - run);
    std::memcpy(o, run, runLength);
    o += runLength;
    o[0] = '%';
    o[1] = kHexDigits[b >> 4];
    o[2] = kHexDigits[b & 0x0F];
    o += 3;
    run = p + 1;
  }
  std::memcpy(o, run, static_cast<std::size_t>(end - run));
  return out;
}

}  // namespace zelkit3
