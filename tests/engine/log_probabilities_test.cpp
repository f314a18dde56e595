#include "engine/log_probabilities.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace engine {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr double kRounding = 1e-14;

TEST(LogProbabilities, AreTheLogSoftmaxOfLogits) {
  // 1 / (1 + e + e^2), and e and e^2 times as much.
  const std::vector<float> logits = {1, 2, 0};
  const double total = 1 + std::exp(1.0) + std::exp(2.0);
  EXPECT_NEAR(1 - std::log(total), logProbability(logits, 0), kRounding);
  EXPECT_NEAR(2 - std::log(total), logProbability(logits, 1), kRounding);
  EXPECT_NEAR(-std::log(total), logProbability(logits, 2), kRounding);
}

// Single precision would overflow, or lose what a small summand adds.
TEST(LogProbabilities, AreExactForGreatAndForCloseLogits) {
  EXPECT_EQ(-std::log(2.0), logProbability(std::vector<float>{3e38F, 3e38F}, 1));
  EXPECT_NEAR(-200, logProbability(std::vector<float>{-300, -100}, 0), kRounding);
  const double small = logProbability(std::vector<float>{0, -25}, 0);
  EXPECT_NEAR(-std::exp(-25.0), small, 1e-16);
  EXPECT_LT(small, 0);
}

TEST(LogProbabilities, WhatCannotFollowHasMinusInfinity) {
  const std::vector<float> logits = {-kInfinity, 3, kNan, 3};
  const double never = -std::numeric_limits<double>::infinity();
  EXPECT_EQ(never, logProbability(logits, 0));
  EXPECT_EQ(never, logProbability(logits, 2));
  EXPECT_NEAR(-std::log(2.0), logProbability(logits, 3), kRounding);
  EXPECT_EQ(never, logProbability(std::vector<float>{-kInfinity, kNan}, 0));
  EXPECT_EQ(never, logProbabilities(logits, 0, 1).chosen.logProbability);
}

TEST(LogProbabilities, TheBestComeInOrderBesideTheChosenOne) {
  const std::vector<float> logits = {1, 4, kNan, 2, 4, 0};
  const LogProbabilities found = logProbabilities(logits, 5, 4);
  EXPECT_EQ(5, found.chosen.id);
  EXPECT_EQ(logProbability(logits, 5), found.chosen.logProbability);
  ASSERT_EQ(4U, found.best.size());
  const int32_t expected[] = {1, 4, 3, 0};
  for (size_t i = 0; i < found.best.size(); ++i) {
    EXPECT_EQ(expected[i], found.best[i].id);
    EXPECT_EQ(logProbability(logits, expected[i]), found.best[i].logProbability);
  }
  EXPECT_EQ(5U, logProbabilities(logits, 1, 20).best.size());
  EXPECT_EQ(0U, logProbabilities(logits, 1, 0).best.size());
}

}  // namespace
}  // namespace engine
