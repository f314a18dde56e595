#include "engine/perplexity.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace engine {
namespace {

constexpr float kNever = -std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

TEST(RunningMeanTest, MeanAndStandardErrorOfValues) {
  RunningMean mean;
  EXPECT_EQ(0, mean.mean());
  EXPECT_EQ(0, mean.standardError());
  mean.add(2);
  EXPECT_EQ(2, mean.mean());
  EXPECT_EQ(0, mean.standardError());
  for (const double value : {4.0, 4.0, 6.0}) {
    mean.add(value);
  }
  EXPECT_EQ(4U, mean.count());
  EXPECT_DOUBLE_EQ(4, mean.mean());
  // The squared distances 4, 0, 0, 4 by 3 are the variance, that by 4 the square of the error.
  EXPECT_DOUBLE_EQ(std::sqrt(8.0 / 3 / 4), mean.standardError());
}

// A sum of squares less the square of the sum would lose all digits.
TEST(RunningMeanTest, SmallSpreadAroundAGreatMean) {
  RunningMean mean;
  for (int i = 0; i < 1000; ++i) {
    mean.add(1e9 + (i % 2));
  }
  EXPECT_NEAR(1e9 + 0.5, mean.mean(), 1e-6);
  EXPECT_NEAR(std::sqrt(0.25 / 999), mean.standardError(), 1e-8);
}

TEST(Perplexity, IsTheExponentialOfTheMean) {
  RunningMean losses;
  losses.add(1);
  losses.add(3);
  const Perplexity perplexity = perplexityOf(losses);
  EXPECT_DOUBLE_EQ(std::exp(2.0), perplexity.value);
  EXPECT_DOUBLE_EQ(std::exp(2.0) * 1.0, perplexity.standardError);
}

// A model that knows nothing is as perplexed as it has tokens.
TEST(Perplexity, OfEqualLogitsIsTheirNumber) {
  const std::vector<float> logits(50, 7.0F);
  RunningMean losses;
  for (int32_t next = 0; next < 10; ++next) {
    losses.add(negativeLogLikelihood(logits, next));
  }
  EXPECT_NEAR(50, perplexityOf(losses).value, 1e-12);
}

TEST(Perplexity, LikelihoodIsThatOfTheTokenThatFollows) {
  const std::vector<float> logits = {0, std::log(3.0F)};
  EXPECT_NEAR(std::log(4.0), negativeLogLikelihood(logits, 0), 1e-7);
  EXPECT_NEAR(std::log(4.0 / 3), negativeLogLikelihood(logits, 1), 1e-7);
}

void expectWindows(const std::vector<TextWindow>& expected, const std::vector<TextWindow>& found) {
  ASSERT_EQ(expected.size(), found.size());
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(expected[i].first, found[i].first) << i;
    EXPECT_EQ(expected[i].length, found[i].length) << i;
    EXPECT_EQ(expected[i].firstScored, found[i].firstScored) << i;
  }
}

TEST(TextWindows, ScoreWhatTheWindowBeforeDidNot) {
  expectWindows({{0, 8, 1}, {3, 8, 8}, {6, 8, 11}, {9, 6, 14}}, textWindows(15, 8, 3));
  expectWindows({{0, 8, 1}, {3, 8, 8}}, textWindows(11, 8, 3));
}

TEST(TextWindows, OneBesideTheOtherLoseTheFirstTokenOfEach) {
  expectWindows({{0, 4, 1}, {4, 4, 5}, {8, 2, 9}}, textWindows(10, 4, 4));
  expectWindows({{0, 4, 1}, {4, 4, 5}}, textWindows(9, 4, 4));
}

TEST(TextWindows, OfShortTexts) {
  expectWindows({{0, 5, 1}}, textWindows(5, 8, 3));
  expectWindows({{0, 2, 1}}, textWindows(2, 2, 1));
  expectWindows({}, textWindows(1, 8, 3));
  expectWindows({}, textWindows(0, 8, 3));
}

TEST(TextWindows, EveryTokenCountsOnceWithWhatPrecedesIt) {
  for (size_t length = 2; length < 7; ++length) {
    for (size_t stride = 1; stride < length; ++stride) {
      for (size_t tokens = 2; tokens < 30; ++tokens) {
        std::vector<int> scored(tokens);
        for (const TextWindow& window : textWindows(tokens, length, stride)) {
          ASSERT_LE(window.length, length);
          ASSERT_LT(window.first, window.firstScored);
          for (size_t at = window.firstScored; at < window.first + window.length; ++at) {
            ++scored.at(at);
          }
        }
        EXPECT_EQ(0, scored[0]);
        for (size_t at = 1; at < tokens; ++at) {
          EXPECT_EQ(1, scored[at]) << tokens << " " << length << " " << stride << " " << at;
        }
      }
    }
  }
}

TEST(Divergence, WeighsRatiosByTheReference) {
  // 1/4, 3/4 against 1/2, 1/2.
  const std::vector<float> reference = {0, std::log(3.0F)};
  const std::vector<float> other = {5, 5};
  EXPECT_NEAR(0.25 * std::log(0.5) + 0.75 * std::log(1.5), klDivergence(reference, other), 1e-7);
  EXPECT_NEAR(0.5 * std::log(2.0) + 0.5 * std::log(2.0 / 3), klDivergence(other, reference), 1e-7);
}

TEST(Divergence, IsZeroForTheSameDistributionAtAnyOffset) {
  EXPECT_EQ(0, klDivergence(std::vector<float>{1, 2, 3}, std::vector<float>{1, 2, 3}));
  EXPECT_NEAR(0, klDivergence(std::vector<float>{1, 2, 3}, std::vector<float>{5, 6, 7}), 1e-14);
  // Never below: rounding alone would give a negative sum for some of these.
  for (int i = 0; i < 100; ++i) {
    const float x = static_cast<float>(i) * 0.37F;
    EXPECT_GE(klDivergence(std::vector<float>{x, 1, -x}, std::vector<float>{x + 2, 3, 2 - x}), 0);
  }
}

TEST(Divergence, OfWhatIsImpossible) {
  const double infinity = std::numeric_limits<double>::infinity();
  const std::vector<float> some = {1, 1};
  const std::vector<float> one = {1, kNever};
  EXPECT_NEAR(std::log(2.0), klDivergence(one, some), 1e-14);
  EXPECT_EQ(infinity, klDivergence(some, one));
  EXPECT_EQ(infinity, klDivergence(some, std::vector<float>{1, kNan}));
  EXPECT_NEAR(std::log(2.0), klDivergence(std::vector<float>{1, kNan}, some), 1e-14);
}

TEST(Divergence, BestTokensAgreeWhereTheLowestOfEqualsIsTheSame) {
  EXPECT_TRUE(haveSameBest(std::vector<float>{1, 3, 2}, std::vector<float>{0, 9, 9}));
  EXPECT_FALSE(haveSameBest(std::vector<float>{1, 3, 2}, std::vector<float>{9, 9, 0}));
  EXPECT_TRUE(haveSameBest(std::vector<float>{kNan, 3, 2}, std::vector<float>{0, 9, 9}));
}

TEST(Divergence, DistancesAddUp) {
  ModelDistance distance;
  const std::vector<float> even = {0, 0};
  const std::vector<float> three = {0, std::log(3.0F)};
  distance.add(even, three);
  distance.add(even, even);
  const double one = klDivergence(even, three);
  EXPECT_NEAR(one / 2, distance.divergence.mean(), 1e-15);
  EXPECT_EQ(one, distance.greatestDivergence);
  EXPECT_DOUBLE_EQ(0.5, distance.sameBest.mean());
  EXPECT_EQ(2U, distance.sameBest.count());
}

}  // namespace
}  // namespace engine
