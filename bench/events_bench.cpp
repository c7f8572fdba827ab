// Events and waits against a mutex + condition variable doing the same work.
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <thread>

#include "ratio_reporter.h"
#include "counting_new.h"
#include "zelkit3/win_emul.h"

using namespace zelkit3::win_emul;

namespace {

// The peer: an auto-reset event made of a mutex, a condition variable and a flag.
struct CvEvent {
  std::mutex m;
  std::condition_variable cv;
  bool flag = false;
  void set() {
    {
      std::lock_guard<std::mutex> lock(m);
      flag = true;
    }
    cv.notify_one();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [this] { return flag; });
    flag = false;
  }
};

void pingPongOurs(benchmark::State& state) {
  void* ping = CreateEventW(nullptr, 0, 0, nullptr);
  void* pong = CreateEventW(nullptr, 0, 0, nullptr);
  const auto rounds = state.max_iterations;
  std::thread partner([&] {
    for (benchmark::IterationCount i = 0; i < rounds; ++i) {
      WaitForSingleObject(ping, INFINITE);
      SetEvent(pong);
    }
  });
  for (auto _ : state) {
    SetEvent(ping);
    WaitForSingleObject(pong, INFINITE);
  }
  partner.join();
  CloseHandle(ping);
  CloseHandle(pong);
}

void pingPongCondVar(benchmark::State& state) {
  CvEvent ping, pong;
  const auto rounds = state.max_iterations;
  std::thread partner([&] {
    for (benchmark::IterationCount i = 0; i < rounds; ++i) {
      ping.wait();
      pong.set();
    }
  });
  for (auto _ : state) {
    ping.set();
    pong.wait();
  }
  partner.join();
}

constexpr int kAny = 8;

void waitAnyOurs(benchmark::State& state) {
  void* events[kAny];
  for (void*& e : events) e = CreateEventW(nullptr, 0, 0, nullptr);
  void* ack = CreateEventW(nullptr, 0, 0, nullptr);
  const auto rounds = state.max_iterations;
  std::thread partner([&] {
    for (benchmark::IterationCount i = 0; i < rounds; ++i) {
      SetEvent(events[i % kAny]);
      WaitForSingleObject(ack, INFINITE);
    }
  });
  for (auto _ : state) {
    benchmark::DoNotOptimize(WaitForMultipleObjects(kAny, events, 0, INFINITE));
    SetEvent(ack);
  }
  partner.join();
  for (void* e : events) CloseHandle(e);
  CloseHandle(ack);
}

void waitAnyCondVar(benchmark::State& state) {
  std::mutex m;
  std::condition_variable cv;
  unsigned flags = 0;
  CvEvent ack;
  const auto rounds = state.max_iterations;
  std::thread partner([&] {
    for (benchmark::IterationCount i = 0; i < rounds; ++i) {
      {
        std::lock_guard<std::mutex> lock(m);
        flags |= 1u << (i % kAny);
      }
      cv.notify_all();
      ack.wait();
    }
  });
  for (auto _ : state) {
    int index;
    {
      std::unique_lock<std::mutex> lock(m);
      cv.wait(lock, [&] { return flags != 0; });
      index = __builtin_ctz(flags);
      flags &= flags - 1;
    }
    benchmark::DoNotOptimize(index);
    ack.set();
  }
  partner.join();
}

void setAndWaitOurs(benchmark::State& state) {
  void* e = CreateEventW(nullptr, 0, 0, nullptr);
  for (auto _ : state) {
    SetEvent(e);
    benchmark::DoNotOptimize(WaitForSingleObject(e, INFINITE));
  }
  CloseHandle(e);
}

void setAndWaitCondVar(benchmark::State& state) {
  CvEvent e;
  for (auto _ : state) {
    e.set();
    e.wait();
  }
}

// A wait for any that is satisfied at once: its allocations per call.
void readyWaitAnyOurs(benchmark::State& state) {
  void* events[kAny];
  for (void*& e : events) e = CreateEventW(nullptr, 1, 0, nullptr);
  SetEvent(events[kAny - 1]);
  const long before = zk3bench::gAllocations.load();
  for (auto _ : state) benchmark::DoNotOptimize(WaitForMultipleObjects(kAny, events, 0, INFINITE));
  state.counters["allocs_per_wait"] =
      double(zk3bench::gAllocations.load() - before) / double(state.iterations());
  for (void* e : events) CloseHandle(e);
}

}  // namespace

BENCHMARK(pingPongOurs)->Name("pingpong/ours")->UseRealTime();
BENCHMARK(pingPongCondVar)->Name("pingpong/condvar")->UseRealTime();
BENCHMARK(waitAnyOurs)->Name("wait_any_8/ours")->UseRealTime();
BENCHMARK(waitAnyCondVar)->Name("wait_any_8/condvar")->UseRealTime();
BENCHMARK(setAndWaitOurs)->Name("set_and_wait/ours");
BENCHMARK(setAndWaitCondVar)->Name("set_and_wait/condvar");
BENCHMARK(readyWaitAnyOurs)->Name("ready_wait_any_8/ours");

ZK3_BENCHMARK_MAIN();
