// The event functions' steps at load and unload, for the load hooks.
// Internal: never installed.
#ifndef ZELKIT3_SRC_WIN_EMUL_LOAD_STEPS_H
#define ZELKIT3_SRC_WIN_EMUL_LOAD_STEPS_H

namespace zelkit3 {
namespace detail {

// Creates the event lock and the event table, where they do not exist yet.
void eventsAtLoad();
// Removes the event table (the events in it are neither closed nor
// destroyed) and then the event lock. Harmless when they are gone already.
void eventsAtUnload();

}  // namespace detail
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_WIN_EMUL_LOAD_STEPS_H
