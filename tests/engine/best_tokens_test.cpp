#include "engine/best_tokens.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

namespace engine {
namespace {

constexpr float kNever = -std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

// Best first.
std::vector<int32_t> best(const std::vector<float>& logits, size_t count) {
  std::vector<RankedToken> tokens = {{1, 1}};
  selectBest(logits, count, tokens);
  std::sort(tokens.begin(), tokens.end(), isBetter);
  std::vector<int32_t> ids;
  for (const RankedToken& token : tokens) {
    EXPECT_EQ(logits[static_cast<size_t>(token.id)], token.logit);
    ids.push_back(token.id);
  }
  return ids;
}

TEST(BestTokens, AreThoseThatASortPutsInFront) {
  std::mt19937_64 random(4);
  for (const size_t kinds : {3U, 50U, 1000000U}) {
    std::vector<float> logits(2000);
    for (float& logit : logits) {
      logit = static_cast<float>(random() % kinds);
    }
    for (int order = 0; order < 3; ++order) {
      std::vector<int32_t> sorted(logits.size());
      for (size_t i = 0; i < sorted.size(); ++i) {
        sorted[i] = static_cast<int32_t>(i);
      }
      std::stable_sort(sorted.begin(), sorted.end(), [&](int32_t a, int32_t b) {
        return logits[static_cast<size_t>(a)] > logits[static_cast<size_t>(b)];
      });
      for (const ptrdiff_t count : {1, 2, 20, 100, 1999, 2000}) {
        EXPECT_EQ(std::vector<int32_t>(sorted.begin(), sorted.begin() + count),
                  best(logits, static_cast<size_t>(count)))
            << kinds << " " << order << " " << count;
      }
      // Rising, where every token is the best so far, and falling.
      order == 0 ? std::sort(logits.begin(), logits.end())
                 : std::reverse(logits.begin(), logits.end());
    }
  }
}

TEST(BestTokens, NaNsAndMinusInfinityAreNoCandidates) {
  EXPECT_EQ((std::vector<int32_t>{4, 1}), best({kNan, 1, kNever, kNan, 2}, 4));
  EXPECT_EQ(std::vector<int32_t>{}, best({kNan, kNever}, 2));
  EXPECT_EQ(std::vector<int32_t>{}, best({1, 2}, 0));
  EXPECT_EQ((std::vector<int32_t>{1, 0}), best({1, -kNever}, static_cast<size_t>(-1)));
}

}  // namespace
}  // namespace engine
