#include "zelkit3/assert.h"

#include <sstream>
#include <string>

namespace {

// The composed text has no place in the exception, whose layout and what()
// stay those of std::exception; it is kept per thread for a handler there.
thread_local std::string tLastText;

}  // namespace

AssertException3::AssertException3() {}

AssertException3::~AssertException3() throw() {}

const char* AssertException3::getClass() { return "AssertException"; }

assert_zk3::assert_zk3(const void* pointer) {
  if (pointer == nullptr) throwException(nullptr);
}

assert_zk3::assert_zk3(bool condition, const char* function, const char* file, int line) {
  if (condition) return;
  if (function == nullptr) throwException(nullptr);
  std::ostringstream text;
  text << "Assert exception in function " << function << " in the file "
       << (file != nullptr ? file : "(null)") << ", line " << line;
  const std::string composed = text.str();
  throwException(composed.c_str());
}

void assert_zk3::isTrue(bool condition, const char* text) {
  if (!condition) throwException(text);
}

void assert_zk3::throwException(const char* text) {
  // Stored before the throw: an allocation failure here still leaves by
  // std::bad_alloc, as any failure to build the text does.
  if (text != nullptr) {
    tLastText = text;
  } else {
    tLastText.clear();
  }
  throw AssertException3();
}

const char* assert_zk3::lastText() { return tLastText.c_str(); }
