// The full-attention step, rounding by rounding, and the fields of its report.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/qwen35/compute_headers.h"
#include "tests/qwen35/scalar_rules.h"
#include "tests/support/hand_tensors.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::test::ScopedEnv;
using qwen35::Layer;
using qwen35::Model;
using scalar_rules::firstDifference;
using scalar_rules::OneHotRows;

constexpr size_t kHidden = 64;
constexpr size_t kContext = 24;
constexpr size_t kHeads = 16;
constexpr size_t kKvHeads = 4;
constexpr size_t kWidth = 256;
constexpr size_t kRotated = 64;
constexpr size_t kQueryFloats = 2 * kHeads * kWidth;
constexpr size_t kKeyFloats = kKvHeads * kWidth;

// What the layer holds and gives, by the rules.
struct Account {
  std::vector<float> keys = std::vector<float>(kKvHeads * kContext * kWidth);
  std::vector<float> values = keys;
  size_t cached = 0;
  std::vector<float> out;          // [kHidden]
  std::vector<float> firstScores;  // of query head 0
  float firstHighest = 0;
  float lowestScore = 0;  // of all heads
};

// A layer of which keys read the first half of the input and queries the second. The order of the
// additions of a score is open, so tests of what follows from scores leave keys one dimension.
class AttentionRule : public ::testing::Test {
 protected:
  AttentionRule() {
    m.nEmbd = kHidden;
    m.maxCtx = kContext;
    layer.attnNorm = attnNorm = vector(kHidden, 0.5f, 1.5f);
    layer.attnQ = q.view;
    layer.attnK = k.view;
    layer.attnV = v.view;
    layer.attnOutput = output.view;
    layer.attnQNorm = vector(kWidth, 0.5f, 1.5f);
    layer.attnKNorm = vector(kWidth, 0.5f, 1.5f);
    scalar_rules::allocate(layer.kCache, kKvHeads * kContext * kWidth);
    scalar_rules::allocate(layer.vCache, kKvHeads * kContext * kWidth);
  }

  const kel::TensorView* vector(size_t n, float low, float high) {
    return tensors.vector(
        n, [&](size_t) { return low + (high - low) * 0.5f * (1.0f + tensors.random()); });
  }

  void leaveKeysOneDimension(size_t dimension, float weight) {
    layer.attnKNorm =
        tensors.vector(kWidth, [&](size_t d) { return d == dimension ? weight : 0.0f; });
  }

  std::vector<float> step(const std::vector<float>& x, uint64_t pos, size_t layerIdx = 0) {
    std::vector<float> out(kHidden, 99.0f);
    qwen35::fullAttnStep(m, layer, x.data(), out.data(), pos, layerIdx);
    return out;
  }

  // One head's output over the cached positions, its own included.
  std::vector<float> headOutput(Account& a, size_t head, const float* query,
                                const float* gate) const {
    const size_t first = head / (kHeads / kKvHeads) * kContext * kWidth;
    std::vector<float> scores;
    float highest = -1e30f;
    for (size_t p = 0; p <= a.cached; ++p) {
      float score = 0.0f;
      for (size_t d = 0; d < kWidth; ++d) {
        score = std::fma(query[d], a.keys[first + p * kWidth + d], score);
      }
      scores.push_back(score * 0.0625f);
      highest = std::max(highest, scores.back());
      a.lowestScore = std::min(a.lowestScore, scores.back());
    }
    if (head == 0) {
      a.firstScores = scores;
      a.firstHighest = highest;
    }
    std::vector<float> exponentials;
    float sum = 0.0f;
    for (const float score : scores) {
      exponentials.push_back(scalar_rules::exponential(score - highest));
      sum += exponentials.back();
    }
    const float inverse = 1.0f / sum;
    std::vector<float> out(kWidth);
    for (size_t d = 0; d < kWidth; ++d) {
      float o = 0.0f;
      for (size_t p = 0; p <= a.cached; ++p) {
        const float weight = exponentials[p] * inverse;
        const float product = weight * a.values[first + p * kWidth + d];
        o += product;
      }
      const float below = 1.0f + scalar_rules::exponential(-gate[d]);
      out[d] = o / below;
    }
    return out;
  }

  void addBias(std::vector<float>& projected, const kel::TensorView* bias) const {
    if (layer.attnQBias == nullptr) {
      return;
    }
    for (size_t i = 0; i < projected.size(); ++i) {
      projected[i] += static_cast<const float*>(bias->data)[i];
    }
  }

  std::vector<float> normedHead(const float* head, const kel::TensorView* weights,
                                uint64_t pos) const {
    std::vector<float> out =
        scalar_rules::rmsNorm(head, static_cast<const float*>(weights->data), kWidth);
    scalar_rules::rotate(out.data(), kRotated, pos);
    return out;
  }

  void expectStep(Account& a, const std::vector<float>& x, uint64_t pos) const {
    const std::vector<float> xnorm =
        scalar_rules::rmsNorm(x.data(), static_cast<const float*>(attnNorm->data), kHidden);
    std::vector<float> queries = q.times(xnorm);
    std::vector<float> keys = k.times(xnorm);
    std::vector<float> values = v.times(xnorm);
    addBias(queries, layer.attnQBias);
    addBias(keys, layer.attnKBias);
    addBias(values, layer.attnVBias);
    for (size_t g = 0; g < kKvHeads; ++g) {
      const size_t row = (g * kContext + a.cached) * kWidth;
      const std::vector<float> key = normedHead(keys.data() + g * kWidth, layer.attnKNorm, pos);
      std::copy(key.begin(), key.end(), a.keys.data() + row);
      std::copy_n(values.data() + g * kWidth, kWidth, a.values.data() + row);
    }
    std::vector<float> att;
    for (size_t h = 0; h < kHeads; ++h) {
      const float* head = queries.data() + 2 * h * kWidth;
      const std::vector<float> query = normedHead(head, layer.attnQNorm, pos);
      const std::vector<float> o = headOutput(a, h, query.data(), head + kWidth);
      att.insert(att.end(), o.begin(), o.end());
    }
    ++a.cached;
    a.out = output.times(att);
  }

  void expectSameCaches(const Account& a) const {
    EXPECT_EQ("", firstDifference(a.keys, layer.kCache));
    EXPECT_EQ("", firstDifference(a.values, layer.vCache));
    EXPECT_EQ(a.cached, layer.pos);
  }

  // Feeds one token to both sides.
  void feedAndCompare(Account& a, const std::vector<float>& x, uint64_t pos) {
    expectStep(a, x, pos);
    EXPECT_EQ("", firstDifference(a.out, step(x, pos))) << "position " << pos;
  }

  kel::test::HandTensors tensors;
  OneHotRows q{tensors, kQueryFloats, kHidden, 4.0f, [](size_t r) { return 32 + r % 32; }};
  OneHotRows k{tensors, kKeyFloats, kHidden, 4.0f, [](size_t r) { return r % 32; }};
  OneHotRows v{tensors, kKeyFloats, kHidden, 4.0f, [](size_t r) { return r % 64; }};
  // Four elements of every head.
  OneHotRows output{tensors, kHidden, kHeads* kWidth, 1.0f,
                    [](size_t r) { return r / 4 * kWidth + 67 * r % kWidth; }};
  const kel::TensorView* attnNorm = nullptr;
  Model m;
  Layer layer;
};

// At 2387, 3362, 3957 and 9937 an angle taken as a power per pair gives another cosine or sine in
// single precision, and at positions that no context reaches nearly every pair does.
TEST_F(AttentionRule, RotaryAnglesComeFromRepeatedMultiplicationInDouble) {
  Account account;
  for (const uint64_t pos :
       {uint64_t{0}, uint64_t{1}, uint64_t{1003}, uint64_t{2387}, uint64_t{3362}, uint64_t{3957},
        uint64_t{5000}, uint64_t{9937}, uint64_t{262143}, uint64_t{1} << 40}) {
    const std::vector<float> x = tensors.randomVector(kHidden);
    expectStep(account, x, pos);
    step(x, pos);
    EXPECT_EQ("", firstDifference(account.keys, layer.kCache)) << "position " << pos;
  }
}

// The key at position 0 is not rotated and keeps its one dimension; that of the second token is
// zero. So the score of the first is one product, with one element of the rotated query.
TEST_F(AttentionRule, QueriesAreRotatedLikeKeys) {
  for (const size_t dimension : {0, 5, 31, 32, 37, 63}) {
    for (const uint64_t pos : {uint64_t{1}, uint64_t{5000}, uint64_t{1} << 40}) {
      leaveKeysOneDimension(dimension, 60.0f);
      Account account;
      layer.pos = 0;
      std::vector<float> x = tensors.randomVector(kHidden);
      feedAndCompare(account, x, 0);
      x = tensors.randomVector(kHidden);
      std::fill_n(x.begin(), kHidden / 2, 0.0f);
      expectStep(account, x, pos);
      EXPECT_EQ("", firstDifference(account.out, step(x, pos)))
          << "dimension " << dimension << ", position " << pos;
    }
  }
}

TEST_F(AttentionRule, SoftmaxIsSummedInPositionOrderAndScaledByAReciprocal) {
  leaveKeysOneDimension(200, 40.0f);
  Account account;
  for (size_t pos = 0; pos < kContext; ++pos) {
    feedAndCompare(account, tensors.randomVector(kHidden), pos);
  }
  expectSameCaches(account);
}

// The position turns keys and queries; where they are cached is the layer's own count.
TEST_F(AttentionRule, CacheRowsAndRotationAreIndependent) {
  leaveKeysOneDimension(200, 40.0f);
  Account account;
  for (const uint64_t pos : {5000, 5000, 7, 23, 24, 1000000}) {
    feedAndCompare(account, tensors.randomVector(kHidden), pos);
  }
  expectSameCaches(account);
}

TEST_F(AttentionRule, BiasesAreAddedElementByElementWhenTheQueriesHaveOne) {
  leaveKeysOneDimension(200, 40.0f);
  layer.attnQBias = vector(kQueryFloats, -1.0f, 1.0f);
  layer.attnKBias = vector(kKeyFloats, -1.0f, 1.0f);
  layer.attnVBias = vector(kKeyFloats, -1.0f, 1.0f);
  Account account;
  for (size_t pos = 0; pos < 3; ++pos) {
    feedAndCompare(account, tensors.randomVector(kHidden), pos);
  }
  expectSameCaches(account);
}

TEST_F(AttentionRule, KeyAndValueBiasesAloneAreIgnored) {
  leaveKeysOneDimension(200, 40.0f);
  layer.attnKBias = vector(kKeyFloats, -1.0f, 1.0f);
  layer.attnVBias = vector(kKeyFloats, -1.0f, 1.0f);
  Account account;
  for (size_t pos = 0; pos < 3; ++pos) {
    feedAndCompare(account, tensors.randomVector(kHidden), pos);
  }
  expectSameCaches(account);
}

// A maximum that starts from -1e30 is not the maximum of scores below: their exponentials are all
// zero, and the weights not a number. Through the zeros of the output rows that reaches every one.
TEST_F(AttentionRule, TheMaximumOfScoresStartsFromMinus1e30) {
  const std::vector<float> x = tensors.randomVector(kHidden);
  leaveKeysOneDimension(200, 1.0f);
  Account unscaled;
  expectStep(unscaled, x, 0);
  ASSERT_LT(unscaled.lowestScore, 0.0f);

  leaveKeysOneDimension(200, 0.99e30f / -unscaled.lowestScore);
  Account above;
  feedAndCompare(above, x, 0);
  EXPECT_LT(above.lowestScore, -0.98e30f);
  EXPECT_FALSE(std::isnan(above.out[0]));

  layer.pos = 0;
  leaveKeysOneDimension(200, 1.01e30f / -unscaled.lowestScore);
  for (const float f : step(x, 0)) {
    EXPECT_TRUE(std::isnan(f)) << f;
  }
}

// The fields are those of query head 0 alone: the heads that share its keys have other scores.
TEST_F(AttentionRule, ScoreLineGivesCountMaximumAndLogarithmOfTheSum) {
  const ScopedEnv dbg("QWEN35_DBG3", "1");
  leaveKeysOneDimension(200, 40.0f);
  Account account;
  for (size_t token = 0; token < 12; ++token) {
    const std::vector<float> x = tensors.randomVector(kHidden);
    expectStep(account, x, 8 * token);
    testing::internal::CaptureStderr();
    step(x, 8 * token, 3);
    const double top = static_cast<double>(account.firstHighest);
    double sum = 0;
    for (const float score : account.firstScores) {
      sum += std::exp(static_cast<double>(score) - top);
    }
    char expected[96];
    std::snprintf(expected, sizeof expected, "FULL kvLen=%zu qh0: max %.3f ent %.4f nTok %zu\n",
                  token, top, std::log(sum) + top + 1e-9, token + 1);
    EXPECT_EQ(expected, testing::internal::GetCapturedStderr());
  }
}

TEST_F(AttentionRule, ScoreLineIsPrintedForLayer3AtMultiplesOf8Alone) {
  const ScopedEnv dbg("QWEN35_DBG3", "");
  const std::vector<float> x = tensors.randomVector(kHidden);
  for (uint64_t pos = 0; pos < 17; ++pos) {
    for (const size_t layerIdx : {0, 2, 3, 4}) {
      layer.pos = 0;
      testing::internal::CaptureStderr();
      step(x, pos, layerIdx);
      EXPECT_EQ(layerIdx == 3 && pos % 8 == 0, !testing::internal::GetCapturedStderr().empty())
          << "layer " << layerIdx << ", position " << pos;
    }
  }
}

}  // namespace
