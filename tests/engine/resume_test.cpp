// Going back to a place in a context, instead of reading again.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "engine/context.h"
#include "tests/engine/engine_models.h"
#include "tests/support/family_shapes.h"
#include "tests/support/float_bits.h"

namespace engine {
namespace {

using kel::test::Bits;
using kel::test::RandomModelSpec;
using testing_support::feed;
using testing_support::OpenedModel;

const OpenedModel& sharedModel() {
  static const OpenedModel opened([] {
    RandomModelSpec spec = {
        .hidden = 8, .ffn = 16, .vocab = 40, .shape = kel::test::oddShape(), .statesShape = true};
    spec.shape.contextLength = 5000;
    return spec;
  }());
  return opened;
}

std::vector<Token> text(size_t count, int32_t salt) {
  std::vector<Token> tokens(count);
  for (size_t i = 0; i < count; ++i) {
    tokens[i].id = static_cast<int32_t>((i * 7 + static_cast<size_t>(salt) * 11) % 40);
  }
  return tokens;
}

std::vector<Token> operator+(std::vector<Token> a, const std::vector<Token>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Feeds what resume() leaves of the tokens; returns how many those were.
size_t feedRest(Context& context, const std::vector<Token>& tokens) {
  const size_t held = context.held(tokens);
  const size_t kept = context.resume(tokens);
  EXPECT_EQ(held, kept);
  kel::Status status;
  EXPECT_EQ(Context::Fed::All,
            context.feed(std::span(tokens).subspan(kept), nullptr, nullptr, status))
      << status.message;
  return tokens.size() - kept;
}

Bits bits(const Context& context) {
  return kel::test::bitsOf(context.logits());
}

Bits bitsAfresh(const std::vector<Token>& tokens) {
  const auto context = sharedModel().context({});
  feedRest(*context, tokens);
  return bits(*context);
}

std::vector<Token> generate(Context& context, size_t count) {
  std::vector<Token> generated;
  for (size_t i = 0; i < count; ++i) {
    generated.push_back({static_cast<int32_t>((i * 13 + 5) % 40), true});
    EXPECT_TRUE(context.feedToken(generated.back().id).ok());
  }
  return generated;
}

TEST(Resume, AConversationFeedsEachTokenOnce) {
  const auto context = sharedModel().context({});
  std::vector<Token> history;
  uint64_t prompts = 0;
  for (int32_t turn = 0; turn < 10; ++turn) {
    const std::vector<Token> message = text(90 + static_cast<size_t>(turn), turn);
    history = history + message;
    EXPECT_EQ(message.size(), feedRest(*context, history));
    prompts += message.size();
    history = history + generate(*context, 100);
  }
  EXPECT_EQ(prompts, context->statistics().promptTokens);
  EXPECT_EQ(1000U, context->statistics().generatedTokens);
  EXPECT_EQ(history, context->tokens());
  EXPECT_EQ(bitsAfresh(history), bits(*context));
}

TEST(Resume, ARetryFeedsOnlyWhatIsBehindTheLastPlace) {
  const auto context = sharedModel().context({});
  const std::vector<Token> message = text(200, 1);
  const std::vector<Token> opening = text(4, 2);
  feedRest(*context, message);
  context->remember();
  feedRest(*context, message + opening);
  const Bits expected = bits(*context);
  generate(*context, 30);
  EXPECT_EQ(4U, feedRest(*context, message + opening));
  EXPECT_EQ(expected, bits(*context));
}

TEST(Resume, BranchesShareTheirHistory) {
  const auto context = sharedModel().context({});
  const std::vector<Token> history = text(300, 1);
  feedRest(*context, history);
  context->remember();
  const std::vector<Token> one = history + text(20, 2);
  const std::vector<Token> two = history + text(30, 3);
  feedRest(*context, one);
  EXPECT_EQ(30U, feedRest(*context, two));
  EXPECT_EQ(bitsAfresh(two), bits(*context));
  EXPECT_EQ(20U, feedRest(*context, one));
  EXPECT_EQ(bitsAfresh(one), bits(*context));
}

TEST(Resume, LongTextsHavePlacesOnTheirWay) {
  const auto context = sharedModel().context({});
  const std::vector<Token> whole = text(1700, 1);
  feedRest(*context, whole);
  std::vector<Token> edited = whole;
  edited[1300].id = (edited[1300].id + 1) % 40;
  EXPECT_EQ(1700U - 1024U, feedRest(*context, edited));
  EXPECT_EQ(bitsAfresh(edited), bits(*context));
}

TEST(Resume, PlacesAreCountedWithTheMemoryThatTheyTake) {
  const auto context = sharedModel().context({});
  EXPECT_EQ(0U, context->placeCount());
  EXPECT_EQ(0U, context->placeBytes());
  feedRest(*context, text(10, 1));
  context->remember();
  const uint64_t one = context->placeBytes();
  EXPECT_LT(0U, one);
  feedRest(*context, text(10, 1) + text(10, 2));
  context->remember();
  EXPECT_EQ(2U, context->placeCount());
  EXPECT_EQ(2 * one, context->placeBytes());
}

// Whether a token was read or generated is part of what it left behind.
TEST(Resume, AReadTokenIsNoGeneratedOne) {
  const auto context = sharedModel().context({});
  feedRest(*context, text(50, 1));
  const std::vector<Token> generated = generate(*context, 5);
  std::vector<Token> read = text(50, 1) + generated;
  for (Token& token : read) {
    token.isGenerated = false;
  }
  EXPECT_EQ(5U + 50U, feedRest(*context, read));
  EXPECT_EQ(bitsAfresh(read), bits(*context));
}

TEST(Resume, TheSameTextAgainNeedsNothingWhileItsLogitsAreThere) {
  const auto context = sharedModel().context({});
  const std::vector<Token> whole = text(60, 1);
  feedRest(*context, whole);
  const Bits expected = bits(*context);
  EXPECT_EQ(60U, context->resume(whole));
  EXPECT_EQ(expected, bits(*context));
  context->remember();
  generate(*context, 1);
  // The place at 60 has a state, but no logits.
  EXPECT_EQ(60U, feedRest(*context, whole));
  EXPECT_EQ(expected, bits(*context));
}

TEST(Resume, NothingInCommonBeginsAnew) {
  const auto context = sharedModel().context({});
  feedRest(*context, text(100, 1));
  const std::vector<Token> other = text(80, 2);
  EXPECT_EQ(0U, context->resume(other));
  EXPECT_EQ(0U, context->position());
  EXPECT_TRUE(context->logits().empty());
  EXPECT_EQ(80U, feedRest(*context, other));
  EXPECT_EQ(bitsAfresh(other), bits(*context));
}

TEST(Resume, PartsOfATextAreNoPlacesAndHaveNoLogitsBeforeTheLast) {
  const auto context = sharedModel().context({});
  const std::vector<Token> first = text(10, 1);
  const std::vector<Token> second = text(20, 2);
  const std::vector<Token> third = text(15, 3);
  feedRest(*context, first);
  context->remember();
  kel::Status status;
  for (const std::vector<Token>& part : {second, third}) {
    const bool isLast = part == third;
    EXPECT_EQ(Context::Fed::All,
              context->feedPart(part, isLast ? Context::Logits::OfTheLast : Context::Logits::None,
                                nullptr, nullptr, status));
    EXPECT_EQ(isLast, !context->logits().empty());
  }
  EXPECT_EQ(bitsAfresh(first + second + third), bits(*context));
  EXPECT_EQ(first.size(), context->resume(first + second + text(5, 4)));
}

TEST(Resume, ATextThatIsStoppedGoesBackEvenWhereItsPlacesFillTheBudget) {
  const auto context = sharedModel().context({.snapshotBytes = 0});
  const std::vector<Token> first = text(10, 1);
  feedRest(*context, first);
  volatile int cancel = 0;
  kel::Status status;
  EXPECT_EQ(Context::Fed::Cancelled,
            context->feed(
                text(3000, 2), [&](size_t done, size_t) { cancel = done > 2500 ? 1 : 0; }, &cancel,
                status));
  EXPECT_EQ(first, context->tokens());
  EXPECT_TRUE(context->logits().empty());
  const std::vector<Token> whole = first + text(7, 3);
  EXPECT_EQ(7U, feedRest(*context, whole));
  EXPECT_EQ(bitsAfresh(whole), bits(*context));
}

TEST(SnapshotStore, TheOneUsedLongestAgoMakesRoom) {
  qwen35::Model model{.shape = sharedModel().model->shape()};
  qwen35::initLayers(sharedModel().model->file(), model, 10);
  SnapshotStore store(model, 3 * qwen35::Snapshot::bytes(model));
  EXPECT_EQ(3U, store.capacity());
  for (const uint64_t position : {10, 20, 30}) {
    store.take(model, position);
  }
  store.use(10);
  store.take(model, 40);
  EXPECT_EQ(3U, store.count());
  EXPECT_EQ(3 * qwen35::Snapshot::bytes(model), store.bytes());
  EXPECT_EQ(10U, store.nearest(29));  // 20 went
  EXPECT_EQ(40U, store.nearest(99));
  EXPECT_EQ(0U, store.nearest(9));
  store.forgetBehind(30);
  EXPECT_EQ(30U, store.nearest(99));
  EXPECT_EQ(2U, store.count());
  EXPECT_EQ(3 * qwen35::Snapshot::bytes(model), store.bytes());  // one is kept for the next place
}

TEST(SnapshotStore, HasRoomForTwoWhateverTheBudget) {
  qwen35::Model model{.shape = sharedModel().model->shape()};
  qwen35::initLayers(sharedModel().model->file(), model, 10);
  EXPECT_EQ(2U, SnapshotStore(model, 0).capacity());
}

}  // namespace
}  // namespace engine
