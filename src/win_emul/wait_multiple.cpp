#include <cstdint>
#include <memory>
#include <optional>

#include "base/deadline.h"
#include "win_emul/event_handle.h"
#include "win_emul/event_state.h"
#include "zelkit3/win_emul.h"

namespace zelkit3 {
namespace win_emul {

namespace {

// Handles of a blocking wait for any: on the stack up to this many, on the
// heap beyond, so that any count is served without writing past an array.
constexpr unsigned long kInlineHandles = 32;

unsigned long waitForAll(unsigned long count, void* const* handles, unsigned long timeoutMs) {
  const std::uint32_t start = static_cast<std::uint32_t>(GetTickCount());
  const std::uint32_t limit = static_cast<std::uint32_t>(timeoutMs);
  for (unsigned long i = 0; i < count; ++i) {
    const std::uint32_t elapsed = static_cast<std::uint32_t>(GetTickCount()) - start;
    unsigned long left = timeoutMs;
    if (!detail::isInfinite(timeoutMs)) {
      // Equal still gets its wait, with a time-out of 0.
      if (elapsed > limit) return WAIT_TIMEOUT;
      left = limit - elapsed;
    }
    if (!static_cast<CBaseHandle*>(handles[i])->wait(left)) return WAIT_TIMEOUT;
  }
  return WAIT_OBJECT_0;
}

// gEventLock, released and retaken around the block, and released on every
// way out.
class EventLockHolder {
 public:
  EventLockHolder() { lock(); }
  ~EventLockHolder() {
    if (mHeld) unlock();
  }
  EventLockHolder(const EventLockHolder&) = delete;
  EventLockHolder& operator=(const EventLockHolder&) = delete;

  void lock() {
    pthread_mutex_lock(&gEventLock);
    mHeld = true;
  }
  void unlock() {
    pthread_mutex_unlock(&gEventLock);
    mHeld = false;
  }

 private:
  bool mHeld = false;
};

// The temporary event's registrations with the events waited on. Whatever
// is still registered is taken back when it goes, so that an allocation
// failure halfway leaves no listener behind.
class Registration {
 public:
  Registration(CWinEventHandle* const* events, CWinEventHandle* listener)
      : mEvents(events), mListener(listener) {}
  ~Registration() { removeAll(); }
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

  void add() {
    mEvents[mCount]->addListener(mListener);
    ++mCount;
  }
  void removeAll() {
    for (unsigned long i = 0; i < mCount; ++i) mEvents[i]->removeListener(mListener);
    mCount = 0;
  }

 private:
  CWinEventHandle* const* mEvents;
  CWinEventHandle* mListener;
  unsigned long mCount = 0;
};

unsigned long waitForAny(unsigned long count, void* const* handles, unsigned long timeoutMs) {
  EventLockHolder eventLock;
  // Entry scan: a wait that can be satisfied now allocates nothing.
  for (unsigned long i = 0; i < count; ++i) {
    CWinEventHandle* event = static_cast<CWinEventHandle*>(handles[i]);
    if (event->isSignaled()) {
      event->consumeSignal();
      return WAIT_OBJECT_0 + i;
    }
  }
  if (timeoutMs == 0) return WAIT_TIMEOUT;
  // Nothing could ever end an infinite wait on no handles: return at once
  // rather than block the thread for good.
  if (count == 0 && detail::isInfinite(timeoutMs)) return WAIT_TIMEOUT;

  CWinEventHandle* inlineEvents[kInlineHandles];
  std::unique_ptr<CWinEventHandle*[]> heapEvents;
  CWinEventHandle** events = inlineEvents;
  if (count > kInlineHandles) {
    heapEvents.reset(new CWinEventHandle*[count]);
    events = heapEvents.get();
  }
  for (unsigned long i = 0; i < count; ++i) events[i] = static_cast<CWinEventHandle*>(handles[i]);

  std::optional<CWinEventHandle> listener;
  listener.emplace(false, false, nullptr);
  Registration registration(events, &*listener);
  for (unsigned long i = 0; i < count; ++i) registration.add();

  // PulseEvent takes no gEventLock and may have signalled an event between
  // the entry scan and its registration; such an event is not slept past.
  bool awake = false;
  for (unsigned long i = 0; i < count && !awake; ++i) awake = events[i]->isSignaled();

  eventLock.unlock();
  if (!awake) awake = listener->wait(timeoutMs);
  eventLock.lock();

  // Exit scan: the lowest signalled index wins; exactly one event is consumed.
  unsigned long result = WAIT_TIMEOUT;
  for (unsigned long i = 0; i < count && awake; ++i) {
    if (events[i]->isSignaled()) {
      events[i]->consumeSignal();
      result = WAIT_OBJECT_0 + i;
      awake = false;
    }
  }
  registration.removeAll();
  return result;
}

}  // namespace

unsigned long WaitForMultipleObjects(unsigned long count, void* const* handles, int waitAll,
                                     unsigned long timeoutMs) {
  if (waitAll != 0) return waitForAll(count, handles, timeoutMs);
  return waitForAny(count, handles, timeoutMs);
}

}  // namespace win_emul
}  // namespace zelkit3
