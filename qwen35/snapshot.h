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
  // Copies the recurrent state of every layer, about 50 MB, into memory that is kept between calls.
  // Throws std::bad_alloc, and then holds nothing to go back to.
  void save(const Model& m);

  // Takes the model that was saved back to that state.
  void restore(Model& m) const;

 private:
  struct LayerState {
    std::vector<float> ssm;
    std::vector<float> conv;
    uint64_t pos = 0;
  };
  std::vector<LayerState> layers;
};

}  // namespace qwen35
