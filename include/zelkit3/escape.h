// zelkit3/escape.h - percent-escaping of text data.
//
// CEscapeDataHelper writes a fixed set of bytes as '%' and two upper-case
// hexadecimal digits: every byte outside 0x20..0x7E, and '%', '&' and '+',
// unless isalnum (in the calling thread's locale, given the byte as a signed
// char) says it is a letter or digit. The blank and all other punctuation
// ('=', '?', '/', '#', ...) pass unchanged. There is no way back.
//
// Thread-safety: stateless; every member may be called from any thread.
// Lifetime: the singleton is made at the first getInst and never deleted.
#ifndef ZELKIT3_ESCAPE_H
#define ZELKIT3_ESCAPE_H

#include <string>

#include "zelkit3/export.h"

namespace zelkit3 {

class ZK3_API CEscapeDataHelper {
 public:
  // Does nothing; the class holds no state.
  CEscapeDataHelper();

  // The shared instance, made at the first call; never null. Callers racing
  // on the first call all get the same instance.
  static CEscapeDataHelper* getInst();

  // True if c is written escaped (see the banner).
  bool needEscape(char c);

  // text with every byte that needEscape selects written as "%XX"; the
  // empty string for a null text. Throws std::bad_alloc if memory runs out.
  std::string escapeData(const char* text);

  // The singleton, null until the first getInst.
  static CEscapeDataHelper* s_pInst;
};

}  // namespace zelkit3

#endif  // ZELKIT3_ESCAPE_H
