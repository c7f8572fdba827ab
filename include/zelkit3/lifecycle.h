// zelkit3/lifecycle.h - the load and unload hooks of libzelkit3.
//
// The library needs no start-up call: the loader runs ZelKit3AtLoad before
// any static object of the library is built, and ZelKit3AtUnload before any
// is destroyed when the library is closed. Both may also be called by name,
// on one thread, while no other thread uses the event functions:
//   * a second ZelKit3AtLoad keeps the event lock and table and only adds a
//     user to the time-zone factory;
//   * one ZelKit3AtUnload takes down the event lock and table whatever the
//     number of loads, drops one factory user and writes "performance.log"
//     if records exist; the event functions must not be called after it
//     until the next ZelKit3AtLoad;
//   * a second ZelKit3AtUnload finds nothing to take down and writes nothing.
#ifndef ZELKIT3_LIFECYCLE_H
#define ZELKIT3_LIFECYCLE_H

#include "zelkit3/export.h"
#include "zelkit3/mutex.h"

ZK3_API void ZelKit3AtLoad();
ZK3_API void ZelKit3AtUnload();

// Guards the library's table of events; no code outside the event functions
// and the unload hook takes it.
extern ZK3_API zelkit3::Mutex mAccessMutex;

#endif  // ZELKIT3_LIFECYCLE_H
