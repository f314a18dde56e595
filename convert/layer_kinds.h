// Which layers of a source are of full attention, from whatever in its description says so.
#pragma once

#include <cstdint>
#include <string>

#include "container/model_shape.h"
#include "container/status.h"

namespace kel::convert {

// Sources say it in several ways at once: by an interval, by a list of kinds, by the heads of each
// layer. Where they disagree, none can be trusted.
class LayerKinds {
 public:
  explicit LayerKinds(uint32_t nLayers) : layers(nLayers) {}

  // What one field says. Unsupported, with the layer and both fields, when an earlier one says
  // otherwise.
  Status state(const std::string& field, const LayerSet& full);
  // Every interval-th layer; interval must be at least 1 and can be a layer's number.
  Status stateInterval(const std::string& field, uint64_t interval);

  // Unsupported when no field says anything; example: one that could.
  Status get(const std::string& example, LayerSet& out) const;

 private:
  uint32_t layers;
  LayerSet stated;
  std::string statedBy;  // empty: nothing yet
};

}  // namespace kel::convert
