#include "qwen35/forward.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <chrono>
#include <span>
#include <vector>

#include "qwen35/full_attention.h"
#include "qwen35/linear_attention.h"
#include "qwen35/weights.h"

namespace qwen35 {

namespace {

const kel::TensorView* outputMatrix(const Model& m) {
  return m.output == nullptr ? m.tokEmbd : m.output;
}

// What a pass of one token shows of itself when asked to.
struct Trace {
  bool prints;
  HiddenDump dump;
};

// Gate and up projections of a feed-forward block.
struct Projections {
  Projections(const Work& w, const Layer& layer)
      : width(rowCount(*layer.ffnGate)),
        products{{layer.ffnGate, w.at().gate, width}, {layer.ffnUp, w.at().up, width}} {}

  size_t width;
  Matmul products[2];
};

// From the prepared input of the projections to the output of the block.
void feedPrepared(const Work& w, const Layer& layer, const Projections& projections,
                  const MatmulInput& in, float* out) {
  const size_t width = projections.width;
  w.multiply(in, projections.products);
  const Matmul down[] = {{layer.ffnDown, out, w.m.nEmbd}};
  const MatmulInput activated = w.input(w.at().gate, width, down);
  const size_t runs = (width + kGroupLen - 1) / kGroupLen;
  w.member.forEach(w.count * runs, [&](size_t piece) {
    const size_t token = piece / runs;
    const size_t begin = piece % runs * kGroupLen;
    const size_t n = std::min(kGroupLen, width - begin);
    float* gate = w.at().gate + token * width + begin;
    const float* up = w.at().up + token * width + begin;
    w.kernels().siluGate(up, gate, gate, n);
    prepareInput(w.kernels(), activated, token, begin, n);
  });
  w.multiply(activated, down);
}

void attention(const Work& w, Layer& layer, size_t layerIdx, const ResidualSum& x) {
  float* out = w.at().blockOut;
  if (w.diagnostics().skips(layer.isLinear)) {
    skipBlock(w, x, out);
  } else if (layer.isLinear) {
    linearAttention(w, layer, layerIdx, x, out);
  } else {
    fullAttention(w, layer, layerIdx, x, out);
  }
}

// One record of a layer's values, nEmbd floats.
void dumpLayer(Trace& trace, const Work& w, size_t layerIdx, const float* what, const char* name) {
  trace.dump.layerRecord(w.pos(), layerIdx, name, {what, w.m.nEmbd});
}

// From x to x of the next layer, but for the last addition: that one is left to the step that norms
// the sum.
void runLayer(const Work& w, Layer& layer, size_t layerIdx, const ResidualSum& x, Trace* trace) {
  const PassBuffers& at = w.at();
  attention(w, layer, layerIdx, x);
  if (trace != nullptr) {
    w.member.once([&] {
      if (trace->prints) {
        printLayerNorms(layerIdx, layer.isLinear, {at.x, w.m.nEmbd}, {at.blockOut, w.m.nEmbd});
      }
      dumpLayer(*trace, w, layerIdx, at.blockOut, "attn_mm");
    });
  }
  const Projections projections(w, layer);
  const MatmulInput in = w.input(at.normed, w.m.nEmbd, projections.products);
  normStep(w, {at.x, at.blockOut, at.residual}, layer.postAttnNorm, at.normed, in);
  feedPrepared(w, layer, projections, in, at.blockOut);
  if (trace != nullptr) {
    w.member.once([&] {
      if (trace->prints) {
        printFfnNorm({at.blockOut, w.m.nEmbd});
      }
      dumpLayer(*trace, w, layerIdx, at.residual, "attn_res");
      dumpLayer(*trace, w, layerIdx, at.normed, "post_norm");
      dumpLayer(*trace, w, layerIdx, at.blockOut, "ffn_mm");
      // The next norm forms the same sum again.
      ResidualSum{at.residual, at.blockOut, at.x}.add(0, w.m.nEmbd);
      dumpLayer(*trace, w, layerIdx, at.x, "layer_out");
    });
  }
}

// Of a pass that is to be cancelled: the layer before which it ends. Whether a member sees the
// layer of a later step is all the same, as it compares with its own.
using StopLayer = std::atomic<size_t>;
constexpr size_t kNoLayer = SIZE_MAX;

void runPass(const Work& w, Model& m, const PassRequest& request, Trace* trace,
             StopLayer& stopLayer) {
  const PassBuffers& at = w.at();
  w.member.forEach(w.count, [&](size_t token) {
    std::copy_n(request.embeddings + token * m.nEmbd, m.nEmbd, at.x + token * m.nEmbd);
    computeAngles(w, token);
  });
  ResidualSum x{at.x, nullptr, at.x};
  for (size_t l = 0; l < m.nLayer; ++l) {
    if (request.cancel != nullptr) {
      // A step, so that all members come to the same answer.
      w.member.once([&] {
        if (isCancelled(request.cancel)) {
          stopLayer = l;
        }
      });
      if (stopLayer <= l) {
        return;
      }
    }
    runLayer(w, m.layers[l], l, x, trace);
    x = {at.residual, at.blockOut, at.x};
  }
  if (trace != nullptr) {
    w.member.once([&] {
      if (trace->prints) {
        printPassNorms({request.embeddings, m.nEmbd}, {at.x, m.nEmbd});
      }
      trace->dump.record(w.pos(), "result_norm", {at.x, m.nEmbd});
    });
  }
  float* hidden = request.hidden == nullptr ? at.normed : request.hidden;
  normStep(w, x, m.outputNorm, hidden, {});
  if (request.logits == nullptr) {
    return;
  }
  Work asked = w;
  asked.count = request.allLogits ? w.count : 1;
  head(asked, hidden + (w.count - asked.count) * m.nEmbd, request.logits);
}

// Tells the snapshots of a pass that begins which states they will hold.
void expectStates(const Sequence& sequence, const Diagnostics& asked) {
  const std::vector<Layer>& layers = sequence.model->layers;
  for (size_t l = 0; sequence.before != nullptr && l < layers.size(); ++l) {
    sequence.before->layer(l).pos = layers[l].pos;
    sequence.before->layer(l).taken = layers[l].isLinear && !asked.skips(true);
  }
}

// The same where the pass came no further than the layer.
void dropStates(const Sequence& sequence, size_t fromLayer) {
  for (size_t l = fromLayer; sequence.before != nullptr && l < sequence.model->layers.size(); ++l) {
    sequence.before->layer(l).taken = false;  // as it was
  }
}

// The cache rows that a pass stored are part of the context.
void raisePositions(const Sequence& sequence, const Diagnostics& asked) {
  for (Layer& layer : sequence.model->layers) {
    if (!layer.isLinear && !asked.skips(false) &&
        layer.pos + sequence.count <= sequence.model->maxCtx) {
      layer.pos += sequence.count;
    }
  }
}

// A pass over sequences; what the request says of them is not looked at.
bool forward(Context& context, std::span<const Sequence> sequences, const PassRequest& request) {
  assert(request.count >= 1 && request.count <= context.maxTokens());
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  context.diagnostics = Diagnostics::fromEnvironment();
  const Diagnostics& asked = context.diagnostics;
  Model& m = *sequences.front().model;
  const size_t pos = sequences.front().pos;
  const bool traced = request.count == 1 && request.logits != nullptr &&
                      (asked.layerNorms || asked.dump != nullptr);
  Trace trace{pos == 0 && asked.layerNorms, HiddenDump(traced ? asked.dump : nullptr)};
  for (const Sequence& sequence : sequences) {
    expectStates(sequence, asked);
  }
  StopLayer stopLayer = kNoLayer;
  context.team().run([&](Team::Member& member) {
    const Work w{context, member, m, request.count, request.arithmetic, sequences};
    runPass(w, m, request, traced ? &trace : nullptr, stopLayer);
  });
  const bool finished = stopLayer == kNoLayer;
  for (const Sequence& sequence : sequences) {
    if (finished) {
      raisePositions(sequence, asked);
    } else {
      dropStates(sequence, stopLayer);
    }
  }
  if (finished && asked.timing && request.logits == nullptr && request.count == 1) {
    printHiddenTiming(pos, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  return finished;
}

}  // namespace

void feedForward(const Work& w, const Layer& layer, const float* normed, float* out) {
  const Projections projections(w, layer);
  const MatmulInput in = w.input(normed, w.m.nEmbd, projections.products);
  w.prepare(in);
  feedPrepared(w, layer, projections, in, out);
}

void head(const Work& w, const float* normed, float* logits) {
  const Matmul product[] = {{outputMatrix(w.m), logits, w.m.nVocab, /*assigns=*/true}};
  const MatmulInput in = w.input(normed, w.m.nEmbd, product);
  w.prepare(in);
  w.multiply(in, product);
}

bool forward(Context& context, Model& m, const PassRequest& request) {
  const Sequence sequence[] = {{.model = &m,
                                .count = request.count,
                                .pos = request.pos,
                                .before = request.before,
                                .replay = request.replay}};
  return forward(context, sequence, request);
}

void forwardShared(Context& context, const SharedPassRequest& request) {
  size_t count = 0;
  for (const Sequence& sequence : request.sequences) {
    assert(sequence.first == count && sequence.model->maxCtx <= context.maxPositions());
    count += sequence.count;
  }
  forward(context, request.sequences,
          {.embeddings = request.embeddings,
           .count = count,
           .arithmetic = request.arithmetic,
           .hidden = request.hidden,
           .logits = request.logits,
           .allLogits = true});
}

void ffnStep(size_t nEmbd, Layer& layer, const float* xn, float* out) {
  Context context(nEmbd, rowCount(*layer.ffnGate));
  Model m;
  m.nEmbd = nEmbd;
  context.team().run([&](Team::Member& member) {
    feedForward({context, member, m, 1, Arithmetic::SingleToken}, layer, xn, out);
  });
}

void forwardToken(Model& m, const float* emb, size_t pos, float* logits) {
  Context context(m);
  forward(context, m, {.embeddings = emb, .pos = pos, .logits = logits});
}

void forwardTokenHidden(Model& m, const float* emb, size_t pos, float* out) {
  Context context(m);
  forward(context, m, {.embeddings = emb, .pos = pos, .hidden = out});
}

}  // namespace qwen35
