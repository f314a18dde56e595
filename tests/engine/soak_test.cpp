// A thousand turns in one context, with every turn that a person takes: going on, trying again,
// editing, starting anew, and stopping a reply at any moment.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/engine/talking.h"
#include "tests/support/family_shapes.h"
#include "tests/support/instrumented.h"
#include "tests/support/resident_memory.h"

namespace engine {
namespace {

using testing_support::lettersOnly;
using testing_support::OpenedModel;
using testing_support::user;

constexpr uint64_t kPositions = 1200;
constexpr int kWarmUpTurns = kPositions / 8;  // fill the context and its places several times

// What 1,000 turns may add to what the process holds after the first ones. All that a turn takes is
// made once: caches, places, scratch; what is left are the allocator's habits.
constexpr long kAllowedGrowthKb = kel::test::allowedGrowth(4096);

constexpr int share(int turns) {
  return kel::test::kInstrumented ? turns / 10 : turns;
}

kel::test::RandomModelSpec smallModel() {
  kel::test::RandomModelSpec spec = testing_support::talkingModel(kel::test::oddShape());
  spec.shape.layers = 3;
  spec.shape.fullLayers = {};
  spec.shape.fullLayers.add(2);
  spec.shape.contextLength = kPositions;
  return spec;
}

// Raises a flag after a while, from another thread.
class Canceller {
 public:
  Canceller(volatile int& target, std::chrono::microseconds pause)
      : other([&target, pause] {
          std::this_thread::sleep_for(pause);
          __atomic_store_n(&target, 1, __ATOMIC_RELAXED);
        }) {}
  ~Canceller() { other.join(); }
  Canceller(const Canceller&) = delete;
  Canceller& operator=(const Canceller&) = delete;

 private:
  std::thread other;
};

class Soak : public testing::Test {
 protected:
  size_t below(size_t limit) { return random() % limit; }

  // Of another length every time, so that batches and places lie everywhere.
  std::string words() {
    std::string text;
    for (size_t count = 1 + below(30); count > 0; --count) {
      text += static_cast<char>('a' + below(26));
    }
    return text;
  }

  // Goes on, tries again, edits or branches off; starts anew where the context is nearly full.
  void nextMessage() {
    const size_t kind = below(10);
    if (context->position() > kPositions - 150 || kind == 0) {
      messages.clear();
    } else if (kind < 3 && messages.size() >= 2) {
      messages.resize(messages.size() - 2);
    } else if (kind == 3 && messages.size() >= 4) {
      messages.resize(2 * below(messages.size() / 2));
    }
    messages.push_back(user(words()));
  }

  Reply generate(Context& used, uint64_t seed, const volatile int* cancel) {
    Sampler sampler(seed);
    Reply reply;
    ReplySinks sinks;
    sinks.cancel = cancel;
    ReplyOptions options = lettersOnly(12);
    options.thinkingTokens = 4;
    const kel::Status status = generateReply(
        used, sampler, {.messages = messages, .thinking = seed % 2 == 0, .preserveThinking = true},
        options, sinks, reply);
    EXPECT_TRUE(status.ok()) << status.message;
    return reply;
  }

  void turn() {
    nextMessage();
    const uint64_t seed = random();
    const Reply reply = generate(*context, seed, nullptr);
    EXPECT_EQ(12U, reply.tokens);
    messages.push_back(reply.message);
  }

  // A reply that is stopped, and one to the same message that is not: it is what a context without
  // a past gives. Returns whether the first one was stopped before its end.
  bool stoppedTurn() {
    nextMessage();
    const uint64_t seed = random();
    volatile int cancel = 0;
    bool isStopped = false;
    {
      const Canceller canceller(cancel, std::chrono::microseconds(below(longestPause)));
      isStopped = generate(*context, random(), &cancel).end == ReplyEnd::Cancelled;
    }
    const Reply warm = generate(*context, seed, nullptr);
    const auto fresh = model.context({.positions = kPositions, .threads = 2});
    const Reply cold = generate(*fresh, seed, nullptr);
    EXPECT_EQ(cold.message.content, warm.message.content);
    EXPECT_EQ(cold.message.reasoningContent, warm.message.reasoningContent);
    EXPECT_EQ(fresh->tokens(), context->tokens());
    messages.push_back(warm.message);
    return isStopped;
  }

  const OpenedModel model{smallModel()};
  // Fewer places than messages, so that they make room for one another.
  std::unique_ptr<Context> context =
      model.context({.positions = kPositions, .threads = 2, .snapshotBytes = uint64_t{1} << 20});
  std::vector<Message> messages;
  std::mt19937_64 random{20240607};
  size_t longestPause = 4000;
};

TEST_F(Soak, AThousandTurnsLeaveMemoryFlat) {
  for (int i = 0; i < share(kWarmUpTurns); ++i) {
    turn();
  }
  const long before = kel::test::residentKilobytes();
  for (int i = 0; i < share(1000); ++i) {
    turn();
  }
  EXPECT_LT(kel::test::residentKilobytes() - before, kAllowedGrowthKb);
  EXPECT_GT(context->statistics().reusedTokens, context->statistics().promptTokens);
}

TEST_F(Soak, AReplyThatIsStoppedAtAnyMomentLeavesNothingBehind) {
  int stopped = 0;
  for (int i = 0; i < share(200); ++i) {
    const auto start = std::chrono::steady_clock::now();
    stopped += stoppedTurn() ? 1 : 0;
    // Three replies' time bounds the moment of the next: half of them fall into a reply.
    longestPause = 1 + static_cast<size_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                               std::chrono::steady_clock::now() - start)
                                               .count()) /
                           3;
  }
  EXPECT_GT(stopped, share(200) / 10);
}

}  // namespace
}  // namespace engine
