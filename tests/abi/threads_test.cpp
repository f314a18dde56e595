// Hosts with threads of their own: their replies are those of a host that has one.
#include <gtest/gtest.h>
#include <omp.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/instrumented.h"
#include "tests/support/resident_memory.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::residentKilobytes;
using testing_abi::Handle;
using testing_abi::Reply;
using namespace std::chrono_literals;

using Replies = std::vector<std::string>;

std::string say(const Handle& handle, const std::string& text) {
  const Reply reply = testing_abi::firstPieces(handle, text, 6);
  EXPECT_EQ(0u, reply.status);
  EXPECT_FALSE(reply.pieces.empty()) << "says something to compare";
  return reply.text;
}

// Several turns behind one another, and one on an empty context again.
Replies conversation(const Handle& handle) {
  Replies replies;
  testing_abi::resetOf(handle);
  replies.push_back(say(handle, "hello"));
  replies.push_back(say(handle, "and how are you?"));
  replies.push_back(say(handle, std::string(40, 'y')));
  testing_abi::resetOf(handle);
  replies.push_back(say(handle, "once more"));
  return replies;
}

// A model in which a difference in the last bit shows, and what one thread makes of it.
struct Model {
  Model(const kel::test::TempDir& folder, uint64_t hidden)
      : path(folder.file("m" + std::to_string(hidden) + ".zym")) {
    kel::test::writeSensitiveChatModel(path, kel::QuantType::Q8_0, hidden);
    testing_abi::plugin();
    const kel::test::ScopedEnv oneThread("OMP_NUM_THREADS", "1");
    expected = conversation(testing_abi::createHandle(path));
  }

  std::string path;
  Replies expected;
};

class Threads : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = std::make_unique<kel::test::TempDir>();
    model = std::make_unique<Model>(*folder, 32);
  }
  static void TearDownTestSuite() {
    model.reset();
    folder.reset();
  }

  static std::unique_ptr<kel::test::TempDir> folder;
  static std::unique_ptr<Model> model;

  const kel::test::ScopedEnv severalThreads{"OMP_NUM_THREADS", "3"};
};

std::unique_ptr<kel::test::TempDir> Threads::folder;
std::unique_ptr<Model> Threads::model;

TEST_F(Threads, TwoHostThreadsHoldTwoConversationsAtOnce) {
  const Model other(*folder, 64);
  ASSERT_NE(model->expected, other.expected);
  const auto converse = [](const Model& with) {
    const Handle handle = testing_abi::createHandle(with.path);
    for (int round = 0; round < (kel::test::kInstrumented ? 2 : 3); ++round) {
      EXPECT_EQ(with.expected, conversation(handle)) << round;
    }
  };
  std::thread first([&] { converse(*model); });
  std::thread second([&] { converse(other); });
  first.join();
  second.join();
}

TEST_F(Threads, AHostCallsFromOneThreadOfItsOwnRegion) {
  const Handle handle = testing_abi::createHandle(model->path);
  Replies replies;
#pragma omp parallel num_threads(3)
#pragma omp single
  replies = conversation(handle);
  EXPECT_EQ(model->expected, replies);
  EXPECT_EQ(model->expected, conversation(handle)) << "and from outside it again";
}

TEST_F(Threads, AHostCallsFromAllThreadsOfItsOwnRegion) {
  constexpr int kCallers = 3;
  Handle handles[kCallers];
  Replies replies[kCallers];
  for (Handle& handle : handles) {
    handle = testing_abi::createHandle(model->path);
  }
#pragma omp parallel num_threads(kCallers)
  {
    const int caller = omp_get_thread_num();
    replies[caller] = conversation(handles[caller]);
  }
  for (const Replies& ofCaller : replies) {
    EXPECT_EQ(model->expected, ofCaller);
  }
}

size_t nThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// The threads of the process when no more of them end: those that a host thread had at work end
// some time after it.
size_t settledThreads() {
  size_t least = nThreads();
  for (int unchanged = 0; unchanged < 20; ++unchanged) {
    std::this_thread::sleep_for(10ms);
    if (const size_t count = nThreads(); count < least) {
      least = count;
      unchanged = 0;
    }
  }
  return least;
}

TEST_F(Threads, HostThreadsTakeTurnsAndLeaveNothingBehind) {
  constexpr int kFirst = 5;
  constexpr int kHostThreads = kel::test::kInstrumented ? 15 : 50;
  const Handle handle = testing_abi::createHandle(model->path);
  size_t threads = 0;
  long kilobytes = 0;
  for (int i = 0; i < kHostThreads; ++i) {
    if (i == kFirst) {
      threads = settledThreads();
      kilobytes = residentKilobytes();
    }
    std::thread([&] {
      testing_abi::resetOf(handle);
      EXPECT_EQ(model->expected[0], say(handle, "hello")) << i;
    }).join();
  }
  EXPECT_LE(settledThreads(), threads);
  EXPECT_LT(residentKilobytes() - kilobytes, kel::test::allowedGrowth(8192));
}

TEST_F(Threads, AHostAsksForMoreThreadsThanThereAreProcessors) {
  const kel::test::ScopedEnv many("OMP_NUM_THREADS", "64");
  std::thread([] {
    omp_set_num_threads(64);
    EXPECT_EQ(model->expected, conversation(testing_abi::createHandle(model->path)));
  }).join();
}

// As when a container is given fewer processors while a conversation goes on.
TEST_F(Threads, AHostIsLeftWithOneProcessorForItsThreads) {
  std::thread([] {
    const Handle handle = testing_abi::createHandle(model->path);
    cpu_set_t allowed;
    ASSERT_EQ(0, sched_getaffinity(0, sizeof allowed, &allowed));
    int processor = 0;
    while (!CPU_ISSET(processor, &allowed)) {
      ++processor;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    // The threads that this one begins take over its set.
    ASSERT_EQ(0, sched_setaffinity(0, sizeof one, &one));
    EXPECT_EQ(model->expected, conversation(handle));
  }).join();
}

}  // namespace
