#include "qwen35/snapshot.h"

#include <algorithm>

namespace qwen35 {

size_t Snapshot::bytes(const Model& m) {
  size_t nFloats = 0;
  for (const Layer& layer : m.layers) {
    nFloats += layer.ssmState.size() + layer.convState.size();
  }
  return nFloats * sizeof(float);
}

Snapshot::Snapshot(const Model& m) : layers(m.layers.size()) {
  for (size_t l = 0; l < layers.size(); ++l) {
    layers[l].ssm = StateBuffer(m.layers[l].ssmState.size());
    layers[l].conv = StateBuffer(m.layers[l].convState.size());
  }
}

void Snapshot::take(const Model& m) {
#pragma omp parallel for schedule(static) num_threads(stateThreads())
  for (size_t l = 0; l < layers.size(); ++l) {
    const Layer& layer = m.layers[l];
    LayerState& saved = layers[l];
    saved.pos = layer.pos;
    saved.taken = layer.isLinear;
    std::copy(layer.ssmState.begin(), layer.ssmState.end(), saved.ssm.begin());
    std::copy(layer.convState.begin(), layer.convState.end(), saved.conv.begin());
  }
}

void Snapshot::restore(Model& m) const {
#pragma omp parallel for schedule(static) num_threads(stateThreads())
  for (size_t l = 0; l < layers.size(); ++l) {
    const LayerState& saved = layers[l];
    Layer& layer = m.layers[l];
    layer.pos = saved.pos;
    if (saved.taken) {
      std::copy(saved.ssm.begin(), saved.ssm.end(), layer.ssmState.begin());
      std::copy(saved.conv.begin(), saved.conv.end(), layer.convState.begin());
    }
  }
}

}  // namespace qwen35
