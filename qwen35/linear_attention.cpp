#include "qwen35/linear_attention.h"

#include <algorithm>
#include <cmath>

#include "qwen35/elementwise.h"

namespace qwen35 {

namespace {

constexpr size_t kFamilyTaps = 4;

// The tokens of a pass between the projections of one layer.
class Mixer {
 public:
  // Replays: the inputs are those of w.replay, and there is no output. Otherwise they are kept
  // there where it is given.
  enum class Mode { Mixes, Replays };

  Mixer(const Work& work, Layer& mixed, size_t layerIdx, Mode mode)
      : w(work),
        m(work.m),
        at(work.at()),
        layer(mixed),
        before(w.before == nullptr ? nullptr : &w.before->layer(layerIdx)),
        inputs(w.replay == nullptr ? nullptr : &w.replay->layer(layerIdx)),
        replays(mode == Mode::Replays),
        keyDim(m.ssmDState),
        valueDim(m.ssmDValue()),
        keyFloats(m.ssmGroups * keyDim),
        channels(m.convChannels()),
        history(m.shape.convTaps - 1),
        scale(1.0f / std::sqrt(static_cast<float>(keyDim))) {}

  // A step, a piece for each key head with the value heads that read it: no two pieces share a
  // channel or a state. Tokens stay in order within a channel and within a head.
  void mix() const {
    w.member.forEach(m.ssmGroups, [&](size_t g) {
      convolveAll(g * keyDim, keyDim);
      convolveAll(keyFloats + g * keyDim, keyDim);
      for (size_t token = 0; token < w.count; ++token) {
        unitLength(token, g * keyDim);
        unitLength(token, keyFloats + g * keyDim);
      }
      for (size_t h = g; h < m.ssmHeads; h += m.ssmGroups) {
        convolveAll(2 * keyFloats + h * valueDim, valueDim);
        saveHead(h);
        for (size_t token = 0; token < w.count; ++token) {
          openGates(token, h);
          update(token, h, g);
          if (!replays) {
            normaliseAndGate(token, h);
          }
        }
      }
    });
  }

 private:
  // The state before the first token, as it comes to be read anyway.
  void saveChannels(size_t begin, size_t count) const {
    if (before != nullptr) {
      std::copy_n(layer.convState.data() + begin * history, count * history,
                  before->conv.data() + begin * history);
    }
  }
  void saveHead(size_t h) const {
    const size_t floats = keyDim * valueDim;
    if (before != nullptr) {
      std::copy_n(layer.ssmState.data() + h * floats, floats, before->ssm.data() + h * floats);
    }
  }

  // The taps over an input and those before it, for `count` channels from `begin` on; then the
  // inputs move up. The state keeps raw projections, before convolution and activation. The
  // compiler unrolls kTaps; 0 stands for any number.
  template <size_t kTaps>
  void convolve(const float* in, float* out, size_t begin, size_t count) const {
    const size_t stride = layer.ssmConv1d->dims[0];
    const size_t earlier = kTaps == 0 ? history : kTaps - 1;
    for (size_t c = begin; c < begin + count; ++c) {
      const float* tap = floats(layer.ssmConv1d) + c * stride;
      float* past = layer.convState.data() + c * earlier;
      float sum = 0.0f;
      for (size_t i = 0; i < earlier; ++i) {
        sum = std::fma(tap[i], past[i], sum);
      }
      out[c] = std::fma(tap[earlier], in[c], sum);
      for (size_t i = 0; i + 1 < earlier; ++i) {
        past[i] = past[i + 1];
      }
      if (earlier > 0) {
        past[earlier - 1] = in[c];
      }
    }
    w.kernels().sigmoidGate(out + begin, out + begin, out + begin, count);
  }

  void convolveAll(size_t begin, size_t count) const {
    saveChannels(begin, count);
    const float* projected = replays ? inputs->qkv.data() : at.qkv;
    for (size_t token = 0; token < w.count; ++token) {
      const float* in = projected + token * channels;
      if (inputs != nullptr && !replays) {
        std::copy_n(in + begin, count, inputs->qkv.data() + token * channels + begin);
      }
      float* out = at.conv + token * channels;
      if (history == kFamilyTaps - 1) {
        convolve<kFamilyTaps>(in, out, begin, count);
      } else {
        convolve<0>(in, out, begin, count);
      }
    }
  }

  // The query or the key at channel `begin`.
  void unitLength(size_t token, size_t begin) const {
    l2NormBlocks(at.conv + token * channels + begin, at.unitKeys + token * 2 * keyFloats + begin, 1,
                 keyDim, m.normEps);
  }

  // From projections to write strength in (0, 1) and log-decay, at most 0.
  void openGates(size_t token, size_t h) const {
    const size_t place = token * m.ssmHeads + h;
    float* beta = at.beta + place;
    float* g = at.decay + place;
    if (replays) {
      *beta = inputs->beta[place];
      *g = inputs->alpha[place];
    } else if (inputs != nullptr) {
      inputs->beta[place] = *beta;
      inputs->alpha[place] = *g;
    }
    const float one = 1.0f;
    w.kernels().sigmoidGate(&one, beta, beta, 1);
    *g += floats(layer.ssmDtBias)[h];
    softplus(g, g, 1);
    *g *= floats(layer.ssmA)[h];
  }

  // The value of head h becomes its output.
  void update(size_t token, size_t h, size_t g) const {
    const float* query = at.unitKeys + token * 2 * keyFloats + g * keyDim;
    const float logDecay = w.diagnostics().noDecay ? 0.0f : at.decay[token * m.ssmHeads + h];
    float decay;
    w.kernels().exponentials(&logDecay, 0.0f, &decay, 1);
    w.kernels().deltaStep(layer.ssmState.data() + h * keyDim * valueDim, query, query + keyFloats,
                          at.conv + token * channels + 2 * keyFloats + h * valueDim, keyDim,
                          valueDim, decay, at.beta[token * m.ssmHeads + h], scale);
  }

  // Norm of head h with one set of weights for all, then the gate: silu(z).
  void normaliseAndGate(size_t token, size_t h) const {
    const float* value = at.conv + token * channels + 2 * keyFloats + h * valueDim;
    const float* z = at.z + token * m.ssmInner + h * valueDim;
    float* out = at.ssmOut + token * m.ssmInner + h * valueDim;
    rmsNorm(value, floats(layer.ssmNorm), out, valueDim, m.normEps);
    w.kernels().siluGate(out, z, out, valueDim);
  }

  const Work& w;
  const Model& m;
  const PassBuffers& at;
  Layer& layer;
  Snapshot::LayerState* before;
  Replay::LayerInputs* inputs;
  bool replays;
  size_t keyDim;
  size_t valueDim;
  size_t keyFloats;  // of all query heads, and of all key heads
  size_t channels;
  size_t history;  // inputs of a channel that the convolution looks back at
  float scale;
};

void report(const Work& w, const Layer& layer, size_t layerIdx, const float* out) {
  const Model& m = w.m;
  const PassBuffers& at = w.at();
  const LinearStepView view{.qkv = {at.qkv, m.convChannels()},
                            .z = {at.z, m.ssmInner},
                            .conv = {at.conv, m.convChannels()},
                            .ungated = {at.conv + m.convChannels() - m.ssmInner, m.ssmInner},
                            .o = {at.ssmOut, m.ssmInner},
                            .out = {out, m.nEmbd},
                            .state = {layer.ssmState.data(), layer.ssmState.size()},
                            .headState = m.ssmDState * m.ssmDValue(),
                            .beta0 = at.beta[0],
                            .g0 = at.decay[0],
                            .convWeights = *layer.ssmConv1d};
  if (w.diagnostics().reportsLinearStep(layerIdx)) {
    printLinearStep(view);
  }
  if (w.diagnostics().reportsLinearState(w.pos, layerIdx)) {
    printLinearState(view, w.pos);
  }
}

}  // namespace

void gdnStep(float* state, const float* q, const float* k, float* v, float beta, size_t dim,
             float g, float scale) {
  kernels().deltaStep(state, q, k, v, dim, dim, exponential(g), beta, scale);
}

void linearAttention(const Work& w, Layer& layer, size_t layerIdx, const ResidualSum& x,
                     float* out) {
  const Model& m = w.m;
  const PassBuffers& at = w.at();
  const Matmul projections[] = {{layer.attnQkv, at.qkv, m.convChannels()},
                                {layer.attnGate, at.z, m.ssmInner},
                                {layer.ssmBeta, at.beta, m.ssmHeads},
                                {layer.ssmAlpha, at.decay, m.ssmHeads}};
  const MatmulInput in = w.input(at.normed, m.nEmbd, projections);
  normStep(w, x, layer.attnNorm, at.normed, in);
  w.multiply(in, projections);
  Mixer(w, layer, layerIdx, Mixer::Mode::Mixes).mix();
  const Matmul output[] = {{layer.ssmOut, out, m.nEmbd}};
  const MatmulInput mixed = w.input(at.ssmOut, m.ssmInner, output);
  w.prepare(mixed);
  w.multiply(mixed, output);
  if (w.count == 1 && (w.diagnostics().reportsLinearStep(layerIdx) ||
                       w.diagnostics().reportsLinearState(w.pos, layerIdx))) {
    w.member.once([&] { report(w, layer, layerIdx, out); });
  }
}

void advanceState(const Work& w, Layer& layer, size_t layerIdx) {
  Mixer(w, layer, layerIdx, Mixer::Mode::Replays).mix();
}

void linearAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t layerIdx,
                    size_t pos) {
  Context context(m);
  context.diagnostics = Diagnostics::fromEnvironment();
  context.team().run([&](Team::Member& member) {
    const Work w{context, member, m, 1, pos, Arithmetic::SingleToken};
    linearAttention(w, layer, layerIdx, {x, nullptr, nullptr}, out);
  });
}

}  // namespace qwen35
