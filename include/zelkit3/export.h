// zelkit3/export.h - the one export macro of libzelkit3.
//
// The library is built with hidden visibility: only declarations marked
// ZK3_API appear in the dynamic symbol table. Callers see the same macro as a
// plain default-visibility attribute, which is harmless on their side.
#ifndef ZELKIT3_EXPORT_H
#define ZELKIT3_EXPORT_H

#define ZK3_API __attribute__((visibility("default")))

#endif  // ZELKIT3_EXPORT_H
