// Norms and activations, rounding by rounding.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "tests/qwen35/compute_headers.h"
#include "tests/qwen35/scalar_rules.h"
#include "tests/support/hand_tensors.h"

namespace {

using scalar_rules::firstDifference;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

std::vector<float> rmsNorm(const std::vector<float>& x, const std::vector<float>& w, float eps) {
  std::vector<float> out(x.size());
  qwen35::rmsNorm(x.data(), w.data(), out.data(), x.size(), eps);
  return out;
}

std::vector<float> l2NormBlocks(const std::vector<float>& x, size_t blocks, float eps) {
  std::vector<float> out(x.size());
  qwen35::l2NormBlocks(x.data(), out.data(), blocks, x.size() / blocks, eps);
  return out;
}

// Squares that only index order adds to this sum: 9 * 2^50 and half a unit of its last place in
// single precision, and then ones, each too small to count by itself in double. Any of them added
// to another before would take the sum above the tie.
std::vector<float> squaresInIndexOrder() {
  std::vector<float> x(64, 1.0f);
  x[0] = 3 * 0x1p25f;
  x[1] = 0x1p14f;
  x[2] = 0x1p14f;
  return x;
}

TEST(RmsNormRule, EveryStepIsRoundedInItsOrder) {
  kel::test::HandTensors tensors;
  for (const size_t n : {1, 7, 64, 100, 256}) {
    for (int row = 0; row < 40; ++row) {
      const std::vector<float> x = tensors.randomVector(n);
      const std::vector<float> w = tensors.randomVector(n);
      EXPECT_EQ("", firstDifference(scalar_rules::rmsNorm(x.data(), w.data(), n, 1e-6f),
                                    rmsNorm(x, w, 1e-6f)))
          << n << " floats, row " << row;
    }
  }
}

TEST(RmsNormRule, SquaresAreAddedInIndexOrder) {
  const std::vector<float> x = squaresInIndexOrder();
  const std::vector<float> backwards(x.rbegin(), x.rend());
  const std::vector<float> w(x.size(), 1.0f);
  EXPECT_EQ(0x1.555556p-24f, rmsNorm(x, w, 0.0f)[63]);
  EXPECT_EQ(0x1.555554p-24f, rmsNorm(backwards, w, 0.0f)[0]);
}

// The mean is 2.25 and a quarter of a unit in its last place. In single precision that is 2.25, and
// with half a unit more it is 2.25 again; in double the two would add up to what rounds upwards.
TEST(RmsNormRule, EpsilonIsAddedToTheMeanInSinglePrecision) {
  const std::vector<float> x = {3.0f, 0x1p-11f, 0.0f, 0.0f};
  const std::vector<float> w(4, 1.0f);
  EXPECT_EQ(0x1p-11f / 1.5f, rmsNorm(x, w, 0x1p-23f)[1]);
  EXPECT_LT(rmsNorm(x, w, 0x1p-22f)[1], 0x1p-11f / 1.5f);
}

TEST(L2NormRule, EveryStepIsRoundedInItsOrder) {
  kel::test::HandTensors tensors;
  for (const size_t n : {1, 7, 64, 128}) {
    const std::vector<float> x = tensors.randomVector(40 * n);
    std::vector<float> expected;
    for (size_t block = 0; block < 40; ++block) {
      const std::vector<float> unit = scalar_rules::l2Norm(x.data() + block * n, n, 1e-6f);
      expected.insert(expected.end(), unit.begin(), unit.end());
    }
    EXPECT_EQ("", firstDifference(expected, l2NormBlocks(x, 40, 1e-6f))) << n;
  }
}

TEST(L2NormRule, SquaresAreAddedInIndexOrder) {
  const std::vector<float> x = squaresInIndexOrder();
  const std::vector<float> backwards(x.rbegin(), x.rend());
  EXPECT_EQ(0x1.555556p-27f, l2NormBlocks(x, 1, 0.0f)[63]);
  EXPECT_EQ(0x1.555554p-27f, l2NormBlocks(backwards, 1, 0.0f)[0]);
}

// As with the mean above: the sum is 9 and a quarter of a unit in its last place.
TEST(L2NormRule, EpsilonIsAddedToTheSumInSinglePrecision) {
  const std::vector<float> x = {3.0f, 0x1p-11f, 0.0f, 0.0f};
  EXPECT_EQ(0x1p-11f / 3.0f, l2NormBlocks(x, 1, 0x1p-21f)[1]);
  EXPECT_LT(l2NormBlocks(x, 1, 0x1p-20f)[1], 0x1p-11f / 3.0f);
}

class ActivationRule : public ::testing::Test {
 protected:
  ActivationRule() : x(4000), out(x.size()) {
    kel::test::HandTensors tensors;
    for (float& f : x) {
      f = 30.0f * tensors.random();
    }
  }

  template <typename Rule>
  std::vector<float> expected(const Rule& rule) const {
    std::vector<float> values(x.size());
    std::transform(x.begin(), x.end(), values.begin(), rule);
    return values;
  }

  std::vector<float> x;
  std::vector<float> out;
};

TEST_F(ActivationRule, SiluIsOneDivision) {
  qwen35::silu(x.data(), out.data(), x.size());
  EXPECT_EQ("", firstDifference(expected(scalar_rules::silu), out));
}

TEST_F(ActivationRule, SigmoidIsOneDivision) {
  qwen35::sigmoid(x.data(), out.data(), x.size());
  EXPECT_EQ("", firstDifference(expected(scalar_rules::sigmoid), out));
}

TEST_F(ActivationRule, SoftplusIsTheLogarithmOfASinglePrecisionExponential) {
  qwen35::softplus(x.data(), out.data(), x.size());
  EXPECT_EQ("", firstDifference(expected(scalar_rules::softplus), out));
}

// The bound shows where log1p(exp(x)) is not x: below 14.7, and from 88.8 on, where exp(x) is
// infinite. In between both branches give the same float.
TEST_F(ActivationRule, SoftplusTakesTheLogarithmBelowItsBoundAndTheArgumentAbove) {
  x = {14.0f, 89.0f};
  out.resize(x.size());
  qwen35::softplus(x.data(), out.data(), x.size());
  EXPECT_EQ(14.0f + 0x1p-20f, out[0]);
  EXPECT_EQ(89.0f, out[1]);
  EXPECT_EQ(kInfinity, scalar_rules::exponential(x[1]));
}

}  // namespace
