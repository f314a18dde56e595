#include "host/terminal/byte_source.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "host/terminal/input_text.h"
#include "host/terminal/interrupt.h"

namespace zym {

ByteSource::ByteSource(std::function<void()> beforeWaiting) : whenIdle(std::move(beforeWaiting)) {}

bool ByteSource::next(char& byte) {
  while (waitForInput(STDIN_FILENO, whenIdle)) {
    const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
    // A read is interrupted by Ctrl-C alone, which the wait then reports.
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      fault = readFailure(kStandardInput, errno).message;
    }
    reason = got < 0 ? LineResult::Failed : LineResult::End;
    return got == 1;
  }
  reason = LineResult::Interrupted;
  return false;
}

LineResult ByteSource::end(std::string& line) const {
  if (reason == LineResult::Failed) {
    line = fault;
  }
  return reason;
}

}  // namespace zym
