// The event object behind a handle. Internal: nothing here is exported, and
// callers see only void*.
#ifndef ZELKIT3_SRC_WIN_EMUL_EVENT_HANDLE_H
#define ZELKIT3_SRC_WIN_EMUL_EVENT_HANDLE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <set>
#include <string>

namespace zelkit3 {
namespace win_emul {

// Base of every object a handle may point to. Objects are told apart only by
// virtual dispatch.
class CBaseHandle {
 public:
  virtual ~CBaseHandle() {}
  // True when signalled within timeoutMs, false on a time-out.
  virtual bool wait(unsigned long timeoutMs);
  // Drops one reference; false for a class that cannot be closed.
  virtual bool close();
};

// A Win32 event. One set wakes every thread blocked at that moment: a waiter
// succeeds if the event is signalled or if mSetCount moved since it began.
//
// Locking: mStateMutex guards mSignaled's writes and mCondition; mListeners
// is guarded by mListenersMutex. The two are never held together by one
// event. mSignaled is atomic because a wait for any reads it under the
// library's event lock alone.
class CWinEventHandle : public CBaseHandle {
 public:
  CWinEventHandle(bool manualReset, bool initialState, const wchar_t* name);
  ~CWinEventHandle() override;
  CWinEventHandle(const CWinEventHandle&) = delete;
  CWinEventHandle& operator=(const CWinEventHandle&) = delete;

  bool wait(unsigned long timeoutMs) override;
  bool close() override;

  void set();
  bool pulse();
  void reset();
  void addRef();
  long release();
  void addListener(CWinEventHandle* listener);
  void removeListener(CWinEventHandle* listener);
  // Clears an auto-reset event; a manual-reset event is left as it is.
  void consumeSignal();

  bool isSignaled() const { return mSignaled.load(std::memory_order_seq_cst); }
  const std::wstring& name() const { return mName; }

 private:
  friend struct EventTestAccess;  // lets tests hold a lock to force a race

  void signal(bool wakeUnderLock);

  pthread_mutex_t mStateMutex;
  pthread_mutex_t mListenersMutex;
  pthread_cond_t mCondition;
  const bool mManualReset;
  std::atomic<bool> mSignaled;
  std::atomic<std::uint32_t> mSetCount;
  std::atomic<std::int32_t> mRefCount;
  std::atomic<std::uint32_t> mListenerCount;  // the size of mListeners
  std::wstring mName;
  std::set<CWinEventHandle*> mListeners;
};

}  // namespace win_emul
}  // namespace zelkit3

#endif  // ZELKIT3_SRC_WIN_EMUL_EVENT_HANDLE_H
