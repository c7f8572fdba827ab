// zelkit3/assert.h - checks of conditions that must hold.
//
// A failed check always ends in a thrown AssertException3: nothing aborts the
// process and nothing is written anywhere. The composed text of a failed
// check is kept per thread and can be read back with assert_zk3::lastText()
// by a handler on the thrower's thread; the exception itself carries no text
// and what() is std::exception's.
//
// Thread-safety: everything here may run on any thread at once; the only
// state is the per-thread text of the last failed check.
#ifndef ZELKIT3_ASSERT_H
#define ZELKIT3_ASSERT_H

#include <exception>

#include "zelkit3/export.h"

// What every failed check throws. Catch it as AssertException3 or as
// std::exception.
class ZK3_API AssertException3 : public std::exception {
 public:
  AssertException3();
  virtual ~AssertException3() throw();
  // "AssertException", the class's name without the digit.
  virtual const char* getClass();
};

class ZK3_API assert_zk3 {
 public:
  // Throws AssertException3 if pointer is null.
  explicit assert_zk3(const void* pointer);
  // Throws AssertException3 if condition is false, after composing
  // "Assert exception in function <function> in the file <file>, line <line>".
  // A true condition looks at nothing else; a null function composes no text.
  assert_zk3(bool condition, const char* function, const char* file, int line);

  // Throws AssertException3 with text if condition is false.
  static void isTrue(bool condition, const char* text);
  // Always throws AssertException3; text (may be null) becomes lastText().
  static void throwException(const char* text);

  // The text of the last check that failed on the calling thread, or "" if
  // none has failed here or that check had no text. Valid until the next
  // failed check on this thread.
  static const char* lastText();
};

#endif  // ZELKIT3_ASSERT_H
