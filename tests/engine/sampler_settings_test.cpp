#include "engine/sampler_settings.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace engine {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

std::string fault(const SamplerSettings& settings) {
  return check(settings, 100).message;
}

TEST(SamplerSettings, TheEndsOfTheRangesAreAllowed) {
  EXPECT_EQ("", fault({}));
  const TokenMask mask(100);
  EXPECT_EQ("", fault({.temperature = 50,
                       .topK = -1,
                       .topP = 1e-9F,
                       .minP = 1,
                       .presencePenalty = 2,
                       .frequencyPenalty = -2,
                       .repetitionPenalty = 0.001F,
                       .logitBias = {{0, -100}, {99, 100}, {50, -kInfinity}},
                       .mask = &mask}));
  EXPECT_EQ("", fault({.presencePenalty = -2, .frequencyPenalty = 2, .repetitionWindow = 1}));
}

TEST(SamplerSettings, AMessageNamesTheSettingAndItsRange) {
  EXPECT_EQ("sampler: temperature must be a number from 0, not -0.5",
            fault({.temperature = -0.5F}));
  EXPECT_EQ("sampler: temperature must be a number from 0, not nan", fault({.temperature = kNan}));
  EXPECT_EQ("sampler: temperature must be a number from 0, not inf",
            fault({.temperature = kInfinity}));
  EXPECT_EQ("sampler: top-p must be a number above 0, at most 1, not 0", fault({.topP = 0}));
  EXPECT_EQ("sampler: top-p must be a number above 0, at most 1, not 1.5", fault({.topP = 1.5F}));
  EXPECT_EQ("sampler: top-p must be a number above 0, at most 1, not nan", fault({.topP = kNan}));
  EXPECT_EQ("sampler: min-p must be a number from 0 to 1, not -0.1", fault({.minP = -0.1F}));
  EXPECT_EQ("sampler: min-p must be a number from 0 to 1, not 1.01", fault({.minP = 1.01F}));
  EXPECT_EQ("sampler: presence penalty must be a number from -2 to 2, not 2.1",
            fault({.presencePenalty = 2.1F}));
  EXPECT_EQ("sampler: frequency penalty must be a number from -2 to 2, not -2.1",
            fault({.frequencyPenalty = -2.1F}));
  EXPECT_EQ("sampler: repetition penalty must be a number above 0, not 0",
            fault({.repetitionPenalty = 0}));
  EXPECT_EQ("sampler: repetition penalty must be a number above 0, not inf",
            fault({.repetitionPenalty = kInfinity}));
  EXPECT_EQ("sampler: repetition window must be a whole number from 0, not -3",
            fault({.repetitionWindow = -3}));
  EXPECT_EQ(
      "sampler: logit bias of token 7 must be a number from -100 to 100 or minus infinity, not 101",
      fault({.logitBias = {{7, 101}}}));
  EXPECT_EQ(
      "sampler: logit bias of token 7 must be a number from -100 to 100 or minus infinity, not inf",
      fault({.logitBias = {{7, kInfinity}}}));
  EXPECT_EQ("sampler: logit bias for token 100, but the ids go from 0 to 99",
            fault({.logitBias = {{100, 1}}}));
  EXPECT_EQ("sampler: logit bias for token -1, but the ids go from 0 to 99",
            fault({.logitBias = {{-1, 1}}}));
  const TokenMask mask(99);
  EXPECT_EQ("sampler: the token mask is for 99 tokens, the vocabulary has 100",
            fault({.mask = &mask}));
}

}  // namespace
}  // namespace engine
