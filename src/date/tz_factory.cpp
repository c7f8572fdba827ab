// The factory that owns every time-zone helper.
#include <memory>
#include <mutex>
#include <string>

#include "zelkit3/timezone.h"

namespace {

using HelperMap = std::map<std::string, IHistoricalTimezoneHelper*>;

// Serialises the making of helpers for new names. Readers never take it: the
// map is copy-on-write and published with release/acquire, so a lookup sees
// either the old map or the new one, each complete.
std::mutex gNewNameLock;
// Maps replaced by a newer copy. A reader may still walk one, so they live
// until cleanup, which no lookup may overlap. Guarded by gNewNameLock.
struct RetiredMap {
  HelperMap* map;
  RetiredMap* next;
};
RetiredMap* gRetiredMaps = nullptr;

HelperMap* loadMap(HelperMap* const* slot) { return __atomic_load_n(slot, __ATOMIC_ACQUIRE); }

}  // namespace

unsigned int HistoricalTZHelpersFactory::s_dwRef = 0;
HelperMap* HistoricalTZHelpersFactory::s_pHelpers = nullptr;
IHistoricalTimezoneHelper* HistoricalTZHelpersFactory::s_pLocalHelper = nullptr;
IHistoricalTimezoneHelper* HistoricalTZHelpersFactory::s_pESTHelper = nullptr;

unsigned int HistoricalTZHelpersFactory::addRef() {
  const unsigned int count = __atomic_add_fetch(&s_dwRef, 1u, __ATOMIC_ACQ_REL);
  if (count == 1) init();
  return count;
}

unsigned int HistoricalTZHelpersFactory::release() {
  const unsigned int count = __atomic_sub_fetch(&s_dwRef, 1u, __ATOMIC_ACQ_REL);
  if (count == 0) cleanup();
  return count;
}

void HistoricalTZHelpersFactory::init() {
  __atomic_store_n(&s_pHelpers, new HelperMap(), __ATOMIC_RELEASE);
  getESTHelper();
  getLocalHelper();
}

unsigned int HistoricalTZHelpersFactory::cleanup() {
  const unsigned int count = __atomic_load_n(&s_dwRef, __ATOMIC_ACQUIRE);
  ESTHistoricalTimezoneHelper::cleanup();
  LocalHistoricalTimezoneHelper::cleanup();
  s_pESTHelper = nullptr;
  s_pLocalHelper = nullptr;
  HelperMap* helpers = __atomic_exchange_n(&s_pHelpers, nullptr, __ATOMIC_ACQ_REL);
  if (helpers != nullptr) {
    for (HelperMap::iterator it = helpers->begin(); it != helpers->end(); ++it) delete it->second;
    helpers->clear();
    delete helpers;
  }
  std::lock_guard<std::mutex> lock(gNewNameLock);
  while (gRetiredMaps != nullptr) {
    RetiredMap* old = gRetiredMaps;
    gRetiredMaps = old->next;
    delete old->map;  // its helpers were freed above, through the newest map
    delete old;
  }
  return count;
}

IHistoricalTimezoneHelper* HistoricalTZHelpersFactory::getESTHelper() {
  if (s_pESTHelper == nullptr) s_pESTHelper = ESTHistoricalTimezoneHelper::getInstance();
  return s_pESTHelper;
}

IHistoricalTimezoneHelper* HistoricalTZHelpersFactory::getLocalHelper() {
  if (s_pLocalHelper == nullptr) s_pLocalHelper = LocalHistoricalTimezoneHelper::getInstance();
  return s_pLocalHelper;
}

IHistoricalTimezoneHelper* HistoricalTZHelpersFactory::getTZHelper(const char* name) {
  const std::string key(name);
  if (key == "Local") return getLocalHelper();
  if (key == "EST") return getESTHelper();
  if (const HelperMap* helpers = loadMap(&s_pHelpers)) {
    HelperMap::const_iterator it = helpers->find(key);
    if (it != helpers->end()) return it->second;
  }

  // A new name: make its helper once, under the lock; loading the file
  // there is acceptable since each name is loaded only once.
  std::lock_guard<std::mutex> lock(gNewNameLock);
  HelperMap* current = loadMap(&s_pHelpers);
  if (current != nullptr) {
    HelperMap::const_iterator it = current->find(key);
    if (it != current->end()) return it->second;  // another thread was first
  }
  std::unique_ptr<IHistoricalTimezoneHelper> helper(new HistoricalTimezoneHelper(name));
  std::unique_ptr<HelperMap> next(current != nullptr ? new HelperMap(*current) : new HelperMap());
  (*next)[key] = helper.get();
  if (current != nullptr) gRetiredMaps = new RetiredMap{current, gRetiredMaps};
  __atomic_store_n(&s_pHelpers, next.release(), __ATOMIC_RELEASE);
  return helper.release();
}
