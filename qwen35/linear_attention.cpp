#include "qwen35/linear_attention.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "qwen35/diagnostics.h"
#include "qwen35/kernels.h"
#include "qwen35/products.h"
#include "qwen35/simd/dispatch.h"

namespace qwen35 {

namespace {

struct Scratch {
  std::vector<float> xnorm;    // [nEmbd]
  std::vector<float> qkv;      // [convChannels] queries, keys, values
  std::vector<float> z;        // [ssmInner] output gate
  std::vector<float> beta;     // [ssmHeads] write strength
  std::vector<float> g;        // [ssmHeads] log-decay
  std::vector<float> conv;     // [convChannels], the value part becomes the heads' output
  std::vector<float> queries;  // [ssmGroups][ssmDState]
  std::vector<float> keys;     // [ssmGroups][ssmDState]
  std::vector<float> o;        // [ssmInner]
  std::vector<float> ungated;  // [ssmInner], filled for the diagnostics
};

Scratch& threadScratch() {
  static thread_local Scratch scratch;
  return scratch;
}

void projectInto(Model& m, const kel::TensorView* weights, const std::vector<float>& x, size_t rows,
                 std::vector<float>& y) {
  y.assign(rows, 0.0f);
  gemvRow(m, weights, x.data(), y.data());
}

void project(Model& m, const Layer& layer, const float* x, Scratch& s) {
  s.xnorm.resize(m.nEmbd);
  rmsNorm(x, floats(layer.attnNorm), s.xnorm.data(), m.nEmbd, kNormEps);
  projectInto(m, layer.attnQkv, s.xnorm, m.convChannels(), s.qkv);
  projectInto(m, layer.attnGate, s.xnorm, m.ssmInner, s.z);
  projectInto(m, layer.ssmBeta, s.xnorm, m.ssmHeads, s.beta);
  projectInto(m, layer.ssmAlpha, s.xnorm, m.ssmHeads, s.g);
}

// From projections to write strength in (0, 1) and log-decay, at most 0.
void activateGates(const Layer& layer, Scratch& s) {
  const size_t heads = s.beta.size();
  sigmoid(s.beta.data(), s.beta.data(), heads);
  const float* dtBias = floats(layer.ssmDtBias);
  const float* a = floats(layer.ssmA);
  for (size_t h = 0; h < heads; ++h) {
    s.g[h] += dtBias[h];
  }
  softplus(s.g.data(), s.g.data(), heads);
  for (size_t h = 0; h < heads; ++h) {
    s.g[h] *= a[h];
  }
}

// Four taps over this input and the three before it, channel by channel; then the inputs move up.
// The state keeps raw projections, before convolution and activation.
void convolve(const kel::TensorView& weights, const std::vector<float>& in, float* state,
              std::vector<float>& out) {
  const size_t channels = rowCount(weights);
  const size_t stride = weights.dims[0];
  out.resize(in.size());
  for (size_t c = 0; c < channels; ++c) {
    const float* w = floats(&weights) + c * stride;
    float* past = state + c * kConvHistory;
    const float oldest = std::fma(w[0], past[0], 0.0f);
    out[c] = std::fma(w[3], in[c], std::fma(w[2], past[2], std::fma(w[1], past[1], oldest)));
    past[0] = past[1];
    past[1] = past[2];
    past[2] = in[c];
  }
  silu(out.data(), out.data(), channels);
}

// Reads and updates every head's state; o receives the heads' outputs.
void updateStates(const Model& m, Layer& layer, Scratch& s) {
  const size_t d = m.ssmDState;
  const size_t keyWidth = m.ssmGroups * d;
  s.queries.resize(keyWidth);
  s.keys.resize(keyWidth);
  l2NormBlocks(s.conv.data(), s.queries.data(), m.ssmGroups, d, kNormEps);
  l2NormBlocks(s.conv.data() + keyWidth, s.keys.data(), m.ssmGroups, d, kNormEps);

  float* values = s.conv.data() + 2 * keyWidth;
  const float scale = 1.0f / std::sqrt(static_cast<float>(d));
  const bool decays = !diagnosticSet("QWEN35_NODECAY");
  for (size_t h = 0; h < m.ssmHeads; ++h) {
    const size_t keyHead = h % m.ssmGroups;
    gdnStep(layer.ssmState.data() + h * d * d, s.queries.data() + keyHead * d,
            s.keys.data() + keyHead * d, values + h * d, s.beta[h], d, decays ? s.g[h] : 0.0f,
            scale);
  }
  s.o.assign(values, values + m.ssmInner);
}

// Norm per head with one set of weights for all, then the gate: silu(z).
void normaliseAndGate(const Model& m, const Layer& layer, Scratch& s) {
  const size_t d = m.ssmDState;
  for (size_t h = 0; h < m.ssmHeads; ++h) {
    float* head = s.o.data() + h * d;
    rmsNorm(head, floats(layer.ssmNorm), head, d, kNormEps);
  }
  for (size_t i = 0; i < m.ssmInner; ++i) {
    s.o[i] *= s.z[i] / (1.0f + std::exp(-s.z[i]));
  }
}

LinearStepView view(const Model& m, const Layer& layer, const Scratch& s, const float* out) {
  return {.qkv = s.qkv,
          .z = s.z,
          .conv = s.conv,
          .ungated = s.ungated,
          .o = s.o,
          .out = {out, m.nEmbd},
          .state = {layer.ssmState.data(), layer.ssmState.size()},
          .headState = m.ssmDState * m.ssmDState,
          .beta0 = s.beta[0],
          .g0 = s.g[0],
          .convWeights = *layer.ssmConv1d};
}

}  // namespace

void gdnStep(float* state, const float* q, const float* k, float* v, float beta, size_t dim,
             float g, float scale) {
  kernels().deltaStep(state, q, k, v, dim, std::exp(g), beta, scale);
}

void linearAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t layerIdx,
                    size_t pos) {
  Scratch& s = threadScratch();
  project(m, layer, x, s);
  activateGates(layer, s);
  ++layer.written;
  convolve(*layer.ssmConv1d, s.qkv, layer.convState.data(), s.conv);
  updateStates(m, layer, s);
  const bool report = linearReportWanted(layerIdx);
  if (report) {
    s.ungated = s.o;
  }
  normaliseAndGate(m, layer, s);
  std::fill_n(out, m.nEmbd, 0.0f);
  gemvRow(m, layer.ssmOut, s.o.data(), out);
  if (report) {
    printLinearStep(view(m, layer, s, out));
  }
  if (stateReportWanted(pos, layerIdx)) {
    printLinearState(view(m, layer, s, out), pos);
  }
}

}  // namespace qwen35
