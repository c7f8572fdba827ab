// Placeholder until the performance report lands: there are no records, so
// the unload writes nothing.
#include "frame/lifecycle_internal.h"

namespace zelkit3 {
namespace detail {

void finishPerformanceReport() {}

}  // namespace detail
}  // namespace zelkit3
