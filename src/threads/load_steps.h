// The threads family's step at unload, for the load hooks. Internal.
#ifndef ZELKIT3_SRC_THREADS_LOAD_STEPS_H
#define ZELKIT3_SRC_THREADS_LOAD_STEPS_H

namespace zelkit3 {
namespace detail {

// Waits, for at most 5 s, until worker threads of pools that ended
// asynchronously have left the library's code: they may still be closing
// their events, and an unload must not unmap code that they run.
void workersAtUnload();

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_THREADS_LOAD_STEPS_H
