// Steps shared by String and EncodeSet. Internal: never installed.
#ifndef ZELKIT3_SRC_TEXT_TEXT_INTERNAL_H
#define ZELKIT3_SRC_TEXT_TEXT_INTERNAL_H

#include "zelkit3/string.h"

namespace zelkit3 {
namespace detail {

// The slot for wanted, filled through the system form if it is empty, or
// null if it cannot be filled. Clears the set's error first. Throws
// std::runtime_error from createFromSystem when the system form is absent.
const nmstring::_string* formOf(const nmstring::EncodeSet* set, nmstring::Encoding wanted);

// Stores code in the set's mLastError. Relaxed atomics, and no write when
// the value is already there: the to* operations of threads sharing a set
// (sEmpty above all) then never race, as in this build the code is always 0.
void setLastError(const nmstring::EncodeSet* set, String::ErrorCode code);
String::ErrorCode getLastError(const nmstring::EncodeSet* set);

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_TEXT_TEXT_INTERNAL_H
