// The "_s" runtime functions on top of the POSIX ones.
#include "zelkit3/safe_crt.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <cstddef>

namespace zelkit3 {
namespace win_emul {

namespace {

int fail(int error) {
  errno = error;
  return error;
}

// Applies toupper or tolower to each byte. The byte goes in as a signed char, the way
// the runtime being emulated hands it over, so bytes from 0x80 up reach the
// locale's tables (glibc's tables accept -128..255).
int convertCase(char* text, unsigned int size, bool upper) {
  if (text == nullptr) return fail(EINVAL);
  // strnlen: only a length above size matters, so never read past size + 1.
  const size_t length = strnlen(text, static_cast<size_t>(size) + 1);
  if (length > size) return fail(ERANGE);
  for (size_t i = 0; i < length; ++i) {
    // NOLINTNEXTLINE(bugprone-signed-char-misuse): signed on purpose, see above
    const int byte = static_cast<signed char>(text[i]);
    text[i] = static_cast<char>(upper ? toupper(byte) : tolower(byte));
  }
  return 0;
}

}  // namespace

int fopen_s(FILE** file, const char* path, const char* mode) {
  if (file == nullptr || path == nullptr || mode == nullptr) return fail(EINVAL);
  *file = fopen(path, mode);
  // Whatever the cause, the caller sees "not found": that is the contract the
  // emulated runtime's callers were written against.
  if (*file == nullptr) return fail(ENOENT);
  return 0;
}

int freopen_s(FILE** file, const char* path, const char* mode, FILE* stream) {
  *file = freopen(path, mode, stream);
  if (*file == nullptr) return errno;
  return 0;
}

int _sopen_s(int* descriptor, const char* path, int flags, int permissions, int /*extra*/) {
  if (descriptor == nullptr || path == nullptr) return fail(EINVAL);
  *descriptor = open(path, flags, permissions);
  if (*descriptor == -1) return errno;
  return 0;
}

int _strlwr_s(char* text, unsigned int size) { return convertCase(text, size, false); }

int _strupr_s(char* text, unsigned int size) { return convertCase(text, size, true); }

int strcpy_s(char* target, unsigned int size, const char* source) {
  if (target == nullptr || size == 0 || source == nullptr) return fail(EINVAL);
  // A source that does not fit is refused whole, not cut: ERANGE, target as it was.
  const size_t length = strnlen(source, size);
  if (length == size) return fail(ERANGE);
  memmove(target, source, length + 1);
  return 0;
}

int strncpy_s(char* target, unsigned int size, const char* source, unsigned int count) {
  if (target == nullptr || size == 0 || source == nullptr || size < count) return fail(EINVAL);
  strncpy(target, source, count);
  return 0;
}

int strcat_s(char* target, unsigned int size, const char* source) {
  if (target == nullptr || size == 0 || source == nullptr) return fail(EINVAL);
  const size_t used = strnlen(target, size);
  // An unterminated target has no end to append at.
  if (used == size) return fail(EINVAL);
  // A result that does not fit is refused whole: ERANGE, target as it was.
  const size_t room = size - used;
  const size_t length = strnlen(source, room);
  if (length == room) return fail(ERANGE);
  memmove(target + used, source, length + 1);
  return 0;
}

}  // namespace win_emul
}  // namespace zelkit3
