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


// Calls onCandidate(i), in ascending order, for every i < length whose byte
// is a candidate (see EscapeCandidates). Text is mostly long runs of plain
// bytes, so 16 bytes are classified at a time where SSE2 exists.
template <typename OnCandidate>
inline void forEachCandidate(const unsigned char* text, std::size_t length, OnCandidate onCandidate) {
  std::size_t i = 0;
#ifdef __SSE2__
  const __m128i below = _mm_set1_epi8(0x20);  // signed compare: 0x00..0x1F and 0x80..0xFF
  const __m128i del = _mm_set1_epi8(0x7F);
  const __m128i percent = _mm_set1_epi8('%');
  const __m128i ampersand = _mm_set1_epi8('&');
  const __m128i plus = _mm_set1_epi8('+');
  for (; i + 16 <= length; i += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
    const __m128i hit = _mm_or_si128(
        _mm_or_si128(_mm_cmplt_epi8(v, below), _mm_cmpeq_epi8(v, del)),
        _mm_or_si128(_mm_cmpeq_epi8(v, percent), _mm_or_si128(_mm_cmpeq_epi8(v, ampersand), _mm_cmpeq_epi8(v, plus))));
    unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
    while (mask != 0) {
      onCandidate(i + static_cast<std::size_t>(__builtin_ctz(mask)));
      mask &= mask - 1;
    }
  }
#endif
  for (; i < length; ++i)
    if (kCandidates.maybe[text[i]] != 0) onCandidate(i);
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
  const AlnumTest isAlnum;
  const unsigned char* const begin = reinterpret_cast<const unsigned char*>(text);
  const std::size_t length = std::strlen(text);

  // Pass 1: count the escaped bytes, so that the result is allocated once at
  // its exact size. Both passes use the same classification table, so they
  // agree on every byte.
  std::size_t escaped = 0;
  forEachCandidate(begin, length, [&](std::size_t i) { escaped += isAlnum(begin[i]) ? 0 : 1; });
  if (escaped == 0) return std::string(text, length);
  if (escaped > (std::numeric_limits<std::size_t>::max() / 2) - length) throw std::bad_alloc();

  // Pass 2: copy the runs between escaped bytes, expand those.
  std::string out(length + 2 * escaped, '\0');
  char* o = &out[0];
  std::size_t run = 0;
  forEachCandidate(begin, length, [&](std::size_t i) {
    const unsigned char b = begin[i];
    if (isAlnum(b)) return;
    const std::size_t plain = i - run;
    if (plain >= 16) {
      std::memcpy(o, begin + run, plain);
      o += plain;
    } else {
      // Short runs (dense escapes) are cheaper copied in place than by a call.
      for (const unsigned char* q = begin + run; q != begin + i; ++q) *o++ = static_cast<char>(*q);
    }
    o[0] = '%';
    o[1] = kHexDigits[b >> 4];
    o[2] = kHexDigits[b & 0x0F];
    o += 3;
    run = i + 1;
  });
  std::memcpy(o, begin + run, length - run);
  return out;
}

}  // namespace zelkit3
