// The load and unload hooks: the one place that knows every family, and the
// order in which the library's process-wide state comes and goes.
//
// At load, before any static object of the library:
//   1. events: the event lock and the event table
//   2. dates: the zone factory's first reference
//   then the static objects, in the order of base/init_order.h.
// At unload, before the static destructors:
//   1. threads: a bounded wait for workers of pools that ended asynchronously
//   2. dates: the zone factory's last reference
//   3. events: the event table, then the event lock
//   4. frame: "performance.log", if records exist, and the report singleton
#include "base/init_order.h"
#include "date/load_steps.h"
#include "frame/load_steps.h"
#include "threads/load_steps.h"
#include "win_emul/load_steps.h"
#include "zelkit3/lifecycle.h"

// First in .init_array after the runtime's own entry: runs before every
// static object of the library, so it touches none of them.
__attribute__((constructor(ZK3_INIT_AT_LOAD))) void ZelKit3AtLoad() {
  zelkit3::detail::eventsAtLoad();
  zelkit3::detail::zonesAtLoad();
}

// Last in .fini_array, so it runs first when the library is closed, before
// the registered destructors. At process exit the runtime may have run those
// destructors already; the event steps then skip the destroyed mAccessMutex.
__attribute__((destructor)) void ZelKit3AtUnload() {
  // Workers may still be closing their events: they go before the table. At
  // process exit an exit handler has waited already; on dlclose only this.
  zelkit3::detail::workersAtUnload();
  zelkit3::detail::zonesAtUnload();
  zelkit3::detail::eventsAtUnload();
  zelkit3::detail::finishPerformanceReport();
}
