// Replaces the global operator new of the including program (include it in
// exactly one file) so that it counts every allocation of the process, the
// library's included.
#ifndef ZELKIT3_BENCH_COUNTING_NEW_H
#define ZELKIT3_BENCH_COUNTING_NEW_H

#include <atomic>
#include <cstdlib>
#include <new>

namespace zk3bench {
inline std::atomic<long> gAllocations{0};
}  // namespace zk3bench

// The replacement delete frees what the replacement new took from malloc,
// which GCC cannot see across the inlined calls.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t n) {
  zk3bench::gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

#endif  // ZELKIT3_BENCH_COUNTING_NEW_H
