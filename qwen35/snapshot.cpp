#include "qwen35/snapshot.h"

#include <algorithm>

namespace qwen35 {

void Snapshot::save(const Model& m) {
  layers.resize(m.layers.size());
  for (size_t l = 0; l < layers.size(); ++l) {
    const Layer& layer = m.layers[l];
    layers[l].ssm.assign(layer.ssmState.begin(), layer.ssmState.end());
    layers[l].conv.assign(layer.convState.begin(), layer.convState.end());
    layers[l].pos = layer.pos;
  }
}

void Snapshot::restore(Model& m) const {
  for (size_t l = 0; l < layers.size(); ++l) {
    Layer& layer = m.layers[l];
    std::copy(layers[l].ssm.begin(), layers[l].ssm.end(), layer.ssmState.begin());
    std::copy(layers[l].conv.begin(), layers[l].conv.end(), layer.convState.begin());
    layer.pos = layers[l].pos;
  }
}

}  // namespace qwen35
