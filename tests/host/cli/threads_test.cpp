#include "host/cli/threads.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "qwen35/processors.h"

namespace zym {
namespace {

class ThreadsTest : public testing::Test {
 protected:
  void TearDown() override { unsetenv("OMP_NUM_THREADS"); }
};

TEST_F(ThreadsTest, ASetNumberCounts) {
  setThreads(1);
  EXPECT_EQ(threadCount(), 1);
}

TEST_F(ThreadsTest, MoreThanTheProcessorsAreAllProcessors) {
  setThreads(1000);
  EXPECT_EQ(threadCount(), static_cast<int>(qwen35::usableProcessors()));
}

TEST_F(ThreadsTest, WithoutANumberEachCoreHasAThread) {
  unsetenv("OMP_NUM_THREADS");
  EXPECT_EQ(threadCount(), static_cast<int>(qwen35::usableCores()));
}

}  // namespace
}  // namespace zym
