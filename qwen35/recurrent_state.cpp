#include "qwen35/recurrent_state.h"

#include <algorithm>

namespace qwen35 {

void RecurrentState::save(const Model& m) {
  layers.resize(m.layers.size());
  for (size_t l = 0; l < layers.size(); ++l) {
    const Layer& layer = m.layers[l];
    layers[l].ssm.assign(layer.ssmState.begin(), layer.ssmState.end());
    layers[l].conv.assign(layer.convState.begin(), layer.convState.end());
    layers[l].pos = layer.pos;
    layers[l].written = layer.written;
  }
}

void RecurrentState::restore(Model& m) const {
  for (size_t l = 0; l < layers.size(); ++l) {
    Layer& layer = m.layers[l];
    std::copy(layers[l].ssm.begin(), layers[l].ssm.end(), layer.ssmState.begin());
    std::copy(layers[l].conv.begin(), layers[l].conv.end(), layer.convState.begin());
    layer.pos = layers[l].pos;
    // Cache rows written since then still have to be cleared by a reset.
    layer.written = layer.isLinear ? layers[l].written : std::max(layer.written, layer.pos);
  }
}

}  // namespace qwen35
