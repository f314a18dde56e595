#include "qwen35/model.h"

#include <algorithm>

#include "qwen35/products.h"

namespace qwen35 {

namespace {

// Positions are filled from 0 on, so what was written is a prefix of each head's rows.
void clearCache(const Model& m, const Layer& layer, StateBuffer& cache) {
  for (size_t g = 0; g < m.nHeadKv; ++g) {
    std::fill_n(cache.data() + g * m.maxCtx * m.headDim, layer.written * m.headDim, 0.0f);
  }
}

void resetLayer(const Model& m, Layer& layer) {
  layer.pos = 0;
  if (layer.written == 0) {
    return;
  }
  if (layer.isLinear) {
    std::fill(layer.ssmState.begin(), layer.ssmState.end(), 0.0f);
    std::fill(layer.convState.begin(), layer.convState.end(), 0.0f);
  } else {
    clearCache(m, layer, layer.kCache);
    clearCache(m, layer, layer.vCache);
  }
  layer.written = 0;
}

}  // namespace

void resetModel(Model& m) {
  // The recurrent state of all layers is 50 MB: clearing it takes as long as memory takes to write.
#pragma omp parallel for schedule(static)
  for (size_t l = 0; l < m.layers.size(); ++l) {
    resetLayer(m, m.layers[l]);
  }
}

void embedRow(Model& m, size_t token, float* out) {
  const size_t n = m.nEmbd;
  if (m.embBuf.size() < n) {
    m.embBuf.resize(n);
  }
  const kel::TensorView& table = *m.tokEmbd;
  const auto* rows = static_cast<const uint8_t*>(table.data);
  decodeRow(table.type, rows + token * rowBytes(table.type, n), m.embBuf.data(), n);
  std::copy_n(m.embBuf.data(), n, out);
}

}  // namespace qwen35
