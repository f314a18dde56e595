#include "qwen35/forward.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "qwen35/diagnostics.h"
#include "qwen35/full_attention.h"
#include "qwen35/kernels.h"
#include "qwen35/linear_attention.h"
#include "qwen35/products.h"

namespace qwen35 {

namespace {

struct Scratch {
  std::vector<float> x;         // [nEmbd] the residual stream
  std::vector<float> attn;      // [nEmbd]
  std::vector<float> residual;  // [nEmbd]
  std::vector<float> normed;    // [nEmbd]
  std::vector<float> ffn;       // [nEmbd]
  std::vector<float> gate;      // [feed-forward width]
  std::vector<float> up;        // [feed-forward width]
};

Scratch& threadScratch() {
  static thread_local Scratch scratch;
  return scratch;
}

// What forwardToken shows of a pass when asked to.
struct Trace {
  bool prints;
  HiddenDump dump;
};

void attentionStep(Model& m, size_t layerIdx, size_t pos, Scratch& s) {
  Layer& layer = m.layers[layerIdx];
  if (isAblated(layer.isLinear)) {
    std::fill(s.attn.begin(), s.attn.end(), 0.0f);
  } else if (layer.isLinear) {
    linearAttnStep(m, layer, s.x.data(), s.attn.data(), layerIdx, pos);
  } else {
    fullAttnStep(m, layer, s.x.data(), s.attn.data(), pos, layerIdx);
  }
}

void add(const std::vector<float>& a, const std::vector<float>& b, std::vector<float>& sum) {
  for (size_t i = 0; i < sum.size(); ++i) {
    sum[i] = a[i] + b[i];
  }
}

void dumpLayer(Trace& trace, size_t pos, size_t layerIdx, const Scratch& s) {
  trace.dump.layerRecord(pos, layerIdx, "attn_mm", s.attn);
  trace.dump.layerRecord(pos, layerIdx, "attn_res", s.residual);
  trace.dump.layerRecord(pos, layerIdx, "post_norm", s.normed);
  trace.dump.layerRecord(pos, layerIdx, "ffn_mm", s.ffn);
  trace.dump.layerRecord(pos, layerIdx, "layer_out", s.x);
}

void layerStep(Model& m, size_t layerIdx, size_t pos, Scratch& s, Trace* trace) {
  Layer& layer = m.layers[layerIdx];
  attentionStep(m, layerIdx, pos, s);
  if (trace != nullptr && trace->prints) {
    printLayerNorms(layerIdx, layer.isLinear, s.x, s.attn);
  }
  add(s.x, s.attn, s.residual);
  rmsNorm(s.residual.data(), floats(layer.postAttnNorm), s.normed.data(), m.nEmbd, kNormEps);
  ffnStep(m.nEmbd, layer, s.normed.data(), s.ffn.data());
  if (trace != nullptr && trace->prints) {
    printFfnNorm(s.ffn);
  }
  add(s.residual, s.ffn, s.x);
  if (trace != nullptr) {
    dumpLayer(*trace, pos, layerIdx, s);
  }
}

// Leaves the residual stream in s.x, before the final norm.
void runLayers(Model& m, const float* emb, size_t pos, Scratch& s, Trace* trace) {
  s.x.assign(emb, emb + m.nEmbd);
  for (std::vector<float>* v : {&s.attn, &s.residual, &s.normed, &s.ffn}) {
    v->resize(m.nEmbd);
  }
  for (size_t l = 0; l < m.nLayer; ++l) {
    layerStep(m, l, pos, s, trace);
  }
}

}  // namespace

void ffnStep(size_t nEmbd, Layer& layer, const float* xn, float* out) {
  Model unused;  // gemvRow takes a model and does not read it
  Scratch& s = threadScratch();
  const size_t width = rowCount(*layer.ffnGate);
  s.gate.assign(width, 0.0f);
  s.up.assign(width, 0.0f);
  gemvRow(unused, layer.ffnGate, xn, s.gate.data());
  gemvRow(unused, layer.ffnUp, xn, s.up.data());
#pragma omp parallel
  {
    const RowRange part = rowsOfThisThread(width);
    silu(s.gate.data() + part.begin, s.gate.data() + part.begin, part.end - part.begin);
    for (size_t i = part.begin; i < part.end; ++i) {
      s.gate[i] *= s.up[i];
    }
  }
  std::fill_n(out, nEmbd, 0.0f);
  gemvRow(unused, layer.ffnDown, s.gate.data(), out);
}

void forwardToken(Model& m, const float* emb, size_t pos, float* logits) {
  Trace trace{pos == 0 && diagnosticSet("QWEN35_DBG"), {}};
  Scratch& s = threadScratch();
  runLayers(m, emb, pos, s, &trace);
  if (trace.prints) {
    printPassNorms({emb, m.nEmbd}, s.x);
  }
  trace.dump.record(pos, "result_norm", s.x);
  rmsNorm(s.x.data(), floats(m.outputNorm), s.x.data(), m.nEmbd, kNormEps);
  outputHead(m.tokEmbd, s.x.data(), logits);
}

void forwardTokenHidden(Model& m, const float* emb, size_t pos, float* out) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  Scratch& s = threadScratch();
  const DecodedRowSums asInBlocks;
  runLayers(m, emb, pos, s, nullptr);
  rmsNorm(s.x.data(), floats(m.outputNorm), s.x.data(), m.nEmbd, kNormEps);
  std::copy(s.x.begin(), s.x.end(), out);
  if (diagnosticSet("QWEN35_TIMING")) {
    printHiddenTiming(pos, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
}

}  // namespace qwen35
