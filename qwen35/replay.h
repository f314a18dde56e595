// What the linear-attention layers of a pass read, so that tokens of it can be taken back without
// reading a weight again.
//
// Their recurrent state cannot be rolled back. But it can be set to what it was before the pass (a
// Snapshot) and be advanced once more by the projections of the tokens that stay.
#pragma once

#include <cstddef>
#include <vector>

#include "qwen35/model.h"

namespace qwen35 {

class Context;
class Snapshot;

class Replay {
 public:
  // Projections of the tokens of a pass; empty for full attention.
  struct LayerInputs {
    StateBuffer qkv;    // [tokens][convChannels]
    StateBuffer beta;   // [tokens][ssmHeads]
    StateBuffer alpha;  // [tokens][ssmHeads]
  };

  // Room for passes of up to maxTokens over m. Throws std::bad_alloc.
  Replay(const Model& m, size_t maxTokens);

  // To be filled while a pass goes through the layer (PassRequest::replay).
  LayerInputs& layer(size_t layerIdx) { return layers[layerIdx]; }

 private:
  std::vector<LayerInputs> layers;
};

// Leaves of the last pass over m its first `count` tokens, at least one: the model is as after a
// pass of those alone. `before` and `replay` are what the pass filled; diagnostics are not looked
// at.
void keepTokens(Context& context, Model& m, const Snapshot& before, Replay& replay, size_t count);

}  // namespace qwen35
