#include "qwen35/model.h"

#include <algorithm>

#include "qwen35/simd/dispatch.h"
#include "qwen35/weights.h"

namespace qwen35 {

void resetModel(Model& m) {
  for (Layer& layer : m.layers) {
    layer.pos = 0;
    for (StateBuffer* state : {&layer.ssmState, &layer.convState, &layer.kCache, &layer.vCache}) {
      state->clear();
    }
  }
}

void embedRow(Model& m, size_t token, float* out) {
  const size_t n = m.nEmbd;
  if (m.embBuf.size() < n) {
    m.embBuf.resize(n);
  }
  const kel::TensorView& table = *m.tokEmbd;
  const auto* rows = static_cast<const uint8_t*>(table.data);
  decodeRow(kernels(), table.type, rows + token * rowBytes(table.type, n), m.embBuf.data(), n);
  std::copy_n(m.embBuf.data(), n, out);
}

}  // namespace qwen35
