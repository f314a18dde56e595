#include "host/models/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace zym {
namespace {

// Whether the open file is still the one of that name: a holder removes it before it lets go.
bool isNamed(int fd, const std::string& path) {
  struct stat open {};
  struct stat named {};
  return ::fstat(fd, &open) == 0 && ::stat(path.c_str(), &named) == 0 &&
         open.st_ino == named.st_ino && open.st_dev == named.st_dev;
}

}  // namespace

FileLock::~FileLock() {
  release();
}

FileLock::Taking FileLock::take(const std::string& path, std::string& reason) {
  release();
  while (true) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (file < 0) {
      reason = std::system_category().message(errno);
      return Taking::Failed;
    }
    if (::flock(file, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      ::close(file);
      if (error == EWOULDBLOCK) {
        return Taking::Busy;
      }
      if (error != EINTR) {
        reason = std::system_category().message(error);
        return Taking::Failed;
      }
    } else if (isNamed(file, path)) {
      name = path;
      fd = file;
      return Taking::Taken;
    } else {
      ::close(file);
    }
  }
}

void FileLock::release() {
  if (fd < 0) {
    return;
  }
  ::unlink(name.c_str());
  ::close(fd);
  fd = -1;
}

}  // namespace zym
