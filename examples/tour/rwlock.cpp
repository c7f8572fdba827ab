// Cross-process read-write lock: two processes share a lock by its file; one
// is killed while it holds the write lock, and the other goes on at once.
#include "zelkit3/rwlock.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tour.h"

namespace {

int rwlock() {
  char tmpl[] = "/tmp/zk3tour.XXXXXX";
  if (mkdtemp(tmpl) == nullptr) return 1;
  const std::string dir = tmpl;
  const std::string path = dir + "/tour.lock";
  int ready[2];
  if (pipe(ready) != 0) return 1;

  int busy = -1, afterKill = -1, freed = -1;
  char c = 0;
  {
    zelkit3::sharedrwlock lock;
    char error[128] = "";
    if (!lock.init(path.c_str(), error, sizeof error)) {
      std::printf("   init failed: %s", error);
      return 1;
    }
    const pid_t child = fork();
    if (child == 0) {
      alarm(30);  // never outlives the tour
      zelkit3::sharedrwlock theirs;
      if (theirs.init(path.c_str()) && theirs.lockWrite(static_cast<unsigned long>(-1)) == 0) {
        char c = 1;
        (void)!write(ready[1], &c, 1);
        pause();  // holds the write lock until killed
      }
      _exit(1);
    }
    if (read(ready[0], &c, 1) != 1) c = 0;
    busy = lock.lockWrite(0);
    std::printf("   child %d holds the write lock; our lockWrite(0) gives %d (not done):\n"
                "   refused, as expected while another process holds it\n",
                static_cast<int>(child), busy);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    afterKill = lock.lockWrite(1000);
    std::printf("   child killed by SIGKILL; our lockWrite(1000) gives %d (done)\n", afterKill);
    freed = lock.freeWrite();
  }
  close(ready[0]);
  close(ready[1]);
  unlink(path.c_str());
  rmdir(dir.c_str());
  std::printf("   the kernel took the dead holder's lock back; set removed by its last user\n");
  return (c == 1 && busy == 1 && afterKill == 0 && freed == 0) ? 0 : 1;
}

}  // namespace

TOUR_STOP("cross-process read-write lock", rwlock);
