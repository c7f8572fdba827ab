// zelkit3/safe_crt.h - the "_s" forms of the C runtime's file and string
// functions, for code written against Microsoft's runtime.
//
// Each function returns an errno value as an int, 0 for success, and stores a
// failure in errno as its row below says. The checks are exactly those listed:
// no handler is called, nothing aborts, and a failed string function leaves
// its target as it was (it is not emptied). Values are Linux's: EINVAL 22,
// ENOENT 2, ERANGE 34.
//
// The functions keep no state and may be called from any thread (errno is per
// thread). Pointers not named as checked must be valid.
#ifndef ZELKIT3_SAFE_CRT_H
#define ZELKIT3_SAFE_CRT_H

#include <stdio.h>

#include "zelkit3/export.h"

namespace zelkit3 {
namespace win_emul {

// Opens path with fopen(path, mode) into *file. Null file, path or mode:
// EINVAL (errno too), *file not written. A failed fopen: ENOENT whatever the
// cause (errno set to ENOENT as well), *file null. Success: 0, errno untouched.
ZK3_API int fopen_s(FILE** file, const char* path, const char* mode);

// *file = freopen(path, mode, stream). Checks no argument: file must not be
// null; a null path asks freopen to change the mode of stream's own file.
// Failure: the errno that freopen left (errno unchanged), *file null; stream
// is closed by freopen then (with glibc, an fclose of it still frees the
// FILE). Success: 0.
ZK3_API int freopen_s(FILE** file, const char* path, const char* mode, FILE* stream);

// *descriptor = open(path, flags, permissions); extra (a sharing mode) is not
// read. Null descriptor or path: EINVAL (errno too), *descriptor not written.
// A failed open: open's errno, *descriptor -1. Success: 0.
ZK3_API int _sopen_s(int* descriptor, const char* path, int flags, int permissions, int extra);

// Lowers every byte of text in place with tolower, bytes as signed char (so
// bytes from 0x80 up follow the locale). Null text: EINVAL. strlen(text)
// greater than size: ERANGE, text unchanged; a text of exactly size characters
// passes. Only the first size + 1 bytes of text are ever read.
ZK3_API int _strlwr_s(char* text, unsigned int size);
// The same with toupper.
ZK3_API int _strupr_s(char* text, unsigned int size);

// Copies source with its terminator into target, a buffer of size bytes.
// Null target or source, or size 0: EINVAL. A source that does not fit
// (strlen(source) >= size): ERANGE. errno is set on both failures, and target
// is then unchanged: nothing is ever written beyond target[size - 1].
ZK3_API int strcpy_s(char* target, unsigned int size, const char* source);

// Plain strncpy(target, source, count): no terminator is added, and when
// source is shorter than count the rest of the count bytes is zero-filled.
// Null target or source, size 0 or size < count: EINVAL (errno too), target
// unchanged. count == size is accepted.
ZK3_API int strncpy_s(char* target, unsigned int size, const char* source, unsigned int count);

// Appends source to the text in target, a buffer of size bytes. Null target
// or source, or size 0: EINVAL. No terminator in the first size bytes of
// target: EINVAL. The result would not fit (length of target plus
// strlen(source) >= size): ERANGE. errno is set on every failure, and target
// is then unchanged: nothing is ever written beyond target[size - 1].
ZK3_API int strcat_s(char* target, unsigned int size, const char* source);

}  // namespace win_emul
}  // namespace zelkit3

#endif  // ZELKIT3_SAFE_CRT_H
