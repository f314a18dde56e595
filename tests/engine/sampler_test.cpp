#include "engine/sampler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <vector>

namespace engine {
namespace {

constexpr float kNever = -std::numeric_limits<float>::infinity();

std::map<int32_t, int> draws(const std::vector<float>& logits, const SamplerSettings& settings,
                             int count, uint64_t seed = 7) {
  Sampler sampler(seed);
  std::map<int32_t, int> drawn;
  for (int i = 0; i < count; ++i) {
    ++drawn[sampler.next(logits, settings)];
  }
  return drawn;
}

TEST(EngineSampler, GreedyTakesTheLowestOfTheBest) {
  Sampler sampler(1);
  EXPECT_EQ(1, sampler.next(std::vector<float>{1, 5, 5, 2}, {}));
  EXPECT_EQ(1, sampler.next(std::vector<float>{1, 5, 5, 2}, {.temperature = 9, .topK = 1}));
  EXPECT_EQ(0, sampler.next(std::vector<float>{kNever, kNever}, {}));
}

TEST(EngineSampler, GreedyChoicesDrawNoRandomNumber) {
  const std::vector<float> logits(50, 1.0F);
  Sampler drawing(3);
  Sampler choosing(3);
  choosing.next(logits, {});
  choosing.next(logits, {.temperature = 1, .topK = 1});
  EXPECT_EQ(drawing.next(logits, {.temperature = 1}), choosing.next(logits, {.temperature = 1}));
}

TEST(EngineSampler, DrawsInProportionToTheExponentials) {
  // 1 : 2 : 5 at temperature 2.
  const std::vector<float> logits = {0.0F, 2 * std::log(2.0F), kNever, 2 * std::log(5.0F)};
  const std::map<int32_t, int> drawn = draws(logits, {.temperature = 2}, 80000);
  EXPECT_NEAR(10000, drawn.at(0), 500);
  EXPECT_NEAR(20000, drawn.at(1), 700);
  EXPECT_NEAR(50000, drawn.at(3), 900);
  EXPECT_EQ(0U, drawn.count(2));
}

TEST(EngineSampler, TopKDrawsAmongTheBest) {
  const std::vector<float> logits = {1, 3, 2, 3, 0};
  EXPECT_EQ(2U, draws(logits, {.temperature = 5, .topK = 2}, 2000).size());
  const std::map<int32_t, int> three = draws(logits, {.temperature = 5, .topK = 3}, 2000);
  EXPECT_EQ(3U, three.size());
  EXPECT_EQ(1U, three.count(2));
  EXPECT_EQ(5U, draws(logits, {.temperature = 5, .topK = 99}, 5000).size());
  EXPECT_EQ(5U, draws(logits, {.temperature = 5, .topK = -1}, 5000).size());
}

// Of equal logits the lower ids are the better ones.
TEST(EngineSampler, EqualLogitsAreRankedById) {
  const std::vector<float> logits(30, 1.0F);
  for (const auto& [id, times] : draws(logits, {.temperature = 1, .topK = 4}, 2000)) {
    EXPECT_LT(id, 4);
  }
}

TEST(EngineSampler, TopPKeepsTheFewestThatHaveTheShare) {
  // Shares of 0.5, 0.25, 0.15, 0.1.
  const std::vector<float> logits = {std::log(0.1F), std::log(0.5F), std::log(0.25F),
                                     std::log(0.15F)};
  const auto kept = [&](float topP) {
    return draws(logits, {.temperature = 1, .topP = topP}, 4000).size();
  };
  EXPECT_EQ(1U, kept(0.4F));
  EXPECT_EQ(2U, kept(0.6F));
  EXPECT_EQ(2U, kept(0.74F));
  EXPECT_EQ(3U, kept(0.8F));
  EXPECT_EQ(4U, kept(0.95F));
  EXPECT_EQ(4U, kept(1.0F));
  // Of what top-k left.
  EXPECT_EQ(1U, draws(logits, {.temperature = 1, .topK = 2, .topP = 0.6F}, 4000).size());
}

TEST(EngineSampler, ASeedFixesTheTokensOnEveryMachine) {
  std::vector<float> logits(1000);
  for (size_t i = 0; i < logits.size(); ++i) {
    logits[i] = std::sin(static_cast<float>(i));
  }
  Sampler sampler(42);
  std::vector<int32_t> drawn;
  for (int i = 0; i < 6; ++i) {
    drawn.push_back(sampler.next(logits, {.temperature = 0.7F, .topK = 200, .topP = 0.9F}));
  }
  sampler.seed(42);
  for (const int32_t token : drawn) {
    EXPECT_EQ(token, sampler.next(logits, {.temperature = 0.7F, .topK = 200, .topP = 0.9F}));
  }
  EXPECT_EQ((std::vector<int32_t>{291, 492, 64, 875, 887, 121}), drawn);
}

// One output of the standard's generator for each draw, its upper 53 bits as a fraction.
TEST(EngineSampler, TheRandomNumbersAreThoseOfTheStandard) {
  const std::vector<float> logits(1 << 10, 0.0F);
  Sampler sampler(5);
  std::mt19937_64 standard(5);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(static_cast<int32_t>(standard() >> 54), sampler.next(logits, {.temperature = 1}));
  }
}

}  // namespace
}  // namespace engine
