// Percent-escaping of text data.
#include "zelkit3/escape.h"

#include <ctype.h>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

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
    for (int b = 0; b < 256; ++b)
      maybe[b] = (b < 0x20 || b > 0x7E || b == 0x25 || b == 0x26 || b == 0x2B) ? 1 : 0;
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
  bool operator()(unsigned char b) const { return mAnyCandidate && isAlnum(b); }
  // Long texts: learns once whether any candidate byte is alphanumeric in
  // this locale (none is in "C" or UTF-8 locales); if none is, every
  // candidate is escaped without a look at the table.
  void learnCandidates();
  bool anyCandidate() const { return mAnyCandidate; }

 private:
  bool isAlnum(unsigned char b) const {
    return (mTable[static_cast<signed char>(b)] & static_cast<unsigned short>(_ISalnum)) != 0;
  }
  const unsigned short* mTable;
  bool mAnyCandidate = true;
#else
  bool operator()(unsigned char b) const { return isalnum(static_cast<signed char>(b)) != 0; }
  void learnCandidates() {}
  bool anyCandidate() const { return true; }
#endif
};

#ifdef __GLIBC__
void AlnumTest::learnCandidates() {
  // The candidates are 0x01..0x1F, '%', '&', '+', 0x7F and 0x80..0xFF; the
  // last range sits at indices -128..-1 as signed chars. OR-reduced in two
  // contiguous stretches, which the compiler vectorises.
  unsigned bits = 0;
  for (int i = -128; i < 0; ++i) bits |= mTable[i];
  for (int i = 0x01; i < 0x20; ++i) bits |= mTable[i];
  bits |= mTable['%'] | mTable['&'] | mTable['+'] | mTable[0x7F];
  mAnyCandidate = (bits & static_cast<unsigned short>(_ISalnum)) != 0;
}
#endif

#ifdef __SSE2__
// Bit k set when text[k] is a candidate, for the 16 bytes at text.
inline unsigned candidateMask(const unsigned char* text) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  // A signed compare catches 0x00..0x1F and 0x80..0xFF at once.
  const __m128i outside =
      _mm_or_si128(_mm_cmplt_epi8(v, _mm_set1_epi8(0x20)), _mm_cmpeq_epi8(v, _mm_set1_epi8(0x7F)));
  const __m128i special = _mm_or_si128(
      _mm_cmpeq_epi8(v, _mm_set1_epi8('%')),
      _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('&')), _mm_cmpeq_epi8(v, _mm_set1_epi8('+'))));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(outside, special)));
}
#endif

// The number of bytes of text[0, length) that are written escaped. Text is
// mostly long runs of plain bytes, so 16 bytes are classified at a time where
// SSE2 exists.
std::size_t countEscaped(const unsigned char* text, std::size_t length, const AlnumTest& isAlnum) {
  std::size_t escaped = 0;
  std::size_t i = 0;
#ifdef __SSE2__
  if (!isAlnum.anyCandidate()) {
    for (; i + 16 <= length; i += 16)
      escaped += static_cast<std::size_t>(__builtin_popcount(candidateMask(text + i)));
  }
  for (; i + 16 <= length; i += 16) {
    for (unsigned mask = candidateMask(text + i); mask != 0; mask &= mask - 1)
      escaped += isAlnum(text[i + static_cast<std::size_t>(__builtin_ctz(mask))]) ? 0 : 1;
  }
#endif
  for (; i < length; ++i) escaped += (kCandidates.maybe[text[i]] != 0 && !isAlnum(text[i])) ? 1 : 0;
  return escaped;
}

// Writes one byte, escaped or not; returns the new end of out.
inline char* put(char* out, unsigned char b, const AlnumTest& isAlnum) {
  if (kCandidates.maybe[b] != 0 && !isAlnum(b)) {
    out[0] = '%';
    out[1] = kHexDigits[b >> 4];
    out[2] = kHexDigits[b & 0x0F];
    return out + 3;
  }
  *out = static_cast<char>(b);
  return out + 1;
}

const std::size_t kOnePassLimit = 1024;

// Writes the escaped form of text[0, length) to out, which has room for it;
// returns the end of what was written. Blocks of 16 plain bytes are gathered
// into runs copied whole; a block with a candidate goes byte by byte.
char* writeEscaped(const unsigned char* text, std::size_t length, char* out,
                   const AlnumTest& isAlnum) {
  std::size_t run = 0;  // start of the plain bytes not yet copied
  std::size_t i = 0;
#ifdef __SSE2__
  for (; i + 16 <= length; i += 16) {
    if (candidateMask(text + i) == 0) continue;
    if (i != run) {
      std::memcpy(out, text + run, i - run);
      out += i - run;
    }
    for (std::size_t k = i; k != i + 16; ++k) out = put(out, text[k], isAlnum);
    run = i + 16;
  }
#endif
  std::memcpy(out, text + run, i - run);
  out += i - run;
  for (; i < length; ++i) out = put(out, text[i], isAlnum);
  return out;
}

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
  AlnumTest isAlnum;
  const unsigned char* const begin = reinterpret_cast<const unsigned char*>(text);
  const std::size_t length = std::strlen(text);

  // Short texts: one pass into room for the worst case (every byte
  // escaped), trimmed afterwards; the slack is at most 2 * kOnePassLimit.
  if (length <= kOnePassLimit) {
    std::string out(3 * length, '\0');
    out.resize(static_cast<std::size_t>(writeEscaped(begin, length, &out[0], isAlnum) - &out[0]));
    return out;
  }

  // Longer texts: count the escaped bytes first, so that the result is
  // allocated once at its exact size. Both passes use the same
  // classification table, so they agree on every byte.
  isAlnum.learnCandidates();
  const std::size_t escaped = countEscaped(begin, length, isAlnum);
  if (escaped == 0) return std::string(text, length);
  if (escaped > (std::numeric_limits<std::size_t>::max() / 2) - length) throw std::bad_alloc();
  std::string out(length + 2 * escaped, '\0');
  writeEscaped(begin, length, &out[0], isAlnum);
  return out;
}

}  // namespace zelkit3
