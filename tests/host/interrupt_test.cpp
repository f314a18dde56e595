#include "host/interrupt.h"

#include <gtest/gtest.h>

#include <csignal>

namespace zym {
namespace {

void raiseTwice(int first, int second) {
  std::raise(first);
  std::raise(second);
}

TEST(InterruptTest, FirstInterruptCancelsTheSpan) {
  catchInterrupts();
  const CancelScope scope;
  EXPECT_FALSE(scope.cancelled());
  std::raise(SIGINT);
  EXPECT_TRUE(scope.cancelled());
  EXPECT_NE(*cancelFlag(), 0);
}

TEST(InterruptTest, NewSpanIsNotCancelled) {
  catchInterrupts();
  {
    const CancelScope scope;
    std::raise(SIGINT);
  }
  EXPECT_FALSE(CancelScope().cancelled());
}

TEST(InterruptDeathTest, FurtherInterruptLeavesAtOnce) {
  EXPECT_EXIT(
      {
        catchInterrupts();
        const CancelScope scope;
        raiseTwice(SIGINT, SIGINT);
        std::_Exit(0);
      },
      testing::ExitedWithCode(kInterruptedExit), "");
}

TEST(InterruptDeathTest, WorkThatTidiesUpIsNotCutShort) {
  EXPECT_EXIT(
      {
        catchRequestsToEnd();
        const CancelScope scope(FurtherInterrupt::IsIgnored);
        raiseTwice(SIGTERM, SIGINT);
        raiseTwice(SIGHUP, SIGINT);
        std::_Exit(scope.cancelled() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(InterruptDeathTest, IgnoredSignalsStayIgnored) {
  EXPECT_EXIT(
      {
        std::signal(SIGHUP, SIG_IGN);
        catchRequestsToEnd();
        const CancelScope scope(FurtherInterrupt::IsIgnored);
        std::raise(SIGHUP);
        std::_Exit(scope.cancelled() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zym
