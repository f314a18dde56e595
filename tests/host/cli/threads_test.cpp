#include "host/cli/threads.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

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

// The variable itself: OpenMP starts as many threads as it says wherever a region names no number.
TEST_F(ThreadsTest, MoreThanTheProcessorsAreAllProcessors) {
  testing::internal::CaptureStderr();
  setThreads(1000);
  const std::string processors = std::to_string(qwen35::usableProcessors());
  EXPECT_EQ(std::getenv("OMP_NUM_THREADS"), processors);
  EXPECT_EQ(std::to_string(threadCount()), processors);
  const std::string told = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(told.starts_with("(--threads 1000: ")) << told;
}

TEST_F(ThreadsTest, ANumberThatProcessorsSufficeForIsTakenInSilence) {
  testing::internal::CaptureStderr();
  setThreads(static_cast<int>(qwen35::usableProcessors()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(ThreadsTest, TheVariableIsLoweredToTheProcessors) {
  setenv("OMP_NUM_THREADS", "1000,2", 1);
  limitThreads();
  EXPECT_EQ(std::getenv("OMP_NUM_THREADS"), std::to_string(qwen35::usableProcessors()));
}

TEST_F(ThreadsTest, AVariableThatNeedsNoLoweringStays) {
  for (const char* asked : {"1", "1,1000", "many", ""}) {
    setenv("OMP_NUM_THREADS", asked, 1);
    limitThreads();
    EXPECT_STREQ(std::getenv("OMP_NUM_THREADS"), asked);
  }
  unsetenv("OMP_NUM_THREADS");
  limitThreads();
  EXPECT_EQ(std::getenv("OMP_NUM_THREADS"), nullptr);
}

TEST_F(ThreadsTest, WithoutANumberEachCoreHasAThread) {
  unsetenv("OMP_NUM_THREADS");
  EXPECT_EQ(threadCount(), static_cast<int>(qwen35::usableCores()));
}

}  // namespace
}  // namespace zym
