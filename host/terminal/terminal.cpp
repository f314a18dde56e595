#include "host/terminal/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "host/terminal/utf8.h"

namespace zym {

bool isTerminal(int fd) {
  return isatty(fd) == 1;
}

bool styleWanted(int fd) {
  const char* noColor = std::getenv("NO_COLOR");
  const char* term = std::getenv("TERM");
  return isTerminal(fd) && (noColor == nullptr || *noColor == '\0') &&
         (term == nullptr || std::string_view(term) != "dumb");
}

bool terminalSize(int fd, size_t& columns, size_t& rows) {
  winsize size{};
  if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
    return false;
  }
  columns = size.ws_col;
  rows = size.ws_row;
  return true;
}

size_t terminalColumns(int fd) {
  size_t columns = 0;
  size_t rows = 0;
  terminalSize(fd, columns, rows);
  return columns;
}

std::string dimmed(std::string_view text, bool style) {
  return style ? "\x1b[2m" + std::string(text) + "\x1b[0m" : std::string(text);
}

void complain(std::string_view text) {
  std::string line(text);
  std::replace(line.begin(), line.end(), '\n', ' ');
  std::fprintf(stderr, "zym: %s\n", withoutControls(line).c_str());
}

void remark(std::string_view text) {
  std::fprintf(stderr, "%s\n", dimmed(withoutControls(text), styleWanted(STDERR_FILENO)).c_str());
}

}  // namespace zym
