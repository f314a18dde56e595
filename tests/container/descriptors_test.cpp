// Files of the library beside standard streams that are closed.
#include "container/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "container/output_file.h"
#include "container/zym2_reader.h"
#include "tests/support/container_samples.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::aboveStandardStreams;

bool isOpen(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

// Standard input closed for a while: the lowest free descriptor is then 0.
class WithoutInput {
 public:
  WithoutInput() : saved(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) { ::close(STDIN_FILENO); }
  ~WithoutInput() {
    ::close(STDIN_FILENO);
    if (saved >= 0) {
      ::dup2(saved, STDIN_FILENO);
      ::close(saved);
    }
  }
  WithoutInput(const WithoutInput&) = delete;
  WithoutInput& operator=(const WithoutInput&) = delete;

 private:
  int saved;
};

TEST(DescriptorsTest, StandardDescriptorsAreMovedAndClosed) {
  const WithoutInput none;
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, fd);
  const int moved = aboveStandardStreams(fd);
  EXPECT_GT(moved, 2);
  EXPECT_FALSE(isOpen(0));
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(moved, F_GETFD));
  ::close(moved);
}

TEST(DescriptorsTest, OthersStayAndFailuresPass) {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GT(fd, 2);
  EXPECT_EQ(fd, aboveStandardStreams(fd));
  EXPECT_TRUE(isOpen(fd));
  ::close(fd);
  EXPECT_EQ(-1, aboveStandardStreams(-1));
}

TEST(DescriptorsTest, WithoutAnotherDescriptorTheReasonIsKept) {
  const WithoutInput none;
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, fd);
  rlimit old{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &old));
  const rlimit three = {3, old.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &three));
  const int moved = aboveStandardStreams(fd);
  const int reason = errno;
  ::setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_EQ(-1, moved);
  EXPECT_TRUE(reason == EINVAL || reason == EMFILE) << reason;
  EXPECT_FALSE(isOpen(0));
}

TEST(DescriptorsTest, ReaderAndWriterLeaveStandardStreamsAlone) {
  const kel::test::TempDir dir;
  const std::string path = dir.file("sample.zym");
  kel::test::writeFile(path, kel::test::sampleImage().bytes);
  const WithoutInput none;
  kel::ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  EXPECT_FALSE(isOpen(0));
  kel::OutputFile out;
  ASSERT_TRUE(out.create(dir.file("new")).ok());
  EXPECT_FALSE(isOpen(0));
  EXPECT_TRUE(out.append("new", 3).ok());
  EXPECT_EQ("", out.commit().message);
}

}  // namespace
