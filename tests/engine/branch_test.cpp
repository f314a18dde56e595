// Taking over what another context has read.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "engine/context.h"
#include "tests/engine/engine_models.h"
#include "tests/support/family_shapes.h"
#include "tests/support/float_bits.h"

namespace engine {
namespace {

using kel::test::Bits;
using kel::test::RandomModelSpec;
using qwen35::CacheType;
using testing_support::feed;
using testing_support::OpenedModel;

const OpenedModel& sharedModel() {
  static const OpenedModel opened([] {
    RandomModelSpec spec = {
        .hidden = 8, .ffn = 16, .vocab = 40, .shape = kel::test::oddShape(), .statesShape = true};
    spec.shape.contextLength = 2000;
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

Bits bits(const Context& context) {
  return kel::test::bitsOf(context.logits());
}

// Feeds what is not in place.
void feedRest(Context& context, const std::vector<Token>& tokens) {
  const size_t kept = context.resume(tokens);
  kel::Status status;
  EXPECT_EQ(Context::Fed::All,
            context.feed(std::span(tokens).subspan(kept), nullptr, nullptr, status))
      << status.message;
}

bool branch(Context& context, const std::vector<Token>& wanted,
            const std::vector<Context*>& others) {
  return context.branchFrom(wanted, others);
}

// What follows a text in a context that never met another.
struct Afresh {
  explicit Afresh(const std::vector<Token>& tokens, CacheType type = CacheType::F32)
      : context(sharedModel().context({.cacheType = type})) {
    feedRest(*context, tokens);
  }

  // That both hold the same, now and after tokens read and generated.
  void expectSame(Context& other) {
    EXPECT_EQ(context->tokens(), other.tokens());
    EXPECT_EQ(bits(*context), bits(other));
    for (const int32_t token : {3, 5, 8}) {
      ASSERT_TRUE(context->feedToken(token).ok());
      ASSERT_TRUE(other.feedToken(token).ok());
      EXPECT_EQ(bits(*context), bits(other));
    }
    feed(*context, {1, 2, 3, 4});
    feed(other, {1, 2, 3, 4});
    EXPECT_EQ(bits(*context), bits(other));
  }

  std::unique_ptr<Context> context;
};

TEST(Branch, AWholePromptNeedsNoTokenToBeFedAgain) {
  for (const CacheType type : {CacheType::F32, CacheType::BF16}) {
    const std::vector<Token> prompt = text(150, 1);
    const auto source = sharedModel().context({.cacheType = type});
    feedRest(*source, prompt);
    // Of other capacities than the source's.
    for (const uint64_t positions : {300, 2000}) {
      const auto context = sharedModel().context({.positions = positions, .cacheType = type});
      EXPECT_TRUE(branch(*context, prompt, {source.get()}));
      EXPECT_EQ(150U, context->resume(prompt));
      EXPECT_EQ(150U, context->statistics().reusedTokens);
      EXPECT_EQ(0U, context->statistics().promptTokens);
      Afresh(prompt, type).expectSame(*context);
    }
    Afresh(prompt, type).expectSame(*source);
  }
}

TEST(Branch, GoesOnBehindWhatBothTextsBeginWith) {
  const std::vector<Token> system = text(80, 1);
  const auto source = sharedModel().context({});
  feedRest(*source, system);
  source->remember();
  const std::vector<Token> first = system + text(20, 2);
  feedRest(*source, first);
  ASSERT_TRUE(source->feedToken(7).ok());
  const std::vector<Token> second = system + text(30, 3);
  const auto context = sharedModel().context({});
  EXPECT_TRUE(branch(*context, second, {source.get()}));
  EXPECT_EQ(system, context->tokens());
  EXPECT_TRUE(context->logits().empty());
  feedRest(*context, second);
  EXPECT_EQ(30U, context->statistics().promptTokens);
  Afresh(second).expectSame(*context);
  // The source is where it was.
  const Afresh expected(first);
  ASSERT_TRUE(expected.context->feedToken(7).ok());
  EXPECT_EQ(expected.context->tokens(), source->tokens());
  EXPECT_EQ(bits(*expected.context), bits(*source));
  feed(*expected.context, {1, 2});
  feed(*source, {1, 2});
  EXPECT_EQ(bits(*expected.context), bits(*source));
}

TEST(Branch, TheLongestBeginningIsTaken) {
  const std::vector<Token> wanted = text(90, 1);
  const auto shorter = sharedModel().context({});
  const auto longer = sharedModel().context({});
  const auto different = sharedModel().context({});
  feedRest(*shorter, {wanted.begin(), wanted.begin() + 40});
  feedRest(*longer, {wanted.begin(), wanted.begin() + 60});
  feedRest(*different, text(85, 2));
  const auto context = sharedModel().context({});
  EXPECT_TRUE(branch(*context, wanted, {shorter.get(), longer.get(), different.get()}));
  EXPECT_EQ(60U, context->resume(wanted));
  feedRest(*context, wanted);
  Afresh(wanted).expectSame(*context);
}

TEST(Branch, WhatIsHereAlreadyIsNotTakenOver) {
  const std::vector<Token> wanted = text(90, 1);
  const auto source = sharedModel().context({});
  const auto context = sharedModel().context({});
  feedRest(*source, {wanted.begin(), wanted.begin() + 40});
  feedRest(*context, {wanted.begin(), wanted.begin() + 40});
  const Bits before = bits(*context);
  EXPECT_FALSE(branch(*context, wanted, {source.get(), context.get()}));
  EXPECT_FALSE(branch(*context, text(20, 2), {source.get()}));
  EXPECT_FALSE(branch(*context, wanted, {}));
  EXPECT_EQ(40U, context->position());
  EXPECT_EQ(before, bits(*context));
}

TEST(Branch, PlacesWithinTheCommonBeginningRemainAndOthersDoNot) {
  const std::vector<Token> system = text(50, 1);
  const auto context = sharedModel().context({});
  feedRest(*context, system);
  context->remember();
  const std::vector<Token> own = system + text(30, 2);
  feedRest(*context, own);
  context->remember();
  const auto source = sharedModel().context({});
  const std::vector<Token> theirs = system + text(40, 3);
  feedRest(*source, theirs);
  EXPECT_TRUE(branch(*context, theirs, {source.get()}));
  EXPECT_EQ(theirs, context->tokens());
  // Back to the system text's own place, and not to the one behind it, which was of other tokens.
  EXPECT_EQ(50U, context->resume(own));
  feedRest(*context, own);
  Afresh(own).expectSame(*context);
}

TEST(Branch, WhatDoesNotFitIsNotTaken) {
  const std::vector<Token> system = text(30, 1);
  const auto source = sharedModel().context({});
  feedRest(*source, system);
  source->remember();
  const std::vector<Token> whole = system + text(40, 2);
  feedRest(*source, whole);
  const auto small = sharedModel().context({.positions = 50});
  EXPECT_TRUE(branch(*small, whole, {source.get()}));
  EXPECT_EQ(30U, small->position());
  const auto smaller = sharedModel().context({.positions = 20});
  EXPECT_FALSE(branch(*smaller, whole, {source.get()}));
  EXPECT_EQ(0U, smaller->position());
}

TEST(Branch, OtherModelsAndCacheTypesArePassedOver) {
  const std::vector<Token> prompt = text(30, 1);
  const OpenedModel twin({.hidden = 8,
                          .ffn = 16,
                          .vocab = 40,
                          .shape = kel::test::oddShape(),
                          .statesShape = true,
                          .seed = 2});
  const auto foreign = twin.context({});
  const auto half = sharedModel().context({.cacheType = CacheType::BF16});
  feedRest(*foreign, prompt);
  feedRest(*half, prompt);
  const auto context = sharedModel().context({});
  EXPECT_FALSE(branch(*context, prompt, {foreign.get(), half.get()}));
  EXPECT_EQ(0U, context->position());
}

TEST(Branch, AReadTokenIsNoGeneratedOne) {
  const auto source = sharedModel().context({});
  feedRest(*source, text(20, 1));
  source->remember();
  ASSERT_TRUE(source->feedToken(5).ok());
  const auto context = sharedModel().context({});
  EXPECT_TRUE(branch(*context, text(20, 1) + std::vector<Token>{{5, false}}, {source.get()}));
  EXPECT_EQ(20U, context->position());
}

}  // namespace
}  // namespace engine
