// The linear-attention step, rounding by rounding, and the fields of its reports.

#include <gtest/gtest.h>

#include <cmath>
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
constexpr size_t kDim = 128;
constexpr size_t kKeyHeads = 16;
constexpr size_t kValueHeads = 32;
constexpr size_t kInner = kValueHeads * kDim;
constexpr size_t kKeyFloats = kKeyHeads * kDim;
constexpr size_t kChannels = kInner + 2 * kKeyFloats;
constexpr size_t kHeadState = kDim * kDim;

TEST(GdnStepRule, EveryStepIsRoundedInItsOrder) {
  kel::test::HandTensors tensors;
  for (const size_t dim : {8, 40, 128}) {
    std::vector<float> state = tensors.randomVector(dim * dim);
    std::vector<float> expectedState = state;
    for (const float g : {-0.3f, 0.0f, -4.0f}) {
      const std::vector<float> q = tensors.randomVector(dim);
      const std::vector<float> k = tensors.randomVector(dim);
      std::vector<float> v = tensors.randomVector(dim);
      std::vector<float> expected = v;
      scalar_rules::gatedDelta(expectedState.data(), q.data(), k.data(), expected.data(), 0.7f, dim,
                               g, 0.3f);
      qwen35::gdnStep(state.data(), q.data(), k.data(), v.data(), 0.7f, dim, g, 0.3f);
      EXPECT_EQ("", firstDifference(expected, v)) << dim;
      EXPECT_EQ("", firstDifference(expectedState, state)) << dim;
    }
  }
}

// What the layer holds and gives, by the rules.
struct Account {
  std::vector<float> state = std::vector<float>(kValueHeads * kHeadState);
  std::vector<float> history = std::vector<float>(kChannels * 3);
  std::vector<float> qkv;
  std::vector<float> z;
  std::vector<float> conv;  // its value part ends as the heads' outputs
  std::vector<float> ungated;
  std::vector<float> o;
  std::vector<float> out;
  std::vector<float> beta;
  std::vector<float> g;
};

class LinearRule : public ::testing::Test {
 protected:
  LinearRule() {
    m.nEmbd = kHidden;
    layer.isLinear = true;
    layer.attnNorm = vector(kHidden, 0.5f, 1.5f);
    layer.attnQkv = qkv.view;
    layer.attnGate = gate.view;
    layer.ssmBeta = betas.view;
    layer.ssmAlpha = alphas.view;
    // Some sums come out above the bound of the softplus, and some decays near 1.
    layer.ssmDtBias = vector(kValueHeads, -6.0f, 30.0f);
    layer.ssmA = vector(kValueHeads, -0.9f, -0.01f);
    setConvolution(4);
    layer.ssmNorm = vector(kDim, 0.5f, 1.5f);
    layer.ssmOut = output.view;
    scalar_rules::allocate(layer.ssmState, kValueHeads * kHeadState);
    scalar_rules::allocate(layer.convState, kChannels * 3);
  }

  const kel::TensorView* vector(size_t n, float low, float high) {
    return tensors.vector(
        n, [&](size_t) { return low + (high - low) * 0.5f * (1.0f + tensors.random()); });
  }

  // Values large enough for the heads' outputs to weigh beside queries and keys.
  void setConvolution(size_t columns) {
    layer.ssmConv1d = tensors.matrix(kChannels, columns, [&](size_t c, size_t) {
      return (c < 2 * kKeyFloats ? 1.0f : 50.0f) * tensors.random();
    });
  }

  static const float* floats(const kel::TensorView* tensor) {
    return static_cast<const float*>(tensor->data);
  }

  std::vector<float> step(const std::vector<float>& x, size_t layerIdx = 1, size_t pos = 1) {
    std::vector<float> out(kHidden, 99.0f);
    qwen35::linearAttnStep(m, layer, x.data(), out.data(), layerIdx, pos);
    return out;
  }

  void expectGates(Account& a, const std::vector<float>& xnorm) const {
    a.beta = betas.times(xnorm);
    a.g = alphas.times(xnorm);
    for (size_t h = 0; h < kValueHeads; ++h) {
      a.beta[h] = scalar_rules::sigmoid(a.beta[h]);
      const float t = a.g[h] + floats(layer.ssmDtBias)[h];
      a.g[h] = scalar_rules::softplus(t) * floats(layer.ssmA)[h];
    }
  }

  void expectConvolution(Account& a) const {
    a.conv.resize(kChannels);
    for (size_t c = 0; c < kChannels; ++c) {
      const float* w = floats(layer.ssmConv1d) + c * layer.ssmConv1d->dims[0];
      float* past = a.history.data() + 3 * c;
      float y = std::fma(w[0], past[0], 0.0f);
      y = std::fma(w[1], past[1], y);
      y = std::fma(w[2], past[2], y);
      y = std::fma(w[3], a.qkv[c], y);
      a.conv[c] = scalar_rules::silu(y);
      past[0] = past[1];
      past[1] = past[2];
      past[2] = a.qkv[c];
    }
  }

  void expectHead(Account& a, size_t h, bool decays) const {
    const size_t keyHead = h % kKeyHeads;
    const std::vector<float> query = scalar_rules::l2Norm(a.conv.data() + keyHead * kDim, kDim);
    const std::vector<float> key =
        scalar_rules::l2Norm(a.conv.data() + kKeyFloats + keyHead * kDim, kDim);
    float* value = a.conv.data() + 2 * kKeyFloats + h * kDim;
    const float scale = 1.0f / std::sqrt(128.0f);
    scalar_rules::gatedDelta(a.state.data() + h * kHeadState, query.data(), key.data(), value,
                             a.beta[h], kDim, decays ? a.g[h] : 0.0f, scale);
    const std::vector<float> normed = scalar_rules::rmsNorm(value, floats(layer.ssmNorm), kDim);
    for (size_t d = 0; d < kDim; ++d) {
      a.ungated.push_back(value[d]);
      a.o.push_back(normed[d] * scalar_rules::silu(a.z[h * kDim + d]));
    }
  }

  void expectStep(Account& a, const std::vector<float>& x, bool decays = true) const {
    const std::vector<float> xnorm =
        scalar_rules::rmsNorm(x.data(), floats(layer.attnNorm), kHidden);
    a.qkv = qkv.times(xnorm);
    a.z = gate.times(xnorm);
    a.ungated.clear();
    a.o.clear();
    expectGates(a, xnorm);
    expectConvolution(a);
    for (size_t h = 0; h < kValueHeads; ++h) {
      expectHead(a, h, decays);
    }
    a.out = output.times(a.o);
  }

  // Feeds five tokens to both sides.
  void feedAndCompare(Account& a, bool decays = true) {
    for (int token = 0; token < 5; ++token) {
      const std::vector<float> x = tensors.randomVector(kHidden);
      expectStep(a, x, decays);
      EXPECT_EQ("", firstDifference(a.out, step(x))) << "token " << token;
      EXPECT_EQ("", firstDifference(a.history, layer.convState)) << "token " << token;
      EXPECT_EQ("", firstDifference(a.state, layer.ssmState)) << "token " << token;
    }
    EXPECT_EQ(0u, layer.pos);
  }

  static std::string text(const char* format, double value) {
    char out[32];
    std::snprintf(out, sizeof out, format, value);
    return out;
  }

  // The second step's report, on both sides.
  std::string secondReport(Account& a, size_t layerIdx, size_t pos) {
    const std::vector<float> first = tensors.randomVector(kHidden);
    const std::vector<float> second = tensors.randomVector(kHidden);
    expectStep(a, first);
    step(first);
    expectStep(a, second);
    testing::internal::CaptureStderr();
    step(second, layerIdx, pos);
    return testing::internal::GetCapturedStderr();
  }

  static size_t anyColumn(size_t r) { return (7 * r + r / 64) % kHidden; }

  kel::test::HandTensors tensors;
  OneHotRows qkv{tensors, kChannels, kHidden, 3.0f, anyColumn};
  OneHotRows gate{tensors, kInner, kHidden, 4.0f, anyColumn};
  OneHotRows betas{tensors, kValueHeads, kHidden, 2.0f, anyColumn};
  OneHotRows alphas{tensors, kValueHeads, kHidden, 2.0f, anyColumn};
  // Two elements of every head.
  OneHotRows output{tensors, kHidden, kInner, 1.0f,
                    [](size_t r) { return r / 2 * kDim + 67 * r % kDim; }};
  Model m;
  Layer layer;
};

TEST_F(LinearRule, EveryStepIsRoundedInItsOrder) {
  Account account;
  feedAndCompare(account);
}

TEST_F(LinearRule, TapsAreTheFirstFourOfAWiderRow) {
  setConvolution(5);
  Account account;
  feedAndCompare(account);
}

// Whatever the model says of its width, the convolution has four taps.
TEST_F(LinearRule, TheConvolutionHasFourTapsWhateverTheModelSays) {
  m.convKernel = 2;
  Account account;
  feedAndCompare(account);
}

TEST_F(LinearRule, NodecayLeavesAFactorOfOneInEveryHead) {
  const ScopedEnv noDecay("QWEN35_NODECAY", "");
  Account account;
  feedAndCompare(account, /*decays=*/false);
}

// The convolution's record has an odd type, three dimensions and five columns, so that no field can
// stand for another; the report reads weights four at a time all the same.
TEST_F(LinearRule, StepReportGivesEveryNormAndTheShapeOfTheConvolution) {
  const ScopedEnv dbg("QWEN35_DBG2", "1");
  setConvolution(5);
  kel::TensorView shaped = *layer.ssmConv1d;
  shaped.type = kel::QuantType::BF16;
  shaped.rank = 3;
  shaped.dims[1] = kChannels / 2;
  shaped.dims[2] = 2;
  layer.ssmConv1d = &shaped;
  Account a;
  const std::string report = secondReport(a, 0, 3);
  std::string expected = "    lin: |qkv|=" + text("%.3e", scalar_rules::norm(a.qkv)) +
                         " |z|=" + text("%.3e", scalar_rules::norm(a.z)) +
                         " |conv|=" + text("%.3e", scalar_rules::norm(a.conv)) +
                         " bv0=" + text("%.4f", static_cast<double>(a.beta[0])) +
                         " av0=" + text("%.4f", static_cast<double>(a.g[0])) +
                         " |oTpre|=" + text("%.3e", scalar_rules::norm(a.ungated)) +
                         " |oT|=" + text("%.3e", scalar_rules::norm(a.o)) +
                         " |out|=" + text("%.3e", scalar_rules::norm(a.out)) + " conv1d dtype=" +
                         std::to_string(static_cast<unsigned>(kel::QuantType::BF16)) +
                         " ndim=3 cc=8192 kk=5\n";
  for (size_t r = 0; r < 4; ++r) {
    expected += "      wr[" + std::to_string(r) + "][0..3] =";
    for (size_t i = 4 * r; i < 4 * r + 4; ++i) {
      expected += text(" %.6e", static_cast<double>(floats(layer.ssmConv1d)[i]));
    }
    expected += "\n";
  }
  EXPECT_EQ(expected, report);
}

TEST_F(LinearRule, StateReportGivesTheNormsOfTheStateAndTheOutput) {
  const ScopedEnv dbg("QWEN35_DBG4", "1");
  Account a;
  const std::string report = secondReport(a, 0, 24);
  const std::vector<float> head(a.state.begin(), a.state.begin() + kHeadState);
  EXPECT_EQ("LIN S-pos=24 |S|tot " + text("%.4e", scalar_rules::norm(a.state)) + " head0 " +
                text("%.4e", scalar_rules::norm(head)) + " |oT| " +
                text("%.3e", scalar_rules::norm(a.o)) + " av0 " +
                text("%.4f", static_cast<double>(a.g[0])) + " bv0 " +
                text("%.4f", static_cast<double>(a.beta[0])) + "\n",
            report);
}

TEST_F(LinearRule, ReportsAreOfLayer0AndTheStatesOfMultiplesOf8) {
  const ScopedEnv dbg2("QWEN35_DBG2", "");
  const ScopedEnv dbg4("QWEN35_DBG4", "");
  const std::vector<float> x = tensors.randomVector(kHidden);
  for (size_t pos = 0; pos < 17; ++pos) {
    for (const size_t layerIdx : {0, 1, 3}) {
      testing::internal::CaptureStderr();
      step(x, layerIdx, pos);
      const std::string report = testing::internal::GetCapturedStderr();
      EXPECT_EQ(layerIdx == 0, report.starts_with("    lin: ")) << pos;
      EXPECT_EQ(layerIdx == 0 && pos % 8 == 0, report.find("LIN S-pos=") != std::string::npos)
          << pos;
    }
  }
}

TEST(FeedForwardRule, EveryStepIsRoundedInItsOrder) {
  constexpr size_t kWidth = 96;
  kel::test::HandTensors tensors;
  const auto column = [](size_t r) { return 5 * r % kHidden; };
  const OneHotRows gate(tensors, kWidth, kHidden, 5.0f, column);
  const OneHotRows up(tensors, kWidth, kHidden, 1.0f, column);
  const OneHotRows down(tensors, kHidden, kWidth, 1.0f, [](size_t r) { return 95 - r; });
  Layer layer;
  layer.ffnGate = gate.view;
  layer.ffnUp = up.view;
  layer.ffnDown = down.view;
  for (int token = 0; token < 5; ++token) {
    const std::vector<float> x = tensors.randomVector(kHidden);
    std::vector<float> activation = gate.times(x);
    for (size_t i = 0; i < kWidth; ++i) {
      activation[i] = scalar_rules::silu(activation[i]) * up.times(x)[i];
    }
    std::vector<float> out(kHidden, 99.0f);
    qwen35::ffnStep(kHidden, layer, x.data(), out.data());
    EXPECT_EQ("", firstDifference(down.times(activation), out));
  }
}

// Three dimensions: the rows are all but the first.
TEST(FeedForwardRule, WidthIsTheProductOfTheDimensionsAfterTheFirst) {
  kel::test::HandTensors tensors;
  kel::TensorView gate =
      *tensors.matrix(6, 2, [](size_t r, size_t) { return static_cast<float>(r + 1); });
  kel::TensorView up = *tensors.matrix(6, 2, [](size_t, size_t) { return 0.5f; });
  for (kel::TensorView* view : {&gate, &up}) {
    view->rank = 3;
    view->dims[1] = 2;
    view->dims[2] = 3;
  }
  Layer layer;
  layer.ffnGate = &gate;
  layer.ffnUp = &up;
  layer.ffnDown = tensors.matrix(2, 6, [](size_t r, size_t c) { return c == 4 + r ? 1.0f : 0.0f; });
  const float x[2] = {1.0f, 1.0f};
  float out[2];
  qwen35::ffnStep(2, layer, x, out);
  EXPECT_EQ(scalar_rules::silu(10.0f), out[0]);
  EXPECT_EQ(scalar_rules::silu(12.0f), out[1]);
}

}  // namespace
