#include "qwen35/linear_attention.h"

#include <algorithm>
#include <cmath>

#include "qwen35/elementwise.h"

namespace qwen35 {

namespace {

// The tokens of a sequence between the projections of one layer.
class Mixer {
 public:
  // Replays: the inputs are those of the sequence's `replay`, and there is no output. Otherwise
  // they are kept there where it is given.
  enum class Mode { Mixes, Replays };

  Mixer(const Work& work, const Sequence& sequence, Layer& mixed, size_t layerIdx, Mode mode)
      : w(work),
        m(*sequence.model),
        at(work.at()),
        layer(mixed),
        first(sequence.first),
        end(sequence.first + sequence.count),
        begins(sequence.pos == 0),
        before(sequence.before == nullptr ? nullptr : &sequence.before->layer(layerIdx)),
        inputs(sequence.replay == nullptr ? nullptr : &sequence.replay->layer(layerIdx)),
        replays(mode == Mode::Replays),
        keyDim(m.ssmDState),
        valueDim(m.ssmDValue()),
        keyFloats(m.ssmGroups * keyDim),
        channels(m.convChannels()),
        history(m.shape.convTaps - 1),
        scale(1.0f / std::sqrt(static_cast<float>(keyDim))) {}

  // Key head g with the value heads that read it: no two key heads share a channel or a state.
  // Tokens stay in order within a channel and within a head.
  void mix(size_t g) const {
    convolveAll(g * keyDim, keyDim);
    convolveAll(keyFloats + g * keyDim, keyDim);
    for (size_t token = first; token < end; ++token) {
      unitLength(token, g * keyDim);
      unitLength(token, keyFloats + g * keyDim);
    }
    for (size_t h = g; h < m.ssmHeads; h += m.ssmGroups) {
      convolveAll(2 * keyFloats + h * valueDim, valueDim);
      if (begins) {
        layer.ssmState.populate(h * keyDim * valueDim, keyDim * valueDim);
      }
      saveHead(h);
      for (size_t token = first; token < end; ++token) {
        openGates(token, h);
        update(token, h, g);
        if (!replays) {
          normaliseAndGate(token, h);
        }
      }
    }
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

  // Channels from `begin` on, activated. The state keeps raw projections, before convolution and
  // activation.
  void convolve(const float* in, float* out, size_t begin, size_t count) const {
    const size_t stride = layer.ssmConv1d->dims[0];
    w.kernels().convolve(floats(layer.ssmConv1d) + begin * stride, stride, history + 1,
                         layer.convState.data() + begin * history, in + begin, out + begin, count);
    w.kernels().sigmoidGate(out + begin, out + begin, out + begin, count);
  }

  void convolveAll(size_t begin, size_t count) const {
    if (begins) {
      layer.convState.populate(begin * history, count * history);
    }
    saveChannels(begin, count);
    for (size_t token = first; token < end; ++token) {
      float* kept = inputs == nullptr ? nullptr : inputs->qkv.data() + (token - first) * channels;
      const float* in = replays ? kept : at.qkv + token * channels;
      if (inputs != nullptr && !replays) {
        std::copy_n(in + begin, count, kept + begin);
      }
      convolve(in, at.conv + token * channels, begin, count);
    }
  }

  // The query or the key at channel `begin`.
  void unitLength(size_t token, size_t begin) const {
    l2NormBlocks(at.conv + token * channels + begin, at.unitKeys + token * 2 * keyFloats + begin, 1,
                 keyDim, m.normEps);
  }

  // From projections to write strength in (0, 1) and log-decay, at most 0.
  void openGates(size_t token, size_t h) const {
    float* beta = at.beta + token * m.ssmHeads + h;
    float* g = at.decay + token * m.ssmHeads + h;
    const size_t kept = (token - first) * m.ssmHeads + h;
    if (replays) {
      *beta = inputs->beta[kept];
      *g = inputs->alpha[kept];
    } else if (inputs != nullptr) {
      inputs->beta[kept] = *beta;
      inputs->alpha[kept] = *g;
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
  size_t first;  // token of the pass
  size_t end;
  bool begins;  // the sequence: nothing may have touched its state yet
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

// A step: a piece for each sequence and key head.
void mix(const Work& w, Layer& layer, size_t layerIdx, Mixer::Mode mode) {
  const size_t groups = w.m.ssmGroups;
  w.member.forEach(w.sequences.size() * groups, [&](size_t piece) {
    const Sequence& sequence = w.sequences[piece / groups];
    Mixer(w, sequence, w.layerOf(sequence, layer, layerIdx), layerIdx, mode).mix(piece % groups);
  });
}

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
  if (w.diagnostics().reportsLinearState(w.pos(), layerIdx)) {
    printLinearState(view, w.pos());
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
  mix(w, layer, layerIdx, Mixer::Mode::Mixes);
  const Matmul output[] = {{layer.ssmOut, out, m.nEmbd}};
  const MatmulInput mixed = w.input(at.ssmOut, m.ssmInner, output);
  w.prepare(mixed);
  w.multiply(mixed, output);
  if (w.count == 1 && (w.diagnostics().reportsLinearStep(layerIdx) ||
                       w.diagnostics().reportsLinearState(w.pos(), layerIdx))) {
    w.member.once([&] { report(w, layer, layerIdx, out); });
  }
}

void advanceState(const Work& w, Layer& layer, size_t layerIdx) {
  mix(w, layer, layerIdx, Mixer::Mode::Replays);
}

void linearAttnStep(Model& m, Layer& layer, const float* x, float* out, size_t layerIdx,
                    size_t pos) {
  Context context(m);
  context.diagnostics = Diagnostics::fromEnvironment();
  const Sequence sequence[] = {{.model = &m, .pos = pos}};
  context.team().run([&](Team::Member& member) {
    const Work w{context, member, m, 1, Arithmetic::SingleToken, sequence};
    linearAttention(w, layer, layerIdx, {x, nullptr, nullptr}, out);
  });
}

}  // namespace qwen35
