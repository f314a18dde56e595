#include "host/terminal/standard_streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace zym {
namespace {

// Exit status of a child: the number of the first step that went wrong, 0 when none did.
[[noreturn]] void closeAndReserve() {
  ::close(STDIN_FILENO);
  ::close(STDOUT_FILENO);
  ::close(STDERR_FILENO);
  reserveStandardStreams();
  char byte = 0;
  if (::open("/dev/null", O_RDONLY | O_CLOEXEC) <= STDERR_FILENO) {
    std::_Exit(1);
  }
  if (::read(STDIN_FILENO, &byte, 1) != -1 || errno != EBADF) {
    std::_Exit(2);
  }
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
    if (::write(fd, &byte, 1) != -1 || errno != EBADF) {
      std::_Exit(3);
    }
  }
  std::_Exit(0);
}

TEST(StandardStreamsDeathTest, ClosedOnesAreTakenAndFailAsBefore) {
  EXPECT_EXIT(closeAndReserve(), testing::ExitedWithCode(0), "");
}

TEST(StandardStreamsTest, OpenOnesStay) {
  const int before = ::fcntl(STDERR_FILENO, F_GETFL);
  reserveStandardStreams();
  EXPECT_EQ(before, ::fcntl(STDERR_FILENO, F_GETFL));
  EXPECT_EQ(outputFault(), "");
}

}  // namespace
}  // namespace zym
