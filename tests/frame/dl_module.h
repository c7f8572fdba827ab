// A module opened at run time with dlopen and closed at the end of its
// scope, for the frame's tests of loading and unloading the library (their
// executables do not link it).
#ifndef ZELKIT3_TESTS_FRAME_DL_MODULE_H
#define ZELKIT3_TESTS_FRAME_DL_MODULE_H

#include <dlfcn.h>

namespace zk3test {

class DlModule {
 public:
  DlModule(const char* path, int flags) : mHandle(dlopen(path, flags)) {}
  ~DlModule() { close(); }
  DlModule(const DlModule&) = delete;
  DlModule& operator=(const DlModule&) = delete;

  bool opened() const { return mHandle != nullptr; }
  // The symbol as a pointer of type T; null when absent.
  template <class T>
  T symbol(const char* name) const {
    return mHandle == nullptr ? nullptr : reinterpret_cast<T>(dlsym(mHandle, name));
  }
  // Closes it now (the unload hook runs if this was the last reference).
  void close() {
    if (mHandle != nullptr) dlclose(mHandle);
    mHandle = nullptr;
  }
  // Leaves it open past the end of the scope, for the process's exit.
  void keepOpen() { mHandle = nullptr; }

 private:
  void* mHandle;
};

// True while the module at path is loaded in this process.
inline bool isLoaded(const char* path) {
  void* h = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
  if (h != nullptr) dlclose(h);
  return h != nullptr;
}

}  // namespace zk3test

#endif  // ZELKIT3_TESTS_FRAME_DL_MODULE_H
