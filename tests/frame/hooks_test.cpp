// The load and unload hooks, seen from a program that opens and closes the
// library at run time (this executable does not link it).
#include <gtest/gtest.h>

#include <cstdint>

#include "frame/dl_module.h"
#include "support/child.h"
#include "zelkit3/thread_pool.h"
#include "zelkit3/win_emul.h"

// Present under LeakSanitizer only.
extern "C" void __lsan_ignore_object(const void*) __attribute__((weak));

namespace {

// The library's entry points, looked up by their mangled names: these are
// also the names separately compiled callers link against.
struct Library {
  zk3test::DlModule module{ZK3_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL};
  void (*atLoad)() = nullptr;
  void (*atUnload)() = nullptr;
  void* (*createEvent)(_SECURITY_ATTRIBUTES*, int, int, const wchar_t*) = nullptr;
  void* (*openEvent)(unsigned long, int, const wchar_t*) = nullptr;
  int (*setEvent)(void*) = nullptr;
  int (*closeHandle)(void*) = nullptr;
  unsigned long (*wait)(void*, unsigned long) = nullptr;
  const std::uint32_t* factoryUsers = nullptr;
  zelkit3::ThreadPool* (*createPool)(unsigned int, bool) = nullptr;
  bool (*startTask)(zelkit3::ThreadPool*, zelkit3::IRunnable*) = nullptr;
  void (*releasePool)(zelkit3::ThreadPool*) = nullptr;

  Library() {
    if (!module.opened()) return;
    load(atLoad, "_Z13ZelKit3AtLoadv");
    load(atUnload, "_Z15ZelKit3AtUnloadv");
    load(createEvent, "_ZN7zelkit38win_emul12CreateEventWEP20_SECURITY_ATTRIBUTESiiPKw");
    load(openEvent, "_ZN7zelkit38win_emul10OpenEventWEmiPKw");
    load(setEvent, "_ZN7zelkit38win_emul8SetEventEPv");
    load(closeHandle, "_ZN7zelkit38win_emul11CloseHandleEPv");
    load(wait, "_ZN7zelkit38win_emul19WaitForSingleObjectEPvm");
    load(createPool, "_ZN7zelkit310ThreadPool6createEjb");
    load(startTask, "_ZN7zelkit310ThreadPool5startEPNS_9IRunnableE");
    load(releasePool, "_ZN7zelkit310ThreadPool7releaseEv");
    // The count's low 32 bits, whatever the width of its type.
    factoryUsers = module.symbol<const std::uint32_t*>("_ZN26HistoricalTZHelpersFactory7s_dwRefE");
  }
  template <class F>
  void load(F& f, const char* name) {
    f = module.symbol<F>(name);
  }
  bool complete() const {
    return module.opened() && atLoad && atUnload && createEvent && openEvent && setEvent &&
           closeHandle && wait && factoryUsers && createPool && startTask && releasePool;
  }
  // An auto-reset event can be made, set, waited for and closed.
  bool eventsWork() const {
    void* e = createEvent(nullptr, 0, 0, nullptr);
    const bool ok = wait(e, 0) == WAIT_TIMEOUT && setEvent(e) == 1 && wait(e, 0) == WAIT_OBJECT_0 &&
                    wait(e, 0) == WAIT_TIMEOUT;
    return closeHandle(e) == 1 && ok;
  }
};

bool isLoaded() { return zk3test::isLoaded(ZK3_LIBRARY_FILE); }

TEST(Hooks, LoadingBringsTheLibraryUpAndClosingTakesItAway) {
  ASSERT_FALSE(isLoaded());
  for (int round = 0; round < 2; ++round) {
    {
      Library lib;
      ASSERT_TRUE(lib.complete()) << dlerror();
      EXPECT_EQ(*lib.factoryUsers, 1u);
      EXPECT_TRUE(lib.eventsWork());
    }
    EXPECT_FALSE(isLoaded()) << "the library stays unloadable";
  }
}

TEST(Hooks, CallingTheHooksByNameCountsOnlyTheFactory) {
  Library lib;
  ASSERT_TRUE(lib.complete()) << dlerror();
  lib.atLoad();
  EXPECT_EQ(*lib.factoryUsers, 2u) << "a second load keeps the lock and table";
  EXPECT_TRUE(lib.eventsWork());

  lib.atUnload();
  EXPECT_EQ(*lib.factoryUsers, 1u) << "one unload takes down events but one factory user only";
  lib.atLoad();
  EXPECT_EQ(*lib.factoryUsers, 2u);
  EXPECT_TRUE(lib.eventsWork()) << "a load after an unload brings the events back";

  lib.atUnload();
  lib.atUnload();  // finds no table and no lock, writes nothing
  EXPECT_EQ(*lib.factoryUsers, 0u);
  lib.atLoad();
  EXPECT_EQ(*lib.factoryUsers, 1u);
  EXPECT_TRUE(lib.eventsWork());
}

TEST(Hooks, EventsOfTheTimeBeforeAnUnloadStayUsableButAreForgotten) {
  Library lib;
  ASSERT_TRUE(lib.complete()) << dlerror();
  void* old = lib.createEvent(nullptr, 1, 0, L"before");
  lib.atUnload();
  lib.atLoad();
  EXPECT_EQ(lib.openEvent(0, 0, L"before"), nullptr);
  EXPECT_EQ(lib.setEvent(old), 1);
  EXPECT_EQ(lib.wait(old, 0), WAIT_OBJECT_0);
  EXPECT_EQ(lib.closeHandle(old), 1);
}

// Exits in a child with the library still open, so that the runtime runs the
// library's static destructors before its unload hook.
zk3test::ChildResult exitOf(void (*child)(Library&)) {
  return zk3test::runInChild(
      [child] {
        Library lib;
        if (!lib.complete()) return 90;
        child(lib);
        lib.module.keepOpen();
        return 0;
      },
      zk3test::ChildExit::kRunExitHandlers, std::chrono::seconds(30));
}

TEST(Hooks, ProcessExitsCleanlyWithTheLibraryStillLoaded) {
  zk3test::ChildResult r = exitOf([](Library&) {});
  EXPECT_EQ(r.status(), 0) << r.describe();
  r = exitOf([](Library& lib) {
    // Nothing closes an event left open at exit; that is no leak of ours.
    void* e = lib.createEvent(nullptr, 0, 1, L"left open");
    if (__lsan_ignore_object) __lsan_ignore_object(e);
  });
  EXPECT_EQ(r.status(), 0) << r.describe();
  r = exitOf([](Library& lib) { lib.atUnload(); });
  EXPECT_EQ(r.status(), 0) << r.describe();
}

// A task whose code lives in this program, not in the library.
class NoOpTask : public zelkit3::IRunnable {
 public:
  void run() override {}
  void addRef() override {}
  void release() override {}
};

// After an asynchronous end the pool's threads wind down on their own; a
// dlclose right after it must wait until they have left the library's code,
// or they would run on in unmapped pages. Many rounds in a child, since the
// window is short: a crash shows as a signal.
TEST(Hooks, UnloadRightAfterAnAsynchronousPoolEnd) {
  const zk3test::ChildResult r = zk3test::runInChild(
      [] {
        for (int round = 0; round < 100; ++round) {
          NoOpTask task;
          {
            Library lib;
            if (!lib.complete()) return 90;
            zelkit3::ThreadPool* pool = lib.createPool(4, false);
            for (int i = 0; i < 16; ++i) lib.startTask(pool, &task);
            lib.releasePool(pool);  // the asynchronous end: returns while tasks may run
          }  // dlclose
          if (isLoaded()) return 91;
        }
        return 0;
      },
      zk3test::ChildExit::kImmediate, std::chrono::seconds(60));
  ASSERT_TRUE(r.end == zk3test::ChildResult::End::kExited) << r.describe();
  EXPECT_EQ(r.code, 0) << r.describe();
}

}  // namespace
