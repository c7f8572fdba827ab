// Reading a zone file for the TZif parser. Internal: never installed.
#ifndef ZELKIT3_SRC_DATE_TZ_FILE_H
#define ZELKIT3_SRC_DATE_TZ_FILE_H

#include <stddef.h>

#include "date/tzif_parser.h"

namespace zelkit3 {
namespace date {
namespace detail {

// A zone name is used up to this many characters; the path buffer holds the
// zone directory, that much of the name and the terminating zero.
constexpr size_t kMaxZoneNameLength = 129;
constexpr size_t kZonePathSize = 150;

// "/etc/localtime" for a null name, else "/usr/share/zoneinfo/" followed by
// at most kMaxZoneNameLength characters of name, unexamined.
void buildZonePath(const char* name, char (&path)[kZonePathSize]);

// Reads the whole file at path in one read and parses it into tzi. True if
// stat, open or read fail, the size is 0, the read is short, the buffer
// can't be allocated, or the parser refuses the bytes; false otherwise.
// std::bad_alloc from the parser passes out, with the records made so far in
// tzi.
bool loadTzifFile(const char* path, TziMap& tzi);

}  // namespace detail
}  // namespace date
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_DATE_TZ_FILE_H
