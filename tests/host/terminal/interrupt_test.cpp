#include "host/terminal/interrupt.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include "host/terminal/terminal_modes.h"

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

TEST(InterruptTest, WriteThatWaitsForRoomGoesOn) {
  catchInterrupts();
  int pipe[2];
  ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
  // As much as a pipe holds, and one byte that has to wait.
  const int room = fcntl(pipe[1], F_GETPIPE_SZ);
  ASSERT_GT(room, 0);
  const std::vector<char> bytes(static_cast<size_t>(room));
  ASSERT_EQ(write(pipe[1], bytes.data(), bytes.size()), room);
  const CancelScope scope;
  const pthread_t writer = pthread_self();
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    pthread_kill(writer, SIGINT);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::vector<char> taken(bytes.size());
    (void)!read(pipe[0], taken.data(), taken.size());
  });
  EXPECT_EQ(write(pipe[1], "x", 1), 1);
  reader.join();
  EXPECT_TRUE(scope.cancelled());
  close(pipe[0]);
  close(pipe[1]);
}

TEST(InterruptTest, WaitForInputEndsWithAnInterrupt) {
  catchInterrupts();
  int pipe[2];
  ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
  const pthread_t waiter = pthread_self();
  std::thread sender([waiter] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    pthread_kill(waiter, SIGINT);
  });
  EXPECT_FALSE(waitForInput(pipe[0]));
  sender.join();
  close(pipe[1]);
  EXPECT_TRUE(waitForInput(pipe[0]));  // its end can be read
  close(pipe[0]);
}

// The kernel gives a process's signal to a thread that does not block it, as the waiting one does
// before it waits.
class WaitWithAnotherThread : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
    other = std::thread([this] {
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (!ended && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      if (!ended) {
        gaveUp = true;
        EXPECT_EQ(write(input[1], "x", 1), 1);
      }
    });
  }
  void TearDown() override {
    ended = true;
    other.join();
    EXPECT_FALSE(gaveUp) << "the wait has not ended";
    close(input[0]);
    close(input[1]);
  }
  // Returns when the signal has come back to this thread, which blocks it; at the latest after a
  // second.
  void sendToTheOther(int number) {
    pthread_kill(other.native_handle(), number);
    sigset_t pending;
    for (int i = 0; i < 100; ++i) {
      sigpending(&pending);
      if (sigismember(&pending, number) != 0) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  int input[2];
  std::atomic<bool> ended{false};
  std::atomic<bool> gaveUp{false};
  std::thread other;
};

TEST_F(WaitWithAnotherThread, EndsWithAnInterruptThatTheOtherIsGiven) {
  catchInterrupts();
  EXPECT_FALSE(waitForInput(input[0], [this] { sendToTheOther(SIGINT); }));
}

TEST_F(WaitWithAnotherThread, NoticesASizeOfTheTerminalThatTheOtherIsToldOf) {
  TerminalModes modes(input[0], input[1]);
  bool wasSent = false;
  bool wasResized = false;
  EXPECT_TRUE(waitForInput(input[0], [&] {
    wasResized = modes.wasResized();
    if (!wasSent) {
      wasSent = true;
      sendToTheOther(SIGWINCH);
    } else {
      EXPECT_EQ(write(input[1], "x", 1), 1);
    }
  }));
  EXPECT_TRUE(wasResized);
}

TEST(InterruptTest, NewSpanIsNotCancelled) {
  catchInterrupts();
  {
    const CancelScope scope;
    std::raise(SIGINT);
  }
  EXPECT_FALSE(CancelScope().cancelled());
}

TEST(InterruptDeathTest, StatusTellsTheFirstSignal) {
  EXPECT_EXIT(
      {
        catchRequestsToEnd();
        const CancelScope scope(FurtherInterrupt::IsIgnored);
        raiseTwice(SIGTERM, SIGINT);
        std::_Exit(cancelledExit());
      },
      testing::ExitedWithCode(128 + SIGTERM), "");
  EXPECT_EXIT(
      {
        catchInterrupts();
        const CancelScope scope;
        std::raise(SIGINT);
        std::_Exit(cancelledExit());
      },
      testing::ExitedWithCode(kInterruptedExit), "");
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
