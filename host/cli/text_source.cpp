#include "host/cli/text_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "host/chat/engine.h"
#include "host/terminal/input_text.h"

namespace zym {
namespace {

kel::Status readText(int fd, const std::string& name, std::string& text) {
  kel::Status status = readToEnd(fd, name, text);
  if (text.ends_with('\n')) {
    text.pop_back();
  }
  return status;
}

}  // namespace

kel::Status readTextFile(const std::string& path, std::string& text) {
  kel::Status status = checkInputFile(path);
  if (!status.ok()) {
    return status;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return readFailure(path, errno);
  }
  status = readText(fd, path, text);
  ::close(fd);
  return status;
}

kel::Status readStandardInput(std::string& text) {
  return readText(STDIN_FILENO, kStandardInput, text);
}

}  // namespace zym
