#include "qwen35/linear_attention.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/hand_tensors.h"
#include "tests/support/instrumented.h"
#include "tests/support/page_faults.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::test::ScopedEnv;
using qwen35::Layer;
using qwen35::Model;

constexpr size_t kHidden = 4;
constexpr size_t kHeadState = 128 * 128;

// One random linear-attention layer of hidden size 4.
class LinearAttention : public ::testing::Test {
 protected:
  LinearAttention() {
    m.nEmbd = kHidden;
    layer.isLinear = true;
    layer.attnNorm = constant(kHidden, 1.0f);
    layer.attnQkv = tensors.randomMatrix(8192, kHidden);
    layer.attnGate = tensors.randomMatrix(4096, kHidden);
    layer.ssmBeta = tensors.randomMatrix(32, kHidden);
    layer.ssmAlpha = tensors.randomMatrix(32, kHidden);
    layer.ssmDtBias = constant(32, 0.5f);
    layer.ssmA = constant(32, -0.7f);
    layer.ssmConv1d = tensors.randomMatrix(8192, 4);
    layer.ssmNorm = constant(128, 1.0f);
    layer.ssmOut = tensors.randomMatrix(kHidden, 4096);
    layer.ssmState = qwen35::StateBuffer(32 * kHeadState);
    layer.convState = qwen35::StateBuffer(8192 * 3);
  }

  const kel::TensorView* constant(size_t n, float value) {
    return tensors.vector(n, [value](size_t) { return value; });
  }

  std::vector<float> step(const std::vector<float>& x, size_t layerIdx = 0, size_t pos = 0) {
    std::vector<float> out(kHidden, 99.0f);
    qwen35::linearAttnStep(m, layer, x.data(), out.data(), layerIdx, pos);
    return out;
  }

  void clear() {
    std::fill(layer.ssmState.begin(), layer.ssmState.end(), 0.0f);
    std::fill(layer.convState.begin(), layer.convState.end(), 0.0f);
  }

  // Raw projection of channel c.
  double projection(const std::vector<float>& x, size_t c) const {
    double squares = 0;
    double sum = 0;
    for (size_t i = 0; i < kHidden; ++i) {
      squares += static_cast<double>(x[i]) * x[i];
      sum += static_cast<double>(static_cast<const float*>(layer.attnQkv->data)[c * kHidden + i]) *
             x[i];
    }
    return sum / std::sqrt(squares / kHidden + 1e-6);
  }

  kel::test::HandTensors tensors;
  Model m;
  Layer layer;
};

TEST(GdnStep, FromAZeroStateTheOutputIsScaleBetaQkTimesTheValue) {
  constexpr size_t kDim = 128;
  kel::test::HandTensors tensors;
  const std::vector<float> q = tensors.randomVector(kDim);
  const std::vector<float> k = tensors.randomVector(kDim);
  const std::vector<float> value = tensors.randomVector(kDim);
  std::vector<float> v = value;
  std::vector<float> S(kDim * kDim);
  qwen35::gdnStep(S.data(), q.data(), k.data(), v.data(), 0.25f, kDim, -0.5f, 0.125f);
  double qk = 0;
  for (size_t i = 0; i < kDim; ++i) {
    qk += static_cast<double>(q[i]) * k[i];
  }
  for (size_t j = 0; j < kDim; ++j) {
    EXPECT_NEAR(0.125 * 0.25 * qk * value[j], v[j], 1e-5);
    EXPECT_FLOAT_EQ(0.25f * k[3] * value[j], S[3 * kDim + j]);
  }
}

TEST(GdnStep, DecaysBeforeItReadsTheState) {
  constexpr size_t kDim = 8;
  std::vector<float> state(kDim * kDim);
  std::vector<float> q(kDim);
  std::vector<float> k(kDim);
  std::vector<float> v(kDim);
  state[0] = 2.0f;
  q[0] = 1.0f;
  k[0] = 3.0f;
  v[0] = 10.0f;
  qwen35::gdnStep(state.data(), q.data(), k.data(), v.data(), 0.5f, kDim, std::log(0.5f), 1.0f);
  // 2 * 0.5 = 1 decayed; 3 * 1 = 3 read; (10 - 3) * 0.5 = 3.5 written; 1 + 3 * 3.5 = 11.5.
  EXPECT_FLOAT_EQ(11.5f, state[0]);
  EXPECT_FLOAT_EQ(11.5f, v[0]);
}

TEST_F(LinearAttention, ConvolutionStateHoldsTheLastThreeRawProjections) {
  const std::vector<std::vector<float>> inputs = {
      tensors.randomVector(kHidden), tensors.randomVector(kHidden), tensors.randomVector(kHidden)};
  step(inputs[0]);
  for (const size_t c : {0u, 4095u, 8191u}) {
    EXPECT_EQ(0.0f, layer.convState[3 * c]);
    EXPECT_EQ(0.0f, layer.convState[3 * c + 1]);
    EXPECT_NEAR(projection(inputs[0], c), layer.convState[3 * c + 2], 1e-5);
  }
  step(inputs[1]);
  step(inputs[2]);
  for (const size_t c : {0u, 4095u, 8191u}) {
    for (size_t i = 0; i < 3; ++i) {
      EXPECT_NEAR(projection(inputs[i], c), layer.convState[3 * c + i], 1e-5);
    }
  }
}

TEST_F(LinearAttention, ValueHead17ReadsKeyHead1) {
  // Only the channels of query and key head 1 and of the values see the input.
  const auto isOpen = [](size_t c) { return c / 128 == 1 || c / 128 == 17 || c >= 4096; };
  layer.attnQkv =
      tensors.matrix(8192, kHidden, [&](size_t c, size_t) { return isOpen(c) ? 1.0f : 0.0f; });
  step({1.0f, 0.5f, 0.25f, 2.0f});
  for (size_t h = 0; h < 32; ++h) {
    const float* S = layer.ssmState.data() + h * kHeadState;
    const bool written = std::any_of(S, S + kHeadState, [](float f) { return f != 0.0f; });
    EXPECT_EQ(h == 1 || h == 17, written) << h;
  }
}

TEST_F(LinearAttention, TheFirstTokenMapsAPageOfItsStateOnce) {
  if (!kel::test::canPopulatePages() || kel::test::kInstrumented) {
    GTEST_SKIP() << "not on this system, or sanitizers map pages of their own for each";
  }
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  const std::vector<float> x = tensors.randomVector(kHidden);
  const auto faultsOfAStep = [&] {
    const size_t before = kel::test::pageFaults();
    step(x);
    return kel::test::pageFaults() - before;
  };
  faultsOfAStep();
  const size_t mapped = faultsOfAStep();
  layer.ssmState = qwen35::StateBuffer(layer.ssmState.size());
  layer.convState = qwen35::StateBuffer(layer.convState.size());
  const size_t fresh = faultsOfAStep();
  omp_set_num_threads(threads);
  const size_t bytes = (layer.ssmState.size() + layer.convState.size()) * sizeof(float);
  EXPECT_LT(fresh, mapped + bytes / kel::test::pageBytes() + 12);
}

TEST_F(LinearAttention, NodecayKeepsTheStateUndecayed) {
  const std::vector<float> x = tensors.randomVector(kHidden);
  const auto twoSteps = [&] {
    clear();
    step(x);
    return step(x);
  };
  const std::vector<float> decayed = twoSteps();
  std::vector<float> switchedOff;
  {
    const ScopedEnv noDecay("QWEN35_NODECAY", "");
    switchedOff = twoSteps();
  }
  layer.ssmA = constant(32, 0.0f);  // a decay factor of exactly 1
  EXPECT_EQ(twoSteps(), switchedOff);
  EXPECT_NE(decayed, switchedOff);
}

TEST_F(LinearAttention, TheSameTokenTwiceIsNotIdempotentAndPosStaysZero) {
  const std::vector<float> x = tensors.randomVector(kHidden);
  const std::vector<float> first = step(x);
  EXPECT_NE(first, step(x));
  EXPECT_EQ(0u, layer.pos);
}

// g of head 0, printed by QWEN35_DBG4 as "av0"; a rate of -2^20 makes four decimals of g show every
// bit of the softplus.
TEST_F(LinearAttention, LogDecayIsTheLogisticSumUpTo20AndTheArgumentItselfAbove) {
  const ScopedEnv dbg("QWEN35_DBG4", "1");
  layer.ssmAlpha = tensors.matrix(32, kHidden, [](size_t, size_t) { return 0.0f; });
  layer.ssmA = constant(32, -1048576.0f);
  const auto logDecay = [&](float t) {
    layer.ssmDtBias = constant(32, t);
    testing::internal::CaptureStderr();
    step({1.0f, 2.0f, 3.0f, 4.0f});
    const std::string line = testing::internal::GetCapturedStderr();
    return std::stod(line.substr(line.find("av0 ") + 4));
  };
  EXPECT_EQ(-1048576.0 * static_cast<double>(static_cast<float>(std::log1p(std::exp(20.0)))),
            logDecay(20.0f));
  EXPECT_EQ(-1048576.0 * 20.5, logDecay(20.5f));
  // log1p(exp(3)) is far from 3, so the lower branch shows.
  EXPECT_EQ(-1048576.0 * static_cast<double>(static_cast<float>(std::log1p(std::exp(3.0)))),
            logDecay(3.0f));
}

TEST_F(LinearAttention, StepReportIsPrintedForLayer0Alone) {
  const ScopedEnv dbg("QWEN35_DBG2", "1");
  testing::internal::CaptureStderr();
  step(tensors.randomVector(kHidden), 1, 0);
  EXPECT_EQ("", testing::internal::GetCapturedStderr());

  testing::internal::CaptureStderr();
  const std::vector<float> out = step(tensors.randomVector(kHidden), 0, 3);
  const std::string text = testing::internal::GetCapturedStderr();
  double n[8];
  int length = 0;
  ASSERT_EQ(8, std::sscanf(text.c_str(),
                           "    lin: |qkv|=%le |z|=%le |conv|=%le bv0=%lf av0=%lf |oTpre|=%le "
                           "|oT|=%le |out|=%le conv1d dtype=0 ndim=2 cc=8192 kk=4%n",
                           &n[0], &n[1], &n[2], &n[3], &n[4], &n[5], &n[6], &n[7], &length))
      << text;
  double squares = 0;
  for (const float f : out) {
    squares += static_cast<double>(f) * f;
  }
  EXPECT_NEAR(std::sqrt(squares), n[7], 1e-3 * n[7]);

  std::string expected = "\n";
  const auto* w = static_cast<const float*>(layer.ssmConv1d->data);
  for (size_t r = 0; r < 4; ++r) {
    char line[128];
    std::snprintf(line, sizeof line, "      wr[%zu][0..3] = %.6e %.6e %.6e %.6e\n", r,
                  static_cast<double>(w[4 * r]), static_cast<double>(w[4 * r + 1]),
                  static_cast<double>(w[4 * r + 2]), static_cast<double>(w[4 * r + 3]));
    expected += line;
  }
  EXPECT_EQ(expected, text.substr(static_cast<size_t>(length)));
}

TEST_F(LinearAttention, StateReportIsPrintedForLayer0AtEveryEighthPosition) {
  const ScopedEnv dbg("QWEN35_DBG4", "1");
  const std::vector<float> x = tensors.randomVector(kHidden);
  testing::internal::CaptureStderr();
  step(x, 0, 7);
  step(x, 1, 8);
  EXPECT_EQ("", testing::internal::GetCapturedStderr());

  testing::internal::CaptureStderr();
  step(x, 0, 8);
  const std::string text = testing::internal::GetCapturedStderr();
  double n[5];
  int length = 0;
  ASSERT_EQ(5,
            std::sscanf(text.c_str(), "LIN S-pos=8 |S|tot %le head0 %le |oT| %le av0 %lf bv0 %lf%n",
                        &n[0], &n[1], &n[2], &n[3], &n[4], &length))
      << text;
  EXPECT_EQ("\n", text.substr(static_cast<size_t>(length)));
  EXPECT_GT(n[0], n[1]);
}

}  // namespace
