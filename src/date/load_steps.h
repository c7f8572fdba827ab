// The date family's steps at load and unload, for the load hooks. Internal.
#ifndef ZELKIT3_SRC_DATE_LOAD_STEPS_H
#define ZELKIT3_SRC_DATE_LOAD_STEPS_H

#include "zelkit3/timezone.h"

namespace zelkit3 {
namespace detail {

// Takes the load's reference on the zone factory, which reads
// "/etc/localtime" and the "America/New_York" zone file.
inline void zonesAtLoad() { HistoricalTZHelpersFactory::addRef(); }
// Gives that reference back; the factory frees its helpers at 0.
inline void zonesAtUnload() { HistoricalTZHelpersFactory::release(); }

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_DATE_LOAD_STEPS_H
