#include "host/terminal/standard_streams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace zym {

void reserveStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) >= 0 || errno != EBADF) {
      continue;
    }
    // The lowest free descriptor is this one, since those below are open. It is opened the wrong
    // way round: a closed stream must fail, not swallow what is written.
    (void)::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

// By its state: after a write that failed a while ago the reason is no longer known.
std::string outputFault() {
  const bool failedBefore = std::ferror(stdout) != 0;
  if (std::fflush(stdout) == 0 && !failedBefore) {
    return "";
  }
  const int mode = ::fcntl(STDOUT_FILENO, F_GETFL);
  if (mode < 0 || (mode & O_ACCMODE) == O_RDONLY) {
    return "standard output is closed; the results are lost";
  }
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  if (::poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0) {
    return "standard output was closed by its reader; the rest is lost";
  }
  return "standard output cannot be written; is the disk full?";
}

}  // namespace zym
