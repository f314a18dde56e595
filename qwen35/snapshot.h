// A copy of what a forward pass overwrites, to go back to.
//
// The caches of full attention need no copy: going back to a position makes the rows from there on
// free again.
#pragma once

#include <vector>

#include "qwen35/model.h"

namespace qwen35 {

class Snapshot {
 public:
  // The recurrent state of one layer; empty buffers for full attention.
  struct LayerState {
    StateBuffer ssm;   // as Layer::ssmState
    StateBuffer conv;  // as Layer::convState
    uint64_t pos = 0;
    bool taken = false;
  };

  // Room for the recurrent state of m, about 50 MB, which is taken from the system as it is filled.
  // Throws std::bad_alloc.
  explicit Snapshot(const Model& m);

  // What one takes of memory once it is filled.
  static size_t bytes(const Model& m);

  // To be filled while a pass goes through the layer (PassRequest::before).
  LayerState& layer(size_t layerIdx) { return layers[layerIdx]; }

  // Fills it with the state of m as it is, between two passes.
  void take(const Model& m);

  // Takes the model back to where it was then, or before the pass that filled this.
  void restore(Model& m) const;

 private:
  std::vector<LayerState> layers;
};

}  // namespace qwen35
