// The layer that reads a zone file for the TZif parser.
#include "date/tz_file.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <vector>

#include "date/tzif_parser.h"

namespace zelkit3 {
namespace date {
namespace detail {

void buildZonePath(const char* name, char (&path)[kZonePathSize]) {
  if (name == nullptr) {
    static const char kLocalZone[] = "/etc/localtime";
    static_assert(sizeof kLocalZone <= kZonePathSize, "the local zone's path fits");
    memcpy(path, kLocalZone, sizeof kLocalZone);
    return;
  }
  static const char kZoneDir[] = "/usr/share/zoneinfo/";
  memcpy(path, kZoneDir, sizeof kZoneDir - 1);
  // strnlen: a long name is never read past its 129th character.
  const size_t length = strnlen(name, kMaxZoneNameLength);
  memcpy(path + sizeof kZoneDir - 1, name, length);
  path[sizeof kZoneDir - 1 + length] = '\0';
}

bool loadTzifFile(const char* path, TziMap& tzi) {
  // Then every positive off_t is at most PTRDIFF_MAX, the vector's max_size:
  // resize fails with std::bad_alloc only, never with std::length_error.
  static_assert(sizeof(off_t) <= sizeof(ptrdiff_t), "a file's size fits a buffer's size");
  struct stat st;
  if (stat(path, &st) != 0 || st.st_size <= 0) return true;
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return true;
  const size_t size = static_cast<size_t>(st.st_size);
  std::vector<unsigned char> buffer;
  try {
    buffer.resize(size);
  } catch (const std::bad_alloc&) {
    // A failed allocation is treated like a failed read.
    close(fd);
    return true;
  }
  const ssize_t got = read(fd, buffer.data(), size);
  close(fd);
  // A short read (the file shrank after stat) leaves the end of the buffer
  // undefined; it is treated like a failed read.
  if (got < 0 || static_cast<size_t>(got) != size) return true;
  // std::bad_alloc from the parser passes out, with the records made so far
  // in tzi for the caller to free; the buffer frees itself.
  return parseTzif(buffer.data(), size, tzi);
}

}  // namespace detail
}  // namespace date
}  // namespace zelkit3
