// zelkit3/timezone.h - time-zone helpers and their factory.
//
// The factory counts its users; the load hook is the first and the unload
// hook the last. (The helpers themselves are still to come.)
#ifndef ZELKIT3_TIMEZONE_H
#define ZELKIT3_TIMEZONE_H

#include "zelkit3/export.h"

class HistoricalTZHelpersFactory {
 public:
  // Adds a user; returns the new count.
  ZK3_API static unsigned int addRef();
  // Drops a user; returns the new count. The count is unsigned and wraps.
  ZK3_API static unsigned int release();

  ZK3_API static unsigned int s_dwRef;
};

#endif  // ZELKIT3_TIMEZONE_H
