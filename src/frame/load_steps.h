// The frame's step at unload, for the load hooks. Internal: never installed.
#ifndef ZELKIT3_SRC_FRAME_LOAD_STEPS_H
#define ZELKIT3_SRC_FRAME_LOAD_STEPS_H

namespace zelkit3 {
namespace detail {

// Writes "performance.log" if the report singleton holds records, then
// destroys the singleton (made first if there was none). Never throws for a
// file that cannot be written. Defined beside PerformanceLogger.
void finishPerformanceReport();

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_FRAME_LOAD_STEPS_H
