// zelkit3/string.h - an immutable, shared text with a slot per encoding.
//
// A String is one pointer to a reference-counted nmstring::EncodeSet, which
// holds the text in up to three forms (ASCII, UTF-8, wide characters). The
// slots are meant to fill on demand through the wide form, the system
// encoding, by nmstring::Encoder. This build's Encoder converts nothing, so a
// String gives back only the form it was made from:
//
//   made from                          toASCII    toUTF8     toWideChar
//   fromASCII                          the text   throws     throws
//   fromUTF8                           throws     the text   throws
//   fromWideChar, operator+, String()  null       null       the text
//
// "throws" is std::runtime_error("System encoding should be exist!"). The
// same happens to compare, the comparison operators and operator+ when the
// two sides have no form in common (see compare and concat).
//
// Thread-safety: the count is atomic, so Strings sharing a set may be copied
// and destroyed on different threads at once. A single String object is not
// protected against concurrent assignment. getErrorCode is not meaningful
// while other threads use the same set.
//
// Lifetime: copying shares the set (one atomic increment; none for the empty
// String); the last owner frees it. Pointers returned by the to* operations
// belong to the set and live as long as it does. The shared empty set
// (EncodeSet::sEmpty) is made at load and never freed, so String() stays valid
// for the whole life of the process.
#ifndef ZELKIT3_STRING_H
#define ZELKIT3_STRING_H

#include <cstdint>
#include <vector>

#include "zelkit3/export.h"
#include "zelkit3/logger.h"

namespace zelkit3 {

namespace nmstring {

// Index of a slot of an EncodeSet. Fixed to int, so that any int value is a
// valid (if unknown) encoding.
enum Encoding : int {
  ENCODING_ASCII = 0,      // char text, zero-terminated
  ENCODING_UTF8 = 1,       // char text, zero-terminated
  ENCODING_WIDE_CHAR = 2,  // wchar_t text, zero-terminated
};

// One slot: a heap buffer from strdup, wcsdup or malloc (released with free),
// or null while the slot is empty. A plain word; copying it does not copy the
// buffer.
struct _string {
  _string() : mText(nullptr) {}
  explicit _string(void* text) : mText(text) {}

  char* chars() const { return static_cast<char*>(mText); }
  wchar_t* wide() const { return static_cast<wchar_t*>(mText); }

  void* mText;
};

class EncodeSet;

}  // namespace nmstring

class ZK3_API String {
 public:
  // The code of the last conversion on a set. Only STRING_NO_ERROR (0) is
  // produced by this build; a converting Encoder may add its own codes, which
  // the fixed int type keeps valid.
  enum ErrorCode : int {
    STRING_NO_ERROR = 0,
  };

  // The empty text (the shared EncodeSet::sEmpty); touches no count.
  String();
  // Adopts set with the caller's reference; the count is not raised. A null
  // set gives the empty String.
  explicit String(nmstring::EncodeSet* set);
  // Shares other's set: one atomic increment, none if it is the empty set.
  String(const String& other);
  // Releases the set; the last owner frees it. Never throws.
  ~String();
  // Shares other's set and releases the old one. Assigning a String that
  // already shares the set changes no count.
  String& operator=(const String& other);

  // A new String with the wide text of this one followed by that of other.
  // Throws std::runtime_error if either side has no wide form (made from
  // ASCII or UTF-8); std::bad_alloc if memory runs out.
  String operator+(const String& other) const;

  // The text in the wanted form, or null if it cannot be made; throws
  // std::runtime_error when it would need a conversion through the system
  // (wide) form and that form is absent. See the table above. The pointer
  // belongs to the set.
  const char* toASCII() const;
  const char* toUTF8() const;
  const wchar_t* toWideChar() const;

  // The length in units of the form the text was made from (bytes for ASCII
  // and UTF-8, wchar_t for wide), without the terminator.
  std::uint32_t getLength() const;
  // The code of the last conversion on this String's set.
  ErrorCode getErrorCode() const;

  // The locale's collation order (strcoll, wcscoll) of the two texts, using
  // the widest form both have; <0, 0 or >0. Throws std::runtime_error when
  // they have no form in common (see EncodeSet::compare).
  int compare(const String& other) const;
  bool operator==(const String& other) const;
  bool operator!=(const String& other) const;
  bool operator<(const String& other) const;
  bool operator>(const String& other) const;

  // A new String holding a copy of text in the given form. Null or empty text
  // gives a new set made from the empty text (not the shared empty set).
  // Throws std::bad_alloc if memory runs out.
  static String fromASCII(const char* text);
  static String fromUTF8(const char* text);
  static String fromWideChar(const wchar_t* text);

  // The set this String refers to; never null.
  const nmstring::EncodeSet* getEncodeSet() const { return mEncodeSet; }

 private:
  nmstring::EncodeSet* mEncodeSet;
};

namespace nmstring {

// The shared, counted text behind String. Its text never changes after
// construction; only empty slots may fill. The const operations change only
// mForms (empty slots) and mLastError, which count as cache. The fields are
// managed by String and the set's own operations; read them, don't write.
class ZK3_API EncodeSet {
 public:
  // Three empty slots, a new count object with count 1, no error, length 0.
  // Throws std::bad_alloc if memory runs out.
  EncodeSet();
  // Frees every filled slot. The count object is not touched: its owner
  // destroys it first.
  ~EncodeSet();
  EncodeSet(const EncodeSet&) = delete;
  EncodeSet& operator=(const EncodeSet&) = delete;

  // A new set with count 1 holding a copy of text in slot ASCII, UTF-8 or
  // wide, and its length (strlen or wcslen) in mLength. A null text counts
  // as the empty text. Throws std::bad_alloc if memory runs out, and
  // std::length_error for a text whose length does not fit 32 bits.
  static EncodeSet* fromASCII(const char* text);
  static EncodeSet* fromUTF8(const char* text);
  static EncodeSet* fromWideChar(const wchar_t* text);

  // Destroys and frees this set (which must come from new, as all the
  // factories' sets do). Safe to call through a null pointer.
  void dispose();

  // The filled system (wide) slot, made from the highest filled slot through
  // Encoder::toSystem if needed, or null. Sets mLastError.
  _string* createSystemEncoding() const;
  // The filled slot for target, made from the system slot through
  // Encoder::fromSystem if needed, or null. Throws std::runtime_error
  // "System encoding should be exist!" if the system slot is empty.
  _string* createFromSystem(Encoding target) const;

  // A new set with count 1 holding the wide text of first followed by that
  // of second; its length is the sum of theirs. Throws std::runtime_error if
  // either has no wide form, std::bad_alloc if memory runs out.
  static EncodeSet* concat(const EncodeSet* first, const EncodeSet* second);

  // Compares by the widest form both sets have (wide, then UTF-8, then
  // ASCII); with none in common, compareSystem(this, other).
  int compare(const EncodeSet* other) const;
  // Compares the wide forms of first and second, making them if needed;
  // throws std::runtime_error if either cannot be had.
  int compareSystem(const EncodeSet* first, const EncodeSet* second) const;
  // wcscoll(first, second).
  int compareWideChar(const wchar_t* first, const wchar_t* second) const;
  // strcoll(first, second).
  int compareUTF8(const char* first, const char* second) const;
  // strcoll(first, second).
  int compareAscii(const char* first, const char* second) const;

  // Always exactly 3 entries, indexed by Encoding.
  mutable std::vector<_string> mForms;
  // The reference count of this set, a separate heap object; count 1 at birth.
  ThreadSafeAddRef* mRef;
  // The code of the last conversion.
  mutable String::ErrorCode mLastError;
  // Length in units of the form the set was made from; a conversion never
  // changes it.
  std::uint32_t mLength;

  // The shared empty set (wide form only), made when the library loads and
  // never freed. It is not counted: no operation changes its count.
  static EncodeSet* sEmpty;
};

// The conversion seam. This build contains no conversion: both functions
// return an empty _string and leave error untouched. A converting build
// returns a new buffer that the set owns from then on (released with free),
// or null with the reason in error.
class ZK3_API Encoder {
 public:
  // The encoding every form converts to and from.
  static const Encoding sSystemEncoding = ENCODING_WIDE_CHAR;

  // text (in encoding from) converted to the system encoding. Here: null.
  static _string toSystem(const _string& text, Encoding from, String::ErrorCode& error);
  // text (in the system encoding) converted to encoding to. Here: null.
  static _string fromSystem(const _string& text, Encoding to, String::ErrorCode& error);
};

}  // namespace nmstring
}  // namespace zelkit3

#endif  // ZELKIT3_STRING_H
