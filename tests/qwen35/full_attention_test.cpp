#include "qwen35/full_attention.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "qwen35/elementwise.h"
#include "tests/support/hand_tensors.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::test::ScopedEnv;
using qwen35::Layer;
using qwen35::Model;

constexpr size_t kHidden = 8;
constexpr size_t kContext = 6;

// One random full-attention layer of hidden size 8. Row r of the output projection picks element
// 517 * r of the heads' output, so that a test can see into it.
class FullAttention : public ::testing::Test {
 protected:
  FullAttention() {
    m.nEmbd = kHidden;
    m.maxCtx = kContext;
    layer = freshLayer();
    x = tensors.randomVector(kHidden);
  }

  Layer freshLayer() {
    Layer L;
    L.attnNorm = ones(kHidden);
    L.attnQ = weights.q;
    L.attnK = weights.k;
    L.attnV = weights.v;
    L.attnOutput = weights.output;
    L.attnQNorm = ones(256);
    L.attnKNorm = ones(256);
    L.kCache = qwen35::StateBuffer(4 * kContext * 256);
    L.vCache = qwen35::StateBuffer(4 * kContext * 256);
    return L;
  }

  const kel::TensorView* ones(size_t n) {
    return tensors.vector(n, [](size_t) { return 1.0f; });
  }

  const kel::TensorView* constant(size_t n, float value) {
    return tensors.vector(n, [value](size_t) { return value; });
  }

  std::vector<float> step(Layer& L, size_t pos, size_t layerIdx = 0) {
    std::vector<float> out(kHidden, 99.0f);
    qwen35::fullAttnStep(m, L, x.data(), out.data(), pos, layerIdx);
    return out;
  }

  // Row `row` of a projection of the normalised input, in double.
  double project(const kel::TensorView* W, size_t row) const {
    double squares = 0;
    for (const float f : x) {
      squares += static_cast<double>(f) * f;
    }
    const auto* w = static_cast<const float*>(W->data) + row * kHidden;
    double sum = 0;
    for (size_t c = 0; c < kHidden; ++c) {
      sum += static_cast<double>(w[c]) * x[c];
    }
    return sum / std::sqrt(squares / kHidden + 1e-6);
  }

  // Cached key of a KV head.
  static std::vector<float> key(const Layer& L, size_t head, size_t row) {
    const float* at = L.kCache.data() + (head * kContext + row) * 256;
    return {at, at + 256};
  }

  static size_t picked(size_t row) { return 517 * row; }

  kel::test::HandTensors tensors;
  struct Weights {
    const kel::TensorView* q;
    const kel::TensorView* k;
    const kel::TensorView* v;
    const kel::TensorView* output;
  } weights{tensors.randomMatrix(8192, kHidden), tensors.randomMatrix(1024, kHidden),
            tensors.randomMatrix(1024, kHidden),
            tensors.matrix(kHidden, 4096,
                           [](size_t r, size_t c) { return c == picked(r) ? 1.0f : 0.0f; })};
  Model m;
  Layer layer;
  std::vector<float> x;
};

TEST_F(FullAttention, AtTheFirstTokenAHeadGivesItsOwnValueTimesTheSigmoidOfItsGate) {
  const std::vector<float> out = step(layer, 0);
  for (size_t r = 0; r < kHidden; ++r) {
    const size_t head = picked(r) / 256;
    const size_t d = picked(r) % 256;
    const double value = project(weights.v, head / 4 * 256 + d);
    const double gate = project(weights.q, head * 512 + 256 + d);
    EXPECT_NEAR(value / (1 + std::exp(-gate)), out[r], 1e-5) << r;
  }
}

TEST_F(FullAttention, AtPositionZeroEveryRotationIsTheIdentity) {
  step(layer, 0);
  for (size_t head = 0; head < 4; ++head) {
    Layer unrotated = freshLayer();
    m.ropeDim = 0;
    step(unrotated, 5);
    m.ropeDim = 64;
    EXPECT_EQ(key(unrotated, head, 0), key(layer, head, 0));
  }
}

TEST_F(FullAttention, OnlyTheFirst64DimensionsRotateInPairs32Apart) {
  Layer still = freshLayer();
  step(still, 0);
  step(layer, 5);
  for (size_t head = 0; head < 4; ++head) {
    const std::vector<float> before = key(still, head, 0);
    const std::vector<float> after = key(layer, head, 0);
    for (size_t i = 0; i < 32; ++i) {
      const double angle = 5 * std::pow(1e7, -2.0 * static_cast<double>(i) / 64);
      const double x0 = before[i];
      const double x1 = before[i + 32];
      EXPECT_NEAR(std::cos(angle) * x0 - std::sin(angle) * x1, after[i], 1e-5) << i;
      EXPECT_NEAR(std::sin(angle) * x0 + std::cos(angle) * x1, after[i + 32], 1e-5) << i;
    }
    EXPECT_TRUE(std::equal(before.begin() + 64, before.end(), after.begin() + 64));
  }
}

TEST_F(FullAttention, QueriesRotateLikeKeysSoThatOnlyDistanceCounts) {
  Layer later = freshLayer();
  const std::vector<float> first = x;
  const std::vector<float> second = tensors.randomVector(kHidden);
  step(layer, 0);
  step(later, 1000);
  x = second;
  const std::vector<float> near = step(layer, 3);
  const std::vector<float> far = step(later, 1003);
  x = first;
  Layer closer = freshLayer();
  step(closer, 0);
  x = second;
  const std::vector<float> other = step(closer, 1);
  float change = 0;
  for (size_t i = 0; i < kHidden; ++i) {
    EXPECT_NEAR(near[i], far[i], 1e-4) << i;
    change = std::max(change, std::abs(near[i] - other[i]));
  }
  EXPECT_GT(change, 1e-3f);
}

TEST_F(FullAttention, CacheRowsFollowTheLayersOwnCountNotThePosition) {
  step(layer, 4);
  step(layer, 4);
  EXPECT_EQ(2u, layer.pos);
  for (size_t head = 0; head < 4; ++head) {
    EXPECT_EQ(key(layer, head, 0), key(layer, head, 1));
    EXPECT_EQ(std::vector<float>(256, 0.0f), key(layer, head, 2));
  }
}

TEST_F(FullAttention, ValuesAreCachedAsProjected) {
  step(layer, 3);
  for (size_t head = 0; head < 4; ++head) {
    EXPECT_NEAR(project(weights.v, head * 256 + 17), layer.vCache[head * kContext * 256 + 17],
                1e-5);
  }
}

TEST_F(FullAttention, WithoutAQueryBiasNoBiasIsAdded) {
  Layer biased = freshLayer();
  biased.attnKBias = constant(1024, 3.0f);
  biased.attnVBias = constant(1024, 3.0f);
  EXPECT_EQ(step(layer, 0), step(biased, 0));
  EXPECT_EQ(key(layer, 2, 0), key(biased, 2, 0));
}

TEST_F(FullAttention, WithAQueryBiasAllThreeAreAdded) {
  Layer biased = freshLayer();
  biased.attnQBias = constant(8192, 0.75f);
  biased.attnKBias = constant(1024, -2.0f);
  biased.attnVBias = constant(1024, 3.0f);
  const std::vector<float> out = step(biased, 0);
  step(layer, 0);
  EXPECT_NE(key(layer, 1, 0), key(biased, 1, 0));
  for (size_t r = 0; r < kHidden; ++r) {
    const size_t head = picked(r) / 256;
    const size_t d = picked(r) % 256;
    const double value = project(weights.v, head / 4 * 256 + d) + 3.0;
    const double gate = project(weights.q, head * 512 + 256 + d) + 0.75;
    EXPECT_NEAR(value / (1 + std::exp(-gate)), out[r], 1e-5) << r;
  }
}

TEST_F(FullAttention, AFullCacheStoresNothingAndGivesZeros) {
  for (size_t pos = 0; pos < kContext; ++pos) {
    step(layer, pos);
  }
  const std::vector<float> keys(layer.kCache.begin(), layer.kCache.end());
  EXPECT_EQ(std::vector<float>(kHidden, 0.0f), step(layer, kContext));
  EXPECT_EQ(kContext, layer.pos);
  EXPECT_TRUE(std::equal(keys.begin(), keys.end(), layer.kCache.begin()));
}

TEST_F(FullAttention, ScoreLineIsPrintedForLayer3AtEveryEighthPosition) {
  const ScopedEnv dbg("QWEN35_DBG3", "1");
  testing::internal::CaptureStderr();
  step(layer, 16, 3);
  step(layer, 17, 3);
  step(layer, 16, 2);
  const std::string line = testing::internal::GetCapturedStderr();
  float highest = 0;
  float ent = 0;
  ASSERT_EQ(2,
            std::sscanf(line.c_str(), "FULL kvLen=0 qh0: max %f ent %f nTok 1\n", &highest, &ent))
      << line;
  // With one position the sum is 1, whose logarithm is 0.
  EXPECT_NEAR(highest, ent, 1e-3);
  EXPECT_EQ(1, std::count(line.begin(), line.end(), '\n'));

  testing::internal::CaptureStderr();
  step(layer, 24, 3);
  EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("FULL kvLen=3 qh0: max "));
}

}  // namespace
