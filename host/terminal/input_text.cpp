#include "host/terminal/input_text.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace zym {

kel::Status readFailure(const std::string& name, int error) {
  return kel::Status::invalid(name + ": " + std::strerror(error) +
                              "; give a file or a pipe that can be read");
}

kel::Status readToEnd(int fd, const std::string& name, std::string& text) {
  text.clear();
  std::array<char, 65536> stretch;
  while (true) {
    const ssize_t got = ::read(fd, stretch.data(), stretch.size());
    if (got == 0) {
      return kel::Status::success();
    }
    if (got > 0) {
      text.append(stretch.data(), static_cast<size_t>(got));
    } else if (errno != EINTR) {
      return readFailure(name, errno);
    }
  }
}

}  // namespace zym
