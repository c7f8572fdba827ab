// String: one pointer to a shared, counted EncodeSet.
#include "zelkit3/string.h"

#include "text/text_internal.h"

namespace zelkit3 {

using nmstring::_string;
using nmstring::EncodeSet;

namespace {

// The shared empty set is outside the count: it is never raised nor lowered.
inline void retain(EncodeSet* set) {
  if (set != EncodeSet::sEmpty) set->mRef->incrementRef();
}

// Drops one reference; the last one destroys the count object, then the set.
// Nothing here throws.
inline void releaseSet(EncodeSet* set) noexcept {
  if (set == EncodeSet::sEmpty) return;
  if (set->mRef->decrementRef() == 0) {
    delete set->mRef;
    set->mRef = nullptr;
    set->dispose();
  }
}

}  // namespace

String::String() : mEncodeSet(EncodeSet::sEmpty) {}

// A null set has no text of its own: it stands for the empty text, so that
// mEncodeSet is never null.
String::String(EncodeSet* set) : mEncodeSet(set != nullptr ? set : EncodeSet::sEmpty) {}

String::String(const String& other) : mEncodeSet(other.mEncodeSet) { retain(mEncodeSet); }

String::~String() { releaseSet(mEncodeSet); }

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the equal-set test covers it
String& String::operator=(const String& other) {
  EncodeSet* const incoming = other.mEncodeSet;
  if (incoming == mEncodeSet) return *this;
  retain(incoming);
  // Raised before the old set is released, so assigning from a String that
  // lives inside the old set's last owner stays safe.
  EncodeSet* const old = mEncodeSet;
  mEncodeSet = incoming;
  releaseSet(old);
  return *this;
}

String String::operator+(const String& other) const {
  return String(EncodeSet::concat(mEncodeSet, other.mEncodeSet));
}

const char* String::toASCII() const {
  const _string* form = detail::formOf(mEncodeSet, nmstring::ENCODING_ASCII);
  return form != nullptr ? form->chars() : nullptr;
}

const char* String::toUTF8() const {
  const _string* form = detail::formOf(mEncodeSet, nmstring::ENCODING_UTF8);
  return form != nullptr ? form->chars() : nullptr;
}

const wchar_t* String::toWideChar() const {
  const _string* form = detail::formOf(mEncodeSet, nmstring::ENCODING_WIDE_CHAR);
  return form != nullptr ? form->wide() : nullptr;
}

std::uint32_t String::getLength() const { return mEncodeSet->mLength; }

String::ErrorCode String::getErrorCode() const { return detail::getLastError(mEncodeSet); }

int String::compare(const String& other) const { return mEncodeSet->compare(other.mEncodeSet); }

bool String::operator==(const String& other) const { return compare(other) == 0; }
bool String::operator!=(const String& other) const { return compare(other) != 0; }
bool String::operator<(const String& other) const { return compare(other) < 0; }
bool String::operator>(const String& other) const { return compare(other) > 0; }

// The factories of EncodeSet take a null text as the empty text.
String String::fromASCII(const char* text) { return String(EncodeSet::fromASCII(text)); }

String String::fromUTF8(const char* text) { return String(EncodeSet::fromUTF8(text)); }

String String::fromWideChar(const wchar_t* text) { return String(EncodeSet::fromWideChar(text)); }

}  // namespace zelkit3
