#include "pelmora/testing/process_ends.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace pelmora::testing {

bool ProcessEnds(pid_t pid, int milliseconds) {
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) return true;  // already gone and reaped
  pollfd entry{pidfd, POLLIN, 0};
  bool ended = poll(&entry, 1, milliseconds) == 1;
  close(pidfd);
  return ended;
}

}  // namespace pelmora::testing
