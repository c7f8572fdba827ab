// The one set-up of the library's recursive mutexes.
#include "base/recursive_mutex.h"

#include <gtest/gtest.h>

namespace {

// Leaves ones in the stack below the caller's frame.
__attribute__((noinline)) void dirtyTheStack() {
  volatile unsigned char junk[4096];
  for (auto& byte : junk) byte = 0xFF;
}

// In a frame where dirtyTheStack's was.
__attribute__((noinline)) void init(pthread_mutex_t* m) { zelkit3::detail::initRecursiveMutex(m); }

// The attribute object starts from its defaults, whatever an earlier call
// left on the stack: a plain recursive mutex, not a robust, process-shared
// or priority-protocol one (glibc keeps those as flag bits in __kind).
TEST(RecursiveMutex, SetUpFromDefaultsWhateverTheStackHeld) {
  pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;  // a failed init leaves a plain mutex
  dirtyTheStack();
  init(&m);
  EXPECT_EQ(PTHREAD_MUTEX_RECURSIVE_NP, m.__data.__kind);
  EXPECT_EQ(0, pthread_mutex_trylock(&m));
  EXPECT_EQ(0, pthread_mutex_trylock(&m));
  pthread_mutex_unlock(&m);
  pthread_mutex_unlock(&m);
  pthread_mutex_destroy(&m);
}

}  // namespace
