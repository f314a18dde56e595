#include "qwen35/model.h"

#include <omp.h>

#include <algorithm>
#include <cstring>

#include "qwen35/simd/dispatch.h"
#include "qwen35/weights.h"

namespace qwen35 {

int stateThreads() {
  constexpr int kEnough = 8;
  return std::min(omp_get_max_threads(), kEnough);
}

void resetModel(Model& m) {
  // The recurrent state, 50 MB in all, is filled: the next token writes all of it, and pages that
  // were given back would have to be fetched for that one by one.
#pragma omp parallel for schedule(static) num_threads(stateThreads())
  for (size_t l = 0; l < m.layers.size(); ++l) {
    Layer& layer = m.layers[l];
    layer.pos = 0;
    layer.ssmState.fillWithZeros();
    layer.convState.fillWithZeros();
    layer.kCache.clear();
    layer.vCache.clear();
  }
}

void copyCacheRows(const Model& from, Model& to, size_t begin, size_t end) {
  const size_t rowBytes = from.headDim * cacheElementBytes(from.cacheType);
#pragma omp parallel for schedule(static) num_threads(stateThreads())
  for (size_t l = 0; l < from.layers.size(); ++l) {
    const Layer& source = from.layers[l];
    Layer& target = to.layers[l];
    for (size_t g = 0; !source.isLinear && g < from.nHeadKv; ++g) {
      const auto copy = [&](const StateBuffer& rows, StateBuffer& out) {
        std::memcpy(
            reinterpret_cast<uint8_t*>(out.data()) + (g * to.maxCtx + begin) * rowBytes,
            reinterpret_cast<const uint8_t*>(rows.data()) + (g * from.maxCtx + begin) * rowBytes,
            (end - begin) * rowBytes);
      };
      copy(source.kCache, target.kCache);
      copy(source.vCache, target.vCache);
    }
  }
}

void copyState(const Model& from, Model& to) {
#pragma omp parallel for schedule(static) num_threads(stateThreads())
  for (size_t l = 0; l < from.layers.size(); ++l) {
    const Layer& source = from.layers[l];
    Layer& target = to.layers[l];
    target.pos = source.pos;
    std::copy(source.ssmState.begin(), source.ssmState.end(), target.ssmState.begin());
    std::copy(source.convState.begin(), source.convState.end(), target.convState.begin());
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
