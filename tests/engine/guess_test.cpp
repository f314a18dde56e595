// Guessing ahead changes nothing: neither logits nor state.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "engine/context.h"
#include "engine/prompt_lookup.h"
#include "tests/engine/engine_models.h"
#include "tests/support/family_shapes.h"
#include "tests/support/float_bits.h"

namespace engine {
namespace {

using kel::QuantType;
using kel::test::bitsOf;
using testing_support::feed;
using testing_support::OpenedModel;

const OpenedModel& mixedModel() {
  static const OpenedModel opened({.hidden = 256,
                                   .ffn = 256,
                                   .vocab = 50,
                                   .types = {QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K,
                                             QuantType::BF16, QuantType::F32},
                                   .shape = kel::test::familyShape(4, 24, 4, 48, true),
                                   .statesShape = true});
  return opened;
}

const OpenedModel& oddModel() {
  static const OpenedModel opened(
      {.hidden = 8, .ffn = 16, .vocab = 50, .shape = kel::test::oddShape(), .statesShape = true});
  return opened;
}

class Guess : public testing::TestWithParam<const OpenedModel* (*)()> {
 protected:
  const OpenedModel& model = *GetParam()();
};

TEST_P(Guess, LogitsBehindEachTokenAreThoseOfSingleTokens) {
  const auto guessing = model.context();
  const auto plain = model.context();
  feed(*guessing, {1, 2, 3});
  feed(*plain, {1, 2, 3});
  const std::vector<int32_t> tokens = {4, 9, 16, 25, 36, 49, 4, 9};
  ASSERT_TRUE(guessing->feedGuess(tokens).ok());
  for (size_t i = 0; i < tokens.size(); ++i) {
    ASSERT_TRUE(plain->feedToken(tokens[i]).ok());
    EXPECT_EQ(bitsOf(plain->logits()), bitsOf(guessing->logitsBehind(i))) << i;
  }
  ASSERT_TRUE(guessing->keep(tokens.size()).ok());
  EXPECT_EQ(bitsOf(plain->logits()), bitsOf(guessing->logits()));
  EXPECT_EQ(plain->tokens(), guessing->tokens());
}

TEST_P(Guess, TokensThatAreTakenBackLeaveNothingBehind) {
  for (size_t kept = 1; kept <= 4; ++kept) {
    const auto guessing = model.context();
    const auto plain = model.context();
    feed(*guessing, {1, 2, 3});
    feed(*plain, {1, 2, 3});
    const std::vector<int32_t> tokens = {4, 9, 16, 25};
    ASSERT_TRUE(guessing->feedGuess(tokens).ok());
    ASSERT_TRUE(guessing->keep(kept).ok());
    for (size_t i = 0; i < kept; ++i) {
      ASSERT_TRUE(plain->feedToken(tokens[i]).ok());
    }
    EXPECT_EQ(plain->tokens(), guessing->tokens());
    EXPECT_EQ(bitsOf(plain->logits()), bitsOf(guessing->logits()));
    for (const int32_t token : {30, 31}) {
      ASSERT_TRUE(plain->feedToken(token).ok());
      ASSERT_TRUE(guessing->feedGuess(std::vector<int32_t>{token, 7, 7}).ok());
      ASSERT_TRUE(guessing->keep(1).ok());
      EXPECT_EQ(bitsOf(plain->logits()), bitsOf(guessing->logits())) << kept;
    }
    feed(*plain, {5, 6});
    feed(*guessing, {5, 6});
    EXPECT_EQ(bitsOf(plain->logits()), bitsOf(guessing->logits())) << kept;
    EXPECT_EQ(4 - kept + 4, guessing->statistics().rejectedGuesses);
    EXPECT_EQ(kept - 1, guessing->statistics().acceptedGuesses);
    EXPECT_EQ(kept + 2, guessing->statistics().generatedTokens);
  }
}

TEST_P(Guess, WithoutRoomNothingIsFed) {
  const auto context = model.context({.positions = 5});
  feed(*context, {1, 2, 3});
  EXPECT_FALSE(context->feedGuess(std::vector<int32_t>{4, 5, 6}).ok());
  EXPECT_EQ(3U, context->position());
}

INSTANTIATE_TEST_SUITE_P(Models, Guess,
                         testing::Values([] { return &mixedModel(); }, [] { return &oddModel(); }));

TEST(PromptLookup, GivesWhatFollowedTheLastTokens) {
  EXPECT_EQ((std::vector<int32_t>{3, 4, 1}), lookUp(std::vector<int32_t>{1, 2, 3, 4, 1, 2}, 3));
  EXPECT_EQ((std::vector<int32_t>{3, 4, 1, 2}), lookUp(std::vector<int32_t>{1, 2, 3, 4, 1, 2}, 9));
}

TEST(PromptLookup, TheLongestRunCountsThenTheLatestPlace) {
  // "2 3" stands twice before; the first time with the 1 of the end in front.
  EXPECT_EQ((std::vector<int32_t>{7}),
            lookUp(std::vector<int32_t>{1, 2, 3, 7, 5, 2, 3, 8, 1, 2, 3}, 1));
  EXPECT_EQ((std::vector<int32_t>{8}), lookUp(std::vector<int32_t>{2, 3, 7, 2, 3, 8, 9, 2, 3}, 1));
}

TEST(PromptLookup, OneTokenIsNoRun) {
  EXPECT_TRUE(lookUp(std::vector<int32_t>{1, 2, 3, 4, 2}, 3).empty());
  EXPECT_TRUE(lookUp(std::vector<int32_t>{}, 3).empty());
  EXPECT_TRUE(lookUp(std::vector<int32_t>{1}, 3).empty());
  EXPECT_TRUE(lookUp(std::vector<int32_t>{1, 1}, 3).empty());
}

TEST(PromptLookup, ARunMayOverlapItsPlace) {
  EXPECT_EQ((std::vector<int32_t>{1}), lookUp(std::vector<int32_t>{1, 1, 1}, 3));
}

}  // namespace
}  // namespace engine
