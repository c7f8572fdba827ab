// The shared text behind String, the conversion seam and the empty set.
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <limits>
#include <new>
#include <stdexcept>

#include "base/init_order.h"
#include "text/text_internal.h"
#include "zelkit3/string.h"

namespace zelkit3 {
namespace nmstring {

namespace {

const char kNoSystemForm[] = "System encoding should be exist!";

std::uint32_t checkedLength(std::size_t length) {
  // mLength is 32 bits on both ABIs; a longer text cannot be described.
  if (length > std::numeric_limits<std::uint32_t>::max())
    throw std::length_error("zelkit3::String: text longer than 2^32-1 units");
  return static_cast<std::uint32_t>(length);
}

// Wraps a fresh buffer (or the null of a failed strdup/wcsdup/malloc) in a
// new set. A null buffer is never stored: it becomes std::bad_alloc, so no
// later step writes through or reads from it.
EncodeSet* adopt(void* buffer, Encoding slot, std::uint32_t length) {
  if (buffer == nullptr) throw std::bad_alloc();
  EncodeSet* set;
  try {
    set = new EncodeSet();
  } catch (...) {
    std::free(buffer);
    throw;
  }
  set->mForms[slot].mText = buffer;
  set->mLength = length;
  return set;
}

}  // namespace

const Encoding Encoder::sSystemEncoding;

_string Encoder::toSystem(const _string&, Encoding, String::ErrorCode&) { return _string(); }

_string Encoder::fromSystem(const _string&, Encoding, String::ErrorCode&) { return _string(); }

EncodeSet* EncodeSet::sEmpty = nullptr;

EncodeSet::EncodeSet()
    : mForms(3), mRef(new ThreadSafeAddRef()), mLastError(String::STRING_NO_ERROR), mLength(0) {}

EncodeSet::~EncodeSet() {
  for (const _string& form : mForms) std::free(form.mText);
}

EncodeSet* EncodeSet::fromASCII(const char* text) {
  if (text == nullptr) text = "";  // no meaning of its own: the empty text
  const std::uint32_t length = checkedLength(std::strlen(text));
  return adopt(strdup(text), ENCODING_ASCII, length);
}

EncodeSet* EncodeSet::fromUTF8(const char* text) {
  if (text == nullptr) text = "";
  const std::uint32_t length = checkedLength(std::strlen(text));
  return adopt(strdup(text), ENCODING_UTF8, length);
}

EncodeSet* EncodeSet::fromWideChar(const wchar_t* text) {
  if (text == nullptr) text = L"";
  const std::uint32_t length = checkedLength(std::wcslen(text));
  return adopt(wcsdup(text), ENCODING_WIDE_CHAR, length);
}

void EncodeSet::dispose() {
  // Old callers call this through a null pointer to mean "nothing". The
  // compiler may assume `this` is never null, so hide it from the optimiser.
  EncodeSet* self = this;
  __asm__("" : "+r"(self));
  if (self != nullptr) delete self;
}

_string* EncodeSet::createSystemEncoding() const {
  _string& system = mForms[Encoder::sSystemEncoding];
  if (system.mText != nullptr) return &system;
  int source = ENCODING_WIDE_CHAR;
  while (source >= ENCODING_ASCII && mForms[source].mText == nullptr) --source;
  if (source < ENCODING_ASCII) return nullptr;
  String::ErrorCode error = String::STRING_NO_ERROR;
  const _string made = Encoder::toSystem(mForms[source], static_cast<Encoding>(source), error);
  detail::setLastError(this, error);
  if (made.mText == nullptr) return nullptr;
  system = made;
  return &system;
}

_string* EncodeSet::createFromSystem(Encoding target) const {
  _string& system = mForms[Encoder::sSystemEncoding];
  if (system.mText == nullptr) throw std::runtime_error(kNoSystemForm);
  if (target == Encoder::sSystemEncoding) return &system;
  // An encoding outside the three slots has no slot to fill.
  if (target < ENCODING_ASCII || target > ENCODING_WIDE_CHAR) return nullptr;
  // A filled slot is kept: overwriting it would leak its buffer.
  if (mForms[target].mText != nullptr) return &mForms[target];
  String::ErrorCode error = String::STRING_NO_ERROR;
  const _string made = Encoder::fromSystem(system, target, error);
  detail::setLastError(this, error);
  if (made.mText == nullptr) return nullptr;
  mForms[target] = made;
  return &mForms[target];
}

EncodeSet* EncodeSet::concat(const EncodeSet* first, const EncodeSet* second) {
  const _string* head = detail::formOf(first, ENCODING_WIDE_CHAR);
  const _string* tail = detail::formOf(second, ENCODING_WIDE_CHAR);
  if (head == nullptr || tail == nullptr) throw std::runtime_error(kNoSystemForm);
  // Copies at most mLength units and never past a terminator, so a wide
  // form that a converting Encoder made shorter than mLength is not overrun.
  const std::size_t headLength = wcsnlen(head->wide(), first->mLength);
  const std::size_t tailLength = wcsnlen(tail->wide(), second->mLength);
  const std::uint32_t length = checkedLength(headLength + tailLength);
  if (std::size_t(length) + 1 > std::numeric_limits<std::size_t>::max() / sizeof(wchar_t))
    throw std::bad_alloc();
  wchar_t* buffer = static_cast<wchar_t*>(std::malloc((std::size_t(length) + 1) * sizeof(wchar_t)));
  if (buffer != nullptr) {
    std::wmemcpy(buffer, head->wide(), headLength);
    std::wmemcpy(buffer + headLength, tail->wide(), tailLength);
    buffer[length] = L'\0';
  }
  return adopt(buffer, ENCODING_WIDE_CHAR, length);
}

int EncodeSet::compare(const EncodeSet* other) const {
  const _string& wideA = mForms[ENCODING_WIDE_CHAR];
  const _string& wideB = other->mForms[ENCODING_WIDE_CHAR];
  if (wideA.mText != nullptr && wideB.mText != nullptr)
    return compareWideChar(wideA.wide(), wideB.wide());
  const _string& utf8A = mForms[ENCODING_UTF8];
  const _string& utf8B = other->mForms[ENCODING_UTF8];
  if (utf8A.mText != nullptr && utf8B.mText != nullptr)
    return compareUTF8(utf8A.chars(), utf8B.chars());
  const _string& asciiA = mForms[ENCODING_ASCII];
  const _string& asciiB = other->mForms[ENCODING_ASCII];
  if (asciiA.mText != nullptr && asciiB.mText != nullptr)
    return compareAscii(asciiA.chars(), asciiB.chars());
  return compareSystem(this, other);
}

int EncodeSet::compareSystem(const EncodeSet* first, const EncodeSet* second) const {
  const _string* right = detail::formOf(second, ENCODING_WIDE_CHAR);
  const _string* left = detail::formOf(first, ENCODING_WIDE_CHAR);
  if (left == nullptr || right == nullptr) throw std::runtime_error(kNoSystemForm);
  return compareWideChar(left->wide(), right->wide());
}

int EncodeSet::compareWideChar(const wchar_t* first, const wchar_t* second) const {
  return std::wcscoll(first, second);
}

int EncodeSet::compareUTF8(const char* first, const char* second) const {
  return std::strcoll(first, second);
}

int EncodeSet::compareAscii(const char* first, const char* second) const {
  return std::strcoll(first, second);
}

}  // namespace nmstring

namespace detail {

void setLastError(const nmstring::EncodeSet* set, String::ErrorCode code) {
  if (__atomic_load_n(&set->mLastError, __ATOMIC_RELAXED) != code)
    __atomic_store_n(&set->mLastError, code, __ATOMIC_RELAXED);
}

String::ErrorCode getLastError(const nmstring::EncodeSet* set) {
  return __atomic_load_n(&set->mLastError, __ATOMIC_RELAXED);
}

const nmstring::_string* formOf(const nmstring::EncodeSet* set, nmstring::Encoding wanted) {
  using nmstring::Encoder;
  setLastError(set, String::STRING_NO_ERROR);
  const nmstring::_string& slot = set->mForms[wanted];
  if (slot.mText != nullptr) return &slot;
  if (set->mForms[Encoder::sSystemEncoding].mText == nullptr) set->createSystemEncoding();
  return set->createFromSystem(wanted);
}

}  // namespace detail

namespace {

// Sets sEmpty at its step of the load order. Trivially destructible, so no
// destructor is registered: the empty set lives as long as the process.
// Under LeakSanitizer it is marked as an intended leak: once a dlclose has
// unmapped the pointer to it, nothing refers to it any more.
struct EmptySetMaker {
  EmptySetMaker() {
    nmstring::EncodeSet::sEmpty = nmstring::EncodeSet::fromWideChar(L"");
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(nmstring::EncodeSet::sEmpty);
#endif
  }
};

EmptySetMaker gEmptySetMaker ZK3_INIT_PRIORITY(ZK3_INIT_ENCODE_SET);

}  // namespace

}  // namespace zelkit3
