// Threads of a team that fills all processors have one each, for the time of a pass.
#include "qwen35/placement.h"

#include <gtest/gtest.h>
#include <omp.h>
#include <sched.h>

#include <set>
#include <thread>
#include <vector>

#include "qwen35/team.h"

namespace {

using qwen35::OwnProcessor;
using qwen35::ProcessorSet;
using qwen35::Team;

std::vector<int> allowed() {
  cpu_set_t set;
  CPU_ZERO(&set);
  EXPECT_EQ(0, sched_getaffinity(0, sizeof set, &set));
  std::vector<int> processors;
  for (int i = 0; i < CPU_SETSIZE; ++i) {
    if (CPU_ISSET(static_cast<size_t>(i), &set)) {
      processors.push_back(i);
    }
  }
  return processors;
}

void allow(const std::vector<int>& processors) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (const int i : processors) {
    CPU_SET(static_cast<size_t>(i), &set);
  }
  ASSERT_EQ(0, sched_setaffinity(0, sizeof set, &set));
}

// Changes to a thread's processors stay within a test.
template <typename Body>
void onAThread(const Body& body) {
  std::thread(body).join();
}

#define SKIP_ON_ONE_PROCESSOR()                            \
  if (allowed().size() < 2) {                              \
    GTEST_SKIP() << "this machine has one processor only"; \
  }

TEST(Placement, IsTheProcessorOfTheIndexUntilItsEnd) {
  SKIP_ON_ONE_PROCESSOR();
  onAThread([] {
    const std::vector<int> all = allowed();
    for (size_t index = 0; index < all.size(); ++index) {
      {
        const OwnProcessor own(ProcessorSet::ofThisThread(), index, all.size());
        EXPECT_EQ(std::vector<int>{all[index]}, allowed());
        EXPECT_EQ(all[index], sched_getcpu());
      }
      EXPECT_EQ(all, allowed());
    }
  });
}

TEST(Placement, IsLeftToTheSystemForFewerOrMoreThreads) {
  SKIP_ON_ONE_PROCESSOR();
  onAThread([] {
    const std::vector<int> all = allowed();
    for (const size_t threads : {size_t{1}, all.size() - 1, all.size() + 1, 2 * all.size()}) {
      const OwnProcessor own(ProcessorSet::ofThisThread(), 0, threads);
      EXPECT_EQ(all, allowed()) << threads;
    }
  });
}

TEST(Placement, OfAThreadThatSomeoneBoundStays) {
  SKIP_ON_ONE_PROCESSOR();
  onAThread([] {
    const ProcessorSet all = ProcessorSet::ofThisThread();
    const std::vector<int> last{allowed().back()};
    allow(last);
    {
      const OwnProcessor own(all, 0, all.size());
      EXPECT_EQ(last, allowed());
    }
    EXPECT_EQ(last, allowed());
  });
}

TEST(Placement, GivenMeanwhileStays) {
  SKIP_ON_ONE_PROCESSOR();
  onAThread([] {
    const std::vector<int> all = allowed();
    {
      const OwnProcessor own(ProcessorSet::ofThisThread(), 0, all.size());
      allow({all[1]});
    }
    EXPECT_EQ(std::vector<int>{all[1]}, allowed());
  });
}

TEST(Placement, OfATeamThatFillsAllProcessorsIsOneEach) {
  SKIP_ON_ONE_PROCESSOR();
  onAThread([] {
    const std::vector<int> all = allowed();
    omp_set_num_threads(static_cast<int>(all.size()));
    Team team(all.size());
    std::vector<std::vector<int>> during(all.size());
    std::vector<std::vector<int>> after(all.size());
    team.run([&](Team::Member& member) { during[member.thread()] = allowed(); });
#pragma omp parallel num_threads(static_cast <int>(all.size()))
    after[static_cast<size_t>(omp_get_thread_num())] = allowed();
    std::set<std::vector<int>> different(during.begin(), during.end());
    EXPECT_EQ(all.size(), different.size());
    for (const std::vector<int>& processors : during) {
      EXPECT_EQ(1u, processors.size());
    }
    for (const std::vector<int>& processors : after) {
      EXPECT_EQ(all, processors);
    }
  });
}

TEST(Placement, OfASmallerTeamIsLeftToTheSystem) {
  SKIP_ON_ONE_PROCESSOR();
  onAThread([] {
    const std::vector<int> all = allowed();
    omp_set_num_threads(static_cast<int>(all.size()));
    Team team(all.size() - 1);
    team.run([&](Team::Member&) { EXPECT_EQ(all, allowed()); });
  });
}

}  // namespace
