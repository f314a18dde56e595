#include "qwen35/forward_block.h"

#include <algorithm>
#include <vector>

#include "qwen35/block_products.h"
#include "qwen35/full_attention.h"
#include "qwen35/kernels.h"
#include "qwen35/linear_attention.h"
#include "qwen35/products.h"

namespace qwen35 {

namespace {

struct Scratch {
  std::vector<float> x;         // [count][nEmbd] the residual stream
  std::vector<float> attn;      // [count][nEmbd]
  std::vector<float> residual;  // [count][nEmbd]
  std::vector<float> normed;    // [count][nEmbd]
  std::vector<float> ffn;       // [count][nEmbd]
  std::vector<float> gate;      // [count][feed-forward width]
  std::vector<float> up;        // [count][feed-forward width]
  BlockInputs inputs;
};

Scratch& threadScratch() {
  static thread_local Scratch scratch;
  return scratch;
}

// The feed-forward block of every row of s.normed into s.ffn.
void ffnBlock(const Layer& layer, size_t nEmbd, size_t count, Scratch& s) {
  const size_t width = rowCount(*layer.ffnGate);
  s.gate.resize(count * width);
  s.up.resize(count * width);
  s.inputs.assign(s.normed.data(), count, nEmbd);
  multiplyBlock(*layer.ffnGate, s.inputs, s.gate.data());
  multiplyBlock(*layer.ffnUp, s.inputs, s.up.data());
#pragma omp parallel for schedule(static)
  for (size_t i = 0; i < count; ++i) {
    float* gate = s.gate.data() + i * width;
    const float* up = s.up.data() + i * width;
    silu(gate, gate, width);
    for (size_t j = 0; j < width; ++j) {
      gate[j] *= up[j];
    }
  }
  s.inputs.assign(s.gate.data(), count, width);
  multiplyBlock(*layer.ffnDown, s.inputs, s.ffn.data());
}

void layerBlock(Model& m, Layer& layer, size_t count, size_t pos, Scratch& s) {
  if (layer.isLinear) {
    linearAttnBlock(m, layer, s.x.data(), s.attn.data(), count);
  } else {
    fullAttnBlock(m, layer, s.x.data(), s.attn.data(), count, pos);
  }
  for (size_t j = 0; j < count * m.nEmbd; ++j) {
    s.residual[j] = s.x[j] + s.attn[j];
  }
  rmsNormRows(s.residual.data(), floats(layer.postAttnNorm), s.normed.data(), count, m.nEmbd,
              kNormEps);
  ffnBlock(layer, m.nEmbd, count, s);
  for (size_t j = 0; j < count * m.nEmbd; ++j) {
    s.x[j] = s.residual[j] + s.ffn[j];
  }
}

}  // namespace

void forwardBlock(Model& m, const float* emb, size_t count, size_t pos, float* out) {
  Scratch& s = threadScratch();
  s.x.assign(emb, emb + count * m.nEmbd);
  for (std::vector<float>* v : {&s.attn, &s.residual, &s.normed, &s.ffn}) {
    v->resize(count * m.nEmbd);
  }
  for (Layer& layer : m.layers) {
    layerBlock(m, layer, count, pos, s);
  }
  rmsNormRows(s.x.data(), floats(m.outputNorm), out, count, m.nEmbd, kNormEps);
}

}  // namespace qwen35
