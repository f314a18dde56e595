// A full disk, as far as one process can arrange it.
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace kel::test {

// While it lives, no file of this process can grow past nBytes.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t nBytes) : oldHandler(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &old);
    const rlimit limit = {nBytes, old.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*oldHandler)(int);
  rlimit old{};
};

}  // namespace kel::test
