// zelkit3/win_emul.h - Win32 events, waits and clocks under their Win32 names.
//
// Events serve the threads of one process. A handle is the address of the
// event object: there is no handle table and no validation, so a dangling
// handle is the caller's fault. A name matters only to OpenEventW; each
// CreateEventW makes a new, independent event.
//
// Differences from Win32 that callers see:
//   * one SetEvent on an auto-reset event releases every thread blocked on it
//     at that moment, not just one; a thread that starts waiting later
//     succeeds only if the event is still signalled;
//   * PulseEvent leaves the event signalled, exactly like SetEvent;
//   * a wait for any may return WAIT_TIMEOUT before its time-out, when the
//     event that woke it was consumed by someone else first: WAIT_TIMEOUT
//     means "nothing is ready now", not "the time has passed";
//   * a wait for all is a sequence of single waits, not an atomic wait;
//   * deadlines are on the wall clock, and GetTickCount is wall-clock
//     milliseconds since 1970 cut to 32 bits, not the time since boot.
// No per-thread last-error value exists; results carry Win32's values only.
//
// All functions may be called from any thread while the library is loaded.
// The clock functions may be called at any time.
#ifndef ZELKIT3_WIN_EMUL_H
#define ZELKIT3_WIN_EMUL_H

#include "zelkit3/export.h"

// Win32 records, in the global namespace as in the published Win32 headers.
struct _SECURITY_ATTRIBUTES {
  unsigned long nLength;
  void* lpSecurityDescriptor;
  int bInheritHandle;
};

// A signed 64-bit value with 32-bit halves, as QueryPerformanceCounter and
// QueryPerformanceFrequency fill it. The halves are 32 bits on both ABIs.
union _LARGE_INTEGER {
  struct {
    unsigned int LowPart;
    int HighPart;
  };
  struct {
    unsigned int LowPart;
    int HighPart;
  } u;
  long long QuadPart;
};

#ifndef INFINITE
#define INFINITE 0xFFFFFFFFUL
#endif
#ifndef WAIT_OBJECT_0
#define WAIT_OBJECT_0 0UL
#endif
#ifndef WAIT_TIMEOUT
#define WAIT_TIMEOUT 258UL
#endif

namespace zelkit3 {
namespace win_emul {

// Makes a new event. Any non-zero manualReset or initialState counts as true;
// name may be null (an unnamed event matches the empty name). attributes is
// not read. Throws std::bad_alloc if memory runs out; never returns null.
ZK3_API void* CreateEventW(_SECURITY_ATTRIBUTES* attributes, int manualReset, int initialState,
                           const wchar_t* name);

// Returns the event of the lowest address whose name equals name exactly,
// with one more reference (one more CloseHandle needed), or null. access and
// inherit are not read. A null name finds nothing.
ZK3_API void* OpenEventW(unsigned long access, int inherit, const wchar_t* name);

// Signals the event and wakes every thread waiting on it. Always 1.
ZK3_API int SetEvent(void* event);
// Clears the event; wakes nobody. Always 1.
ZK3_API int ResetEvent(void* event);
// The same as SetEvent: the event stays signalled. Always 1.
ZK3_API int PulseEvent(void* event);

// Drops one reference; the last one destroys the event. Returns 0 for null,
// 1 otherwise. Nobody may be waiting on an event when its last reference goes.
ZK3_API int CloseHandle(void* handle);

// Blocks until the event is signalled (WAIT_OBJECT_0; an auto-reset event is
// consumed) or timeoutMs milliseconds pass (WAIT_TIMEOUT). INFINITE (on
// x86_64 also every value above it) never expires; 0 polls. Finite time-outs
// are exact up to 0xFFFFFFFE ms.
ZK3_API unsigned long WaitForSingleObject(void* handle, unsigned long timeoutMs);

// waitAll != 0: waits for each handle in turn within one overall time-out;
// WAIT_OBJECT_0 or WAIT_TIMEOUT. Events consumed before a time-out stay so.
// waitAll == 0: returns WAIT_OBJECT_0 + the lowest index of a signalled
// handle, consuming that one event only, or WAIT_TIMEOUT (see above). Any
// count of handles is served; a wait that can be satisfied at once allocates
// nothing. A wait for any on no handles with INFINITE returns WAIT_TIMEOUT
// at once, since nothing could ever end it.
ZK3_API unsigned long WaitForMultipleObjects(unsigned long count, void* const* handles, int waitAll,
                                             unsigned long timeoutMs);

// Milliseconds of the wall clock since 1970, cut to 32 bits. Spans are the
// later value minus the earlier in unsigned 32-bit arithmetic; the clock may
// be set back.
ZK3_API unsigned long GetTickCount();

// Sleeps for the given milliseconds; a signal ends the sleep early.
ZK3_API void Sleep(unsigned long milliseconds);

// Nanoseconds of the monotonic clock. 0 for a null argument or a failed clock
// read (the argument is then untouched), 1 on success.
ZK3_API int QueryPerformanceCounter(_LARGE_INTEGER* counter);
// Stores 1000000000 (the counter's unit is the nanosecond). 0 for null, else 1.
ZK3_API int QueryPerformanceFrequency(_LARGE_INTEGER* frequency);

}  // namespace win_emul
}  // namespace zelkit3

#endif  // ZELKIT3_WIN_EMUL_H
