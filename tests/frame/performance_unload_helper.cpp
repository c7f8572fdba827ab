// Loads libzelkit3 with dlopen, lets the recorder module fill records (mode
// "record") or not (mode "none"), and closes the library again, so that its
// unload hook writes the report into the working directory.
//
// Usage: performance_unload_helper <library> <recorder module> record|none
// Exit status: 0 done; 2 usage; 3 load failure; 4 the report file changed
// before the unload; 5 "record" and no report after the unload.
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

// The report's bytes, or a mark that there is no report.
std::string reportNow() {
  if (access("performance.log", F_OK) != 0) return "<none>";
  std::ifstream in("performance.log", std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const bool record = strcmp(argv[3], "record") == 0;
  const std::string before = reportNow();
  // RTLD_GLOBAL: the recorder module finds the library already loaded.
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    fprintf(stderr, "%s\n", dlerror());
    return 3;
  }
  if (record) {
    void* recorder = dlopen(argv[2], RTLD_NOW);
    if (recorder == nullptr) {
      fprintf(stderr, "%s\n", dlerror());
      return 3;
    }
    void (*fill)() = reinterpret_cast<void (*)()>(dlsym(recorder, "zk3FillRecords"));
    if (fill == nullptr) return 3;
    fill();
    dlclose(recorder);
    if (reportNow() != before) return 4;  // only the unload writes
  }
  dlclose(library);  // runs ZelKit3AtUnload
  if (record && access("performance.log", F_OK) != 0) return 5;
  return 0;
}
