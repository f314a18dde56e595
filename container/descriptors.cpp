#include "container/descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kel {

int aboveStandardStreams(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) {
    return fd;
  }
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int reason = errno;
  ::close(fd);
  errno = reason;
  return moved;
}

}  // namespace kel
