#include "qwen35/linear_attention.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "qwen35/block_products.h"
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
  std::vector<float> keys;     // [2][ssmGroups][ssmDState] normalised queries and keys
  std::vector<float> o;        // [ssmInner]
  std::vector<float> ungated;  // [ssmInner], filled for the diagnostics
};

Scratch& threadScratch() {
  static thread_local Scratch scratch;
  return scratch;
}

size_t keyFloats(const Model& m) {
  return 2 * m.ssmGroups * m.ssmDState;
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

// From projections to write strength in (0, 1) and log-decay, at most 0. beta, g: [heads].
void activateGates(const Layer& layer, float* beta, float* g, size_t heads) {
  sigmoid(beta, beta, heads);
  const float* dtBias = floats(layer.ssmDtBias);
  const float* a = floats(layer.ssmA);
  for (size_t h = 0; h < heads; ++h) {
    g[h] += dtBias[h];
  }
  softplus(g, g, heads);
  for (size_t h = 0; h < heads; ++h) {
    g[h] *= a[h];
  }
}

// Four taps over this input and the three before it, for the channels [begin, end); then the inputs
// move up. The state keeps raw projections, before convolution and activation.
void convolve(const kel::TensorView& weights, const float* in, float* state, float* out,
              size_t begin, size_t end) {
  const size_t stride = weights.dims[0];
  for (size_t c = begin; c < end; ++c) {
    const float* w = floats(&weights) + c * stride;
    float* past = state + c * kConvHistory;
    const float oldest = std::fma(w[0], past[0], 0.0f);
    out[c] = std::fma(w[3], in[c], std::fma(w[2], past[2], std::fma(w[1], past[1], oldest)));
    past[0] = past[1];
    past[1] = past[2];
    past[2] = in[c];
  }
  silu(out + begin, out + begin, end - begin);
}

// Queries and keys of one token to unit length. conv: the activated channels, queries and keys
// first; keys: [2][ssmGroups][ssmDState], queries and keys.
void normaliseKeys(const Model& m, const float* conv, float* keys) {
  l2NormBlocks(conv, keys, 2 * m.ssmGroups, m.ssmDState, kNormEps);
}

// One token of value head h. keys: normalised queries and keys; values: [ssmHeads][ssmDState], of
// which the head's value becomes its output.
void updateHead(const Model& m, Layer& layer, size_t h, const float* keys, float* values,
                float beta, float g) {
  const size_t d = m.ssmDState;
  const float* query = keys + h % m.ssmGroups * d;
  const float scale = 1.0f / std::sqrt(static_cast<float>(d));
  gdnStep(layer.ssmState.data() + h * d * d, query, query + m.ssmGroups * d, values + h * d, beta,
          d, g, scale);
}

// Norm of head h with one set of weights for all, then the gate: silu(z). o, z: [ssmInner].
void normaliseAndGate(const Model& m, const Layer& layer, size_t h, float* o, const float* z) {
  const size_t d = m.ssmDState;
  rmsNorm(o + h * d, floats(layer.ssmNorm), o + h * d, d, kNormEps);
  for (size_t i = h * d; i < (h + 1) * d; ++i) {
    o[i] *= z[i] / (1.0f + std::exp(-z[i]));
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
  activateGates(layer, s.beta.data(), s.g.data(), m.ssmHeads);
  ++layer.written;
  s.conv.resize(m.convChannels());
#pragma omp parallel
  {
    const RowRange channels = rowsOfThisThread(m.convChannels());
    convolve(*layer.ssmConv1d, s.qkv.data(), layer.convState.data(), s.conv.data(), channels.begin,
             channels.end);
  }
  s.keys.resize(keyFloats(m));
  normaliseKeys(m, s.conv.data(), s.keys.data());
  float* values = s.conv.data() + keyFloats(m);
  const bool decays = !diagnosticSet("QWEN35_NODECAY");
  s.o.resize(m.ssmInner);
#pragma omp parallel for schedule(static)
  for (size_t h = 0; h < m.ssmHeads; ++h) {
    updateHead(m, layer, h, s.keys.data(), values, s.beta[h], decays ? s.g[h] : 0.0f);
    std::copy_n(values + h * m.ssmDState, m.ssmDState, s.o.data() + h * m.ssmDState);
    normaliseAndGate(m, layer, h, s.o.data(), s.z.data());
  }
  const bool report = linearReportWanted(layerIdx);
  if (report) {
    s.ungated.assign(values, values + m.ssmInner);
  }
  std::fill_n(out, m.nEmbd, 0.0f);
  gemvRow(m, layer.ssmOut, s.o.data(), out);
  if (report) {
    printLinearStep(view(m, layer, s, out));
  }
  if (stateReportWanted(pos, layerIdx)) {
    printLinearState(view(m, layer, s, out), pos);
  }
}

namespace {

// The tokens of a block, each buffer [count][width of the step's buffer].
struct BlockScratch {
  std::vector<float> xnorm;
  std::vector<float> qkv;
  std::vector<float> z;
  std::vector<float> beta;
  std::vector<float> g;
  std::vector<float> conv;
  std::vector<float> keys;
  std::vector<float> o;
  BlockInputs inputs;

  void resize(const Model& m, size_t count) {
    xnorm.resize(count * m.nEmbd);
    qkv.resize(count * m.convChannels());
    z.resize(count * m.ssmInner);
    beta.resize(count * m.ssmHeads);
    g.resize(count * m.ssmHeads);
    conv.resize(count * m.convChannels());
    keys.resize(count * keyFloats(m));
    o.resize(count * m.ssmInner);
  }
};

BlockScratch& blockScratch() {
  static thread_local BlockScratch scratch;
  return scratch;
}

void projectBlock(const Model& m, const Layer& layer, const float* x, size_t count,
                  BlockScratch& s) {
  rmsNormRows(x, floats(layer.attnNorm), s.xnorm.data(), count, m.nEmbd, kNormEps);
  s.inputs.assign(s.xnorm.data(), count, m.nEmbd);
  multiplyBlock(*layer.attnQkv, s.inputs, s.qkv.data());
  multiplyBlock(*layer.attnGate, s.inputs, s.z.data());
  multiplyBlock(*layer.ssmBeta, s.inputs, s.beta.data());
  multiplyBlock(*layer.ssmAlpha, s.inputs, s.g.data());
}

// What the step does between its projections. Tokens stay in order within a channel and within a
// head; channels, heads and, where no state is involved, tokens are spread over the threads.
void mixBlock(const Model& m, Layer& layer, size_t count, BlockScratch& s) {
  constexpr size_t kChannelRun = 64;
  const size_t channels = m.convChannels();
#pragma omp parallel
  {
#pragma omp for schedule(static)
    for (size_t c = 0; c < channels; c += kChannelRun) {
      for (size_t i = 0; i < count; ++i) {
        convolve(*layer.ssmConv1d, s.qkv.data() + i * channels, layer.convState.data(),
                 s.conv.data() + i * channels, c, std::min(c + kChannelRun, channels));
      }
    }
#pragma omp for schedule(static)
    for (size_t i = 0; i < count; ++i) {
      activateGates(layer, s.beta.data() + i * m.ssmHeads, s.g.data() + i * m.ssmHeads, m.ssmHeads);
      normaliseKeys(m, s.conv.data() + i * channels, s.keys.data() + i * keyFloats(m));
    }
#pragma omp for schedule(static)
    for (size_t h = 0; h < m.ssmHeads; ++h) {
      for (size_t i = 0; i < count; ++i) {
        updateHead(m, layer, h, s.keys.data() + i * keyFloats(m),
                   s.conv.data() + i * channels + keyFloats(m), s.beta[i * m.ssmHeads + h],
                   s.g[i * m.ssmHeads + h]);
      }
    }
#pragma omp for schedule(static)
    for (size_t i = 0; i < count; ++i) {
      float* o = s.o.data() + i * m.ssmInner;
      std::copy_n(s.conv.data() + i * channels + keyFloats(m), m.ssmInner, o);
      for (size_t h = 0; h < m.ssmHeads; ++h) {
        normaliseAndGate(m, layer, h, o, s.z.data() + i * m.ssmInner);
      }
    }
  }
}

}  // namespace

void linearAttnBlock(Model& m, Layer& layer, const float* x, float* out, size_t count) {
  BlockScratch& s = blockScratch();
  s.resize(m, count);
  projectBlock(m, layer, x, count, s);
  layer.written += count;
  mixBlock(m, layer, count, s);
  s.inputs.assign(s.o.data(), count, m.ssmInner);
  multiplyBlock(*layer.ssmOut, s.inputs, out);
}

}  // namespace qwen35
