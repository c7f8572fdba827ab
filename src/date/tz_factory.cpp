#include "zelkit3/timezone.h"

unsigned int HistoricalTZHelpersFactory::s_dwRef = 0;

unsigned int HistoricalTZHelpersFactory::addRef() {
  return __atomic_add_fetch(&s_dwRef, 1u, __ATOMIC_ACQ_REL);
}

unsigned int HistoricalTZHelpersFactory::release() {
  return __atomic_sub_fetch(&s_dwRef, 1u, __ATOMIC_ACQ_REL);
}
