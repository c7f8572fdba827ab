// Files, paths, the "_s" runtime functions and the performance report: a
// scratch tree is made, inspected and deleted, with each step timed.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "tour.h"
#include "zelkit3/filesystem.h"
#include "zelkit3/performance.h"
#include "zelkit3/safe_crt.h"

namespace {

using zelkit3::FileSystemUtils;
using namespace zelkit3::win_emul;

int files() {
  int failures = 0;
  char templ[] = "/tmp/zk3-tour-files-XXXXXX";
  if (mkdtemp(templ) == nullptr) return 1;
  const std::string root = FileSystemUtils::addSlashToPath(templ);

  {
    performance::ScopedMeasurement measured("tour.files.create");
    // The final slash asks for the last folder too.
    if (!FileSystemUtils::createDirectory((root + "logs/2026/11/").c_str())) ++failures;
  }

  // Build a file name in a fixed buffer; a name that does not fit is refused.
  char name[32];
  const int tooLong = strcpy_s(name, sizeof name, (root + "logs/2026/11/").c_str());
  printf("   strcpy_s of a long folder into 32 bytes: %d (ERANGE is %d: refused, as expected)\n",
         tooLong, ERANGE);
  const int copied = strcpy_s(name, sizeof name, "Day-23");
  const int lowered = _strlwr_s(name, sizeof name);
  const int appended = strcat_s(name, sizeof name, ".txt");
  printf("   file name: %s (results %d %d %d)\n", name, copied, lowered, appended);
  if (copied != 0 || lowered != 0 || appended != 0) ++failures;

  const std::string file = root + "logs/2026/11/" + name;
  FILE* out = nullptr;
  if (fopen_s(&out, file.c_str(), "w") != 0) return 1;
  fputs("hello\n", out);
  fclose(out);
  FILE* missing = nullptr;
  const int notThere = fopen_s(&missing, (root + "nothing.txt").c_str(), "r");
  printf("   fopen_s of a missing file: %d, errno %d (ENOENT, as expected)\n", notThere, errno);

  printf("   folder of the file: %s\n",
         FileSystemUtils::getFolderFromFilePath(file.c_str()).substr(root.size()).c_str());
  printf("   its name, resolved: %s\n", FileSystemUtils::getFileFromFilePath(file.c_str()).c_str());
  if (symlink("/", (root + "logs/root-link").c_str()) != 0) ++failures;

  int error = 0;
  bool deleted;
  {
    performance::ScopedMeasurement measured("tour.files.delete");
    // The link to "/" inside the tree is unlinked, never followed.
    deleted = FileSystemUtils::deleteDirectory(templ, &error);
  }
  printf("   tree deleted: %s, root still there: %s\n", deleted ? "yes" : "no",
         access("/", F_OK) == 0 ? "yes" : "no");
  if (!deleted) ++failures;

  const performance::stream_guard* record =
      zelkit3::PerformanceLogger::getInstance()->getRecord("tour.files.delete");
  // ScopedMeasurement records milliseconds, so the report's figures are in ms.
  printf("   recorded %u delete(s) taking %.3f ms in all; the figures (in milliseconds)\n"
         "   go to \"performance.log\" at unload\n",
         static_cast<unsigned>(record->mCallCount), record->mTotalTime);
  return failures == 0 && notThere == ENOENT && tooLong == ERANGE ? 0 : 1;
}

}  // namespace

TOUR_STOP("files, paths and the performance report", files);
