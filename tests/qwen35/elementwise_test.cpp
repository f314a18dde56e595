#include "qwen35/elementwise.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <vector>

#include "tests/qwen35/weight_rows.h"

namespace {

using weight_rows::bits;
using weight_rows::randomFloats;

TEST(RmsNorm, ZeroVectorYieldsZeros) {
  const std::vector<float> x(10, 0.0f);
  const std::vector<float> w(10, 3.0f);
  std::vector<float> out(10, 7.0f);
  qwen35::rmsNorm(x.data(), w.data(), out.data(), x.size(), 1e-6f);
  EXPECT_EQ(bits(x), bits(out));
}

TEST(RmsNorm, WeightMultipliesAsStored) {
  const float x[] = {3.0f, -4.0f};
  const float w[] = {2.0f, 0.0f};
  float out[2];
  qwen35::rmsNorm(x, w, out, 2, 0.0f);
  EXPECT_FLOAT_EQ(2.0f * 3.0f / std::sqrt(12.5f), out[0]);
  EXPECT_EQ(0.0f, out[1]);
}

TEST(RmsNorm, EpsilonIsAddedUnderTheRoot) {
  const float x[] = {1.0f};
  const float w[] = {1.0f};
  float out[1];
  qwen35::rmsNorm(x, w, out, 1, 3.0f);
  EXPECT_EQ(0.5f, out[0]);
}

// 2^24 + 1 + 1 + ... stays 2^24 when it is summed in single precision.
TEST(RmsNorm, SquaresAreSummedInDouble) {
  std::vector<float> x(1 << 20, 1.0f);
  x[0] = 4096.0f;
  const std::vector<float> w(x.size(), 1.0f);
  std::vector<float> out(x.size());
  qwen35::rmsNorm(x.data(), w.data(), out.data(), x.size(), 0.0f);
  const double mean = (4096.0 * 4096.0 + static_cast<double>(x.size() - 1)) / (1 << 20);
  EXPECT_EQ(1.0f / std::sqrt(static_cast<float>(mean)), out[1]);
}

TEST(L2NormBlocks, EveryBlockHasUnitLength) {
  const std::vector<float> x = randomFloats(3 * 40, 1);
  std::vector<float> out(x.size());
  qwen35::l2NormBlocks(x.data(), out.data(), 3, 40, 1e-6f);
  for (size_t block = 0; block < 3; ++block) {
    double sum = 0.0;
    for (size_t i = 0; i < 40; ++i) {
      sum += static_cast<double>(out[block * 40 + i]) * static_cast<double>(out[block * 40 + i]);
    }
    EXPECT_NEAR(1.0, sum, 1e-5) << block;
  }
}

TEST(L2NormBlocks, EpsilonIsAddedToTheSum) {
  const float x[] = {1.0f, 1.0f, 0.0f, 0.0f};
  float out[4];
  qwen35::l2NormBlocks(x, out, 2, 2, 2.0f);
  EXPECT_EQ(0.5f, out[0]);
  EXPECT_EQ(0.5f, out[1]);
  EXPECT_EQ(0.0f, out[2]);
}

TEST(Activations, FollowTheirDefinitions) {
  const std::vector<float> x = randomFloats(200, 2, -30.0f, 30.0f);
  std::vector<float> siluOut(x.size());
  std::vector<float> sigmoidOut(x.size());
  std::vector<float> softplusOut(x.size());
  qwen35::silu(x.data(), siluOut.data(), x.size());
  qwen35::sigmoid(x.data(), sigmoidOut.data(), x.size());
  qwen35::softplus(x.data(), softplusOut.data(), x.size());
  for (size_t i = 0; i < x.size(); ++i) {
    const double value = x[i];
    EXPECT_NEAR(value / (1 + std::exp(-value)), siluOut[i], 4e-7 * std::abs(value)) << value;
    EXPECT_NEAR(1 / (1 + std::exp(-value)), sigmoidOut[i], 2e-7) << value;
    const double soft = std::log1p(std::exp(value));
    EXPECT_NEAR(soft, softplusOut[i], 2e-7 * soft + 1e-9) << value;
  }
}

TEST(Activations, ExtremesSaturate) {
  const float x[] = {-200.0f, 200.0f};
  float out[2];
  qwen35::sigmoid(x, out, 2);
  EXPECT_EQ(0.0f, out[0]);
  EXPECT_EQ(1.0f, out[1]);
  qwen35::silu(x, out, 2);
  EXPECT_EQ(-0.0f, out[0]);
  EXPECT_EQ(200.0f, out[1]);
  qwen35::softplus(x, out, 2);
  EXPECT_EQ(0.0f, out[0]);
  EXPECT_EQ(200.0f, out[1]);
}

TEST(Softplus, AtTwentyIsTheLogarithmAboveItIsTheInput) {
  const float x[] = {20.0f, 20.0001f};
  float out[2];
  qwen35::softplus(x, out, 2);
  EXPECT_EQ(static_cast<float>(std::log1p(std::exp(20.0))), out[0]);
  EXPECT_EQ(20.0001f, out[1]);
}

TEST(Elementwise, OutputMayBeTheInput) {
  const std::vector<float> x = randomFloats(37, 3, -5.0f, 5.0f);
  const std::vector<float> w = randomFloats(37, 4);
  using Function = void (*)(const float*, float*, size_t, const float*);
  const Function functions[] = {
      [](const float* in, float* out, size_t n, const float*) { qwen35::silu(in, out, n); },
      [](const float* in, float* out, size_t n, const float*) { qwen35::sigmoid(in, out, n); },
      [](const float* in, float* out, size_t n, const float*) { qwen35::softplus(in, out, n); },
      [](const float* in, float* out, size_t n, const float* weights) {
        qwen35::rmsNorm(in, weights, out, n, 1e-6f);
      },
      [](const float* in, float* out, size_t n, const float*) {
        qwen35::l2NormBlocks(in, out, 1, n, 1e-6f);
      },
  };
  for (const Function function : functions) {
    std::vector<float> apart(x.size());
    function(x.data(), apart.data(), x.size(), w.data());
    std::vector<float> inPlace = x;
    function(inPlace.data(), inPlace.data(), x.size(), w.data());
    EXPECT_EQ(bits(apart), bits(inPlace));
  }
}

TEST(Bf16, WideningKeepsTheUpperHalf) {
  EXPECT_EQ(1.0f, qwen35::bf16ToF32(0x3F80));
  EXPECT_EQ(-2.5f, qwen35::bf16ToF32(0xC020));
  EXPECT_EQ(0x1p-133f, qwen35::bf16ToF32(0x0001));
  EXPECT_TRUE(std::isinf(qwen35::bf16ToF32(0x7F80)));
}

TEST(Bf16, TiesRoundToEven) {
  EXPECT_EQ(0x3F80, qwen35::f32ToBf16(1.00390625f));
  EXPECT_EQ(0x3F82, qwen35::f32ToBf16(1.01171875f));
}

TEST(Bf16, EveryHalfSurvivesTheRoundTrip) {
  for (uint32_t half = 0; half < 0x10000; ++half) {
    const float value = qwen35::bf16ToF32(static_cast<uint16_t>(half));
    if (!std::isnan(value)) {
      ASSERT_EQ(half, qwen35::f32ToBf16(value));
    }
  }
}

TEST(Bf16, NanAndInfinityAreRoundedLikeAnyValue) {
  EXPECT_EQ(0x8000, qwen35::f32ToBf16(std::bit_cast<float>(0x7FFFFFFFu)));
  EXPECT_EQ(0x7FC0, qwen35::f32ToBf16(std::bit_cast<float>(0x7FC00000u)));
  EXPECT_EQ(0x7F80, qwen35::f32ToBf16(std::numeric_limits<float>::infinity()));
  EXPECT_EQ(0x7F80, qwen35::f32ToBf16(std::numeric_limits<float>::max()));
}

// Lengths that are no multiple of 8: every product is rounded before it is added, save in the
// last n mod 16 elements. With these factors only a fused step keeps 2^-46.
TEST(DotF32, OddLengthsFuseOnlyTheLastElements) {
  std::vector<float> a(19, 0.0f);
  std::vector<float> b(19, 0.0f);
  a[0] = 1.0f + 0x1p-23f;
  b[0] = a[0];  // 1 + 2^-22 + 2^-46
  a[1] = -(1.0f + 0x1p-22f);
  b[1] = 1.0f;
  EXPECT_EQ(0.0f, qwen35::dotF32(a.data(), b.data(), 19));
  std::swap(a[0], a[17]);
  std::swap(b[0], b[17]);
  EXPECT_EQ(0x1p-46f, qwen35::dotF32(a.data(), b.data(), 19));
}

TEST(DotF32, EmptyVectorsGiveZero) {
  EXPECT_EQ(0u, bits(qwen35::dotF32(nullptr, nullptr, 0)));
}

}  // namespace
