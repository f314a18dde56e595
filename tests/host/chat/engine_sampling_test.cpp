#include "host/chat/engine_sampling.h"

#include <gtest/gtest.h>

namespace zym {
namespace {

const engine::SamplerSettings kRecommended{
    .temperature = 0.7F, .topK = 20, .topP = 0.8F, .minP = 0.1F, .presencePenalty = 1.5F};

TEST(EngineSamplingTest, WhatNobodyAsksForIsAsRecommended) {
  const engine::SamplerSettings settings = settingsInForce({.topK = 5}, kRecommended);
  EXPECT_EQ(settings.temperature, 0.7F);
  EXPECT_EQ(settings.topK, 5);
  EXPECT_EQ(settings.topP, 0.8F);
  EXPECT_EQ(settings.minP, 0.1F);
  EXPECT_EQ(settings.presencePenalty, 1.5F);
}

// A recommended penalty would choose another token than the best.
TEST(EngineSamplingTest, TemperatureZeroAloneAsksForTheBestToken) {
  const engine::SamplerSettings settings = settingsInForce({.temperature = 0.0F}, kRecommended);
  EXPECT_EQ(settings.temperature, 0);
  EXPECT_EQ(settings.presencePenalty, 0);
  EXPECT_EQ(
      settingsInForce({.temperature = 0.0F, .presencePenalty = 1.0F}, kRecommended).presencePenalty,
      1);
}

TEST(EngineSamplingTest, EverySettingReachesTheSampler) {
  const engine::SamplerSettings settings =
      settingsInForce({0.5F, 4, 0.9F, 7, 0.2F, 1.0F, 2.0F, 3.0F, 64, {{5, -1.0F}}}, {});
  EXPECT_EQ(settings.temperature, 0.5F);
  EXPECT_EQ(settings.topK, 4);
  EXPECT_EQ(settings.topP, 0.9F);
  EXPECT_EQ(settings.minP, 0.2F);
  EXPECT_EQ(settings.presencePenalty, 1);
  EXPECT_EQ(settings.frequencyPenalty, 2);
  EXPECT_EQ(settings.repetitionPenalty, 3);
  EXPECT_EQ(settings.repetitionWindow, 64);
  EXPECT_EQ(settings.logitBias, (std::map<int32_t, float>{{5, -1.0F}}));
}

TEST(EngineSamplingTest, SettingsWithoutEffectAreNotShown) {
  const Sampling none = shownSampling({});
  EXPECT_FALSE(none.temperature || none.topK || none.topP || none.minP || none.presencePenalty ||
               none.frequencyPenalty || none.repetitionPenalty || none.repetitionWindow);
  const Sampling some = shownSampling(kRecommended);
  EXPECT_EQ(some.temperature, 0.7F);
  EXPECT_EQ(some.topK, 20);
  EXPECT_EQ(some.topP, 0.8F);
  EXPECT_EQ(some.minP, 0.1F);
  EXPECT_EQ(some.presencePenalty, 1.5F);
}

}  // namespace
}  // namespace zym
