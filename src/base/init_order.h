// The order in which the library's process-wide objects come into being.
// Internal: never installed.
//
// Each object is placed by an init priority, so the order holds whatever the
// link order of the files is. Lower numbers run first; the runtime runs the
// registered destructors in the reverse order, after ZelKit3AtUnload when the
// library is closed with dlclose.
//
//   101  ZelKit3AtLoad: event lock, event table, time-zone factory
//   102  zelkit3::CThreadTimerManagerImpl::c_inst          (src/threads)
//   103  the four semaphore steps derived from gReadersCount (src/rwlock)
//   104  mAccessMutex                                       (src/win_emul)
//   105  zelkit3::nmstring::EncodeSet::sEmpty               (src/text)
#ifndef ZELKIT3_SRC_BASE_INIT_ORDER_H
#define ZELKIT3_SRC_BASE_INIT_ORDER_H

#define ZK3_INIT_AT_LOAD 101
#define ZK3_INIT_TIMER_MANAGER 102
#define ZK3_INIT_SEMAPHORE_STEPS 103
#define ZK3_INIT_ACCESS_MUTEX 104
#define ZK3_INIT_ENCODE_SET 105

// Places a static object at one of the steps above.
#define ZK3_INIT_PRIORITY(step) __attribute__((init_priority(step)))

#endif  // ZELKIT3_SRC_BASE_INIT_ORDER_H
