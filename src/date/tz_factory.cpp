// The factory that owns every time-zone helper.
#include <string.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "zelkit3/timezone.h"

namespace {

using HelperMap = std::map<std::string, IHistoricalTimezoneHelper*>;

// Serialises the making of helpers for new names. Readers never take it: the
// map is copy-on-write and published with release/acquire, so a lookup sees
// either the old map or the new one, each complete.
std::mutex gNewNameLock;

// The map's entries as a sorted array, for lookups by C string without
// making a std::string (which allocates for names over 15 characters). The
// names point into the keys of the map it was built from. strcmp orders
// names without embedded zeros as std::string does.
struct NameIndex {
  struct Entry {
    const char* name;
    IHistoricalTimezoneHelper* helper;
  };
  size_t count;
  std::unique_ptr<Entry[]> entries;

  explicit NameIndex(const HelperMap& map) : count(map.size()), entries(new Entry[map.size()]) {
    size_t i = 0;
    for (const auto& entry : map) entries[i++] = Entry{entry.first.c_str(), entry.second};
  }
  IHistoricalTimezoneHelper* find(const char* name) const {
    size_t lo = 0, hi = count;
    while (lo < hi) {
      const size_t mid = lo + (hi - lo) / 2;
      const int order = strcmp(entries[mid].name, name);
      if (order == 0) return entries[mid].helper;
      if (order < 0)
        lo = mid + 1;
      else
        hi = mid;
    }
    return nullptr;
  }
};
// Published together with s_pHelpers, after it.
NameIndex* gIndex = nullptr;

// Maps and indexes replaced by newer copies. A reader may still walk one, so
// they live until cleanup, which no lookup may overlap. Guarded by
// gNewNameLock.
struct Retired {
  HelperMap* map;
  NameIndex* index;
  Retired* next;
};
Retired* gRetired = nullptr;

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
  delete __atomic_exchange_n(&gIndex, nullptr, __ATOMIC_ACQ_REL);
  HelperMap* helpers = __atomic_exchange_n(&s_pHelpers, nullptr, __ATOMIC_ACQ_REL);
  if (helpers != nullptr) {
    for (HelperMap::iterator it = helpers->begin(); it != helpers->end(); ++it) delete it->second;
    helpers->clear();
    delete helpers;
  }
  std::lock_guard<std::mutex> lock(gNewNameLock);
  while (gRetired != nullptr) {
    Retired* old = gRetired;
    gRetired = old->next;
    delete old->map;  // its helpers were freed above, through the newest map
    delete old->index;
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
  // As std::string's constructor would: a null name is the caller's error.
  if (name == nullptr) throw std::logic_error("basic_string: construction from null is not valid");
  if (strcmp(name, "Local") == 0) return getLocalHelper();
  if (strcmp(name, "EST") == 0) return getESTHelper();
  if (const NameIndex* index = __atomic_load_n(&gIndex, __ATOMIC_ACQUIRE)) {
    if (IHistoricalTimezoneHelper* helper = index->find(name)) return helper;
  }

  // A new name: make its helper once, under the lock; loading the file
  // there is acceptable since each name is loaded only once.
  const std::string key(name);
  std::lock_guard<std::mutex> lock(gNewNameLock);
  HelperMap* current = loadMap(&s_pHelpers);
  if (current != nullptr) {
    HelperMap::const_iterator it = current->find(key);
    if (it != current->end()) return it->second;  // another thread was first
  }
  std::unique_ptr<IHistoricalTimezoneHelper> helper(new HistoricalTimezoneHelper(name));
  std::unique_ptr<HelperMap> next(current != nullptr ? new HelperMap(*current) : new HelperMap());
  (*next)[key] = helper.get();
  std::unique_ptr<NameIndex> nextIndex(new NameIndex(*next));
  gRetired = new Retired{current, __atomic_load_n(&gIndex, __ATOMIC_ACQUIRE), gRetired};
  __atomic_store_n(&s_pHelpers, next.release(), __ATOMIC_RELEASE);
  __atomic_store_n(&gIndex, nextIndex.release(), __ATOMIC_RELEASE);
  return helper.release();
}
