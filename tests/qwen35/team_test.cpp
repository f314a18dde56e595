// A team of threads: every piece of every step once, in whatever order threads come.
#include "qwen35/team.h"

#include <gtest/gtest.h>
#include <omp.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <thread>
#include <vector>

#include "tests/support/instrumented.h"

namespace {

using qwen35::Team;
using namespace std::chrono_literals;

constexpr size_t kThreadCounts[] = {1, 2, 3, 4, 7};  // the last ones more than small machines have

// Regions of as many threads as a test asks for.
class TeamOfThreads : public testing::Test {
 protected:
  ~TeamOfThreads() override { omp_set_num_threads(before); }

  static void allow(size_t threads) { omp_set_num_threads(static_cast<int>(threads)); }

  const int before = omp_get_max_threads();
};

// Waits until condition() holds. False when that takes so long that it never will: a test that
// waits for what cannot come is to fail, not to hang.
template <typename Condition>
bool waitUntil(const Condition& condition) {
  const auto end = std::chrono::steady_clock::now() + 30s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(100us);
  }
  return true;
}

TEST_F(TeamOfThreads, EveryPieceIsCalledOnce) {
  for (const size_t threads : kThreadCounts) {
    allow(threads);
    Team team(threads);
    for (const size_t n :
         {size_t{0}, size_t{1}, size_t{2}, threads - 1, threads, size_t{7}, size_t{1000}}) {
      std::vector<std::atomic<int>> calls(n);
      team.run([&](Team::Member& member) { member.forEach(n, [&](size_t i) { ++calls[i]; }); });
      for (size_t i = 0; i < n; ++i) {
        EXPECT_EQ(1, calls[i]) << "piece " << i << " of " << n << ", threads " << threads;
      }
    }
  }
}

TEST_F(TeamOfThreads, ActionsAreDoneOnce) {
  for (const size_t threads : kThreadCounts) {
    allow(threads);
    Team team(threads);
    std::atomic<int> calls = 0;
    team.run([&](Team::Member& member) {
      for (int step = 0; step < 500; ++step) {
        member.once([&] { ++calls; });
      }
    });
    EXPECT_EQ(500, calls) << threads;
  }
}

// Steps of changing length over plain arrays, each reading what the step before has written, mostly
// on other threads.
class Relay {
 public:
  static constexpr uint32_t kSteps = kel::test::kInstrumented ? 600 : 4000;
  static constexpr size_t kLongest = 300;

  static size_t length(uint32_t step) {
    constexpr size_t kLengths[] = {3, 0, 1, 40, 2, 7, 1, kLongest, 5, 0, 16};
    return kLengths[step % std::size(kLengths)];
  }

  void piece(uint32_t step, size_t i) {
    const std::vector<uint32_t>& from = values[step % 2];
    std::vector<uint32_t>& to = values[(step + 1) % 2];
    to[i] = from[kLongest - 1 - i] * 31 + from[i] + step;
    // What the next step reads and this one does not compute.
    for (size_t copied = i + length(step); copied < kLongest; copied += length(step)) {
      to[copied] = from[copied];
    }
  }

  // Steps of length 0 change nothing, so what they would have written is what was there.
  static Relay oneByOne() {
    Relay relay;
    for (uint32_t step = 0; step < kSteps; ++step) {
      for (size_t i = 0; i < length(step); ++i) {
        relay.piece(step, i);
      }
    }
    return relay;
  }

  bool operator==(const Relay&) const = default;

 private:
  std::vector<uint32_t> values[2] = {std::vector<uint32_t>(kLongest, 1),
                                     std::vector<uint32_t>(kLongest, 2)};
};

TEST_F(TeamOfThreads, AStepFindsAllThatTheStepBeforeHasWritten) {
  const Relay expected = Relay::oneByOne();
  for (const size_t threads : kThreadCounts) {
    allow(threads);
    Team team(threads);
    Relay relay;
    team.run([&](Team::Member& member) {
      for (uint32_t step = 0; step < Relay::kSteps; ++step) {
        member.forEach(Relay::length(step), [&](size_t i) { relay.piece(step, i); });
      }
    });
    EXPECT_EQ(expected, relay) << threads;
  }
}

// A member reads what other members wrote in the step that it has just come out of.
TEST_F(TeamOfThreads, AStepIsOverForAMemberWhenAllItsPiecesAre) {
  constexpr size_t kSteps = 500;
  constexpr size_t kPieces = 12;
  for (const size_t threads : kThreadCounts) {
    allow(threads);
    Team team(threads);
    std::vector<size_t> calls(kSteps * kPieces, 0);
    std::atomic<size_t> missed = 0;
    team.run([&](Team::Member& member) {
      for (size_t step = 0; step < kSteps; ++step) {
        size_t* ofStep = calls.data() + step * kPieces;
        member.forEach(kPieces, [&](size_t i) { ++ofStep[i]; });
        missed += kPieces - static_cast<size_t>(std::count(ofStep, ofStep + kPieces, size_t{1}));
      }
    });
    EXPECT_EQ(0u, missed) << threads;
  }
}

// A pass follows a pass: nothing of one is left for the next, whatever number of threads it had.
TEST_F(TeamOfThreads, RunsFollowOneAnother) {
  const Relay expected = Relay::oneByOne();
  Team team(4);
  Relay relay;
  for (uint32_t step = 0; step < Relay::kSteps;) {
    const uint32_t end = std::min(step + step % 4, Relay::kSteps - 1) + 1;
    allow(1 + step % 5);
    team.run([&, step](Team::Member& member) {
      for (uint32_t s = step; s < end; ++s) {
        member.forEach(Relay::length(s), [&](size_t i) { relay.piece(s, i); });
      }
    });
    step = end;
  }
  EXPECT_EQ(expected, relay);
}

TEST_F(TeamOfThreads, EffectsAreThereWhenARunReturns) {
  allow(3);
  Team team(3);
  std::vector<int> plain(100, 0);
  for (int round = 1; round <= 100; ++round) {
    team.run([&](Team::Member& member) { member.forEach(100, [&](size_t i) { ++plain[i]; }); });
    ASSERT_EQ(std::vector<int>(100, round), plain);
  }
}

TEST_F(TeamOfThreads, MembersAreNumberedBelowTheLimit) {
  for (const size_t allowed : {size_t{1}, size_t{3}, size_t{7}}) {
    for (const size_t limit : {size_t{0}, size_t{1}, size_t{4}, size_t{7}}) {
      allow(allowed);
      Team team(limit);
      EXPECT_EQ(std::max<size_t>(limit, 1), team.maxThreads());
      std::vector<std::atomic<int>> members(team.maxThreads());
      team.run([&](Team::Member& member) {
        if (member.thread() < members.size()) {
          ++members[member.thread()];
        } else {
          ADD_FAILURE() << member.thread();
        }
      });
      for (size_t i = 0; i < members.size(); ++i) {
        EXPECT_EQ(i < allowed ? 1 : 0, members[i]) << i << " of " << limit << ", " << allowed;
      }
    }
  }
}

// A region of the host: its threads are working already.
TEST_F(TeamOfThreads, InsideARegionOfTheCallerATeamIsOneThread) {
  allow(4);
  constexpr int kCallers = 3;
  std::atomic<int> members[kCallers] = {};
  std::atomic<int> pieces[kCallers] = {};
#pragma omp parallel num_threads(kCallers)
  {
    const int caller = omp_get_thread_num();
    Team team(4);
    for (int run = 0; run < 20; ++run) {
      team.run([&](Team::Member& member) {
        ++members[caller];
        EXPECT_EQ(0u, member.thread());
        for (size_t n = 0; n < 10; ++n) {
          member.forEach(n, [&](size_t) { ++pieces[caller]; });
        }
      });
    }
  }
  for (int caller = 0; caller < kCallers; ++caller) {
    EXPECT_EQ(20, members[caller]);
    EXPECT_EQ(20 * 45, pieces[caller]);
  }
}

// One thread stays away from some step on until the others have done the last piece of the last
// step.
void expectOthersDoTheWorkOf(size_t lateThread, int lateFrom) {
  constexpr int kSteps = 6;
  constexpr size_t kPieces = 20;
  constexpr size_t kThreads = 3;
  Team team(kThreads);
  std::atomic<size_t> members = 0;
  std::atomic<size_t> calls[kSteps] = {};
  std::atomic<size_t> callsOfTheLate = 0;
  std::atomic<bool> othersWereDone = false;
  team.run([&](Team::Member& member) {
    ++members;
    const bool isLate = member.thread() == lateThread;
    for (int step = 0; step < kSteps; ++step) {
      if (isLate && step == lateFrom) {
        othersWereDone = waitUntil([&] { return calls[kSteps - 1] == kPieces; });
      }
      member.forEach(kPieces, [&](size_t) {
        ++calls[step];
        if (isLate && step >= lateFrom) {
          ++callsOfTheLate;
        }
      });
    }
  });
  ASSERT_EQ(kThreads, members) << "the test needs them";
  EXPECT_TRUE(othersWereDone) << "thread " << lateThread << " from step " << lateFrom;
  EXPECT_EQ(0u, callsOfTheLate);
  for (const std::atomic<size_t>& callsOfStep : calls) {
    EXPECT_EQ(kPieces, callsOfStep);
  }
}

TEST_F(TeamOfThreads, AThreadThatIsLateHoldsNobodyUp) {
  allow(3);
  for (const size_t lateThread : {0, 1, 2}) {
    expectOthersDoTheWorkOf(lateThread, 0);
    expectOthersDoTheWorkOf(lateThread, 4);
  }
}

// What is left of a step is done by the others; only its last piece is waited for.
TEST_F(TeamOfThreads, APieceThatTakesLongHoldsNoOtherPieceUp) {
  allow(2);
  Team team(2);
  std::atomic<size_t> members = 0;
  std::atomic<size_t> others = 0;
  std::atomic<bool> othersWereDone = false;
  std::atomic<bool> nextStepCameLater = true;
  // Few enough for each to be handed out by itself.
  constexpr size_t kPieces = 4;
  team.run([&](Team::Member& member) {
    ++members;
    member.forEach(kPieces, [&](size_t i) {
      if (i == 0) {
        othersWereDone = waitUntil([&] { return others == kPieces - 1; });
        std::this_thread::sleep_for(20ms);
        others = kPieces;
      } else {
        ++others;
      }
    });
    if (others != kPieces) {
      nextStepCameLater = false;
    }
  });
  ASSERT_EQ(2u, members) << "the test needs them";
  EXPECT_TRUE(othersWereDone);
  EXPECT_TRUE(nextStepCameLater);
}

std::chrono::nanoseconds threadCpuTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// Not a test of speed: a thread that looks without end for work uses the whole time of the wait, or
// its share of a busy processor; one that sleeps uses next to nothing.
TEST_F(TeamOfThreads, WaitingThreadsSleep) {
  constexpr size_t kThreads = 3;
  constexpr auto kWait = 200ms;
  allow(kThreads);
  Team team(kThreads);
  std::atomic<size_t> arrived = 0;
  std::atomic<int64_t> used[kThreads] = {};
  std::atomic<bool> allCame = false;
  team.run([&](Team::Member& member) {
    ++arrived;
    const std::chrono::nanoseconds start = threadCpuTime();
    member.once([&] {
      allCame = waitUntil([&] { return arrived == kThreads; });
      std::this_thread::sleep_for(kWait);
    });
    used[member.thread()] = (threadCpuTime() - start).count();
  });
  ASSERT_TRUE(allCame) << "the test needs three threads";
  for (const std::atomic<int64_t>& nanoseconds : used) {
    EXPECT_LT(std::chrono::nanoseconds(nanoseconds), kWait / 4);
  }
}

}  // namespace
