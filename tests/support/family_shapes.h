// The shapes of the family's sizes, and some that none of them has.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "container/model_shape.h"

namespace kel::test {

struct NamedShape {
  std::string name;
  ModelShape shape;
};

// GoogleTest's name of one, which would be its bytes otherwise.
inline void PrintTo(const NamedShape& shape, std::ostream* out) {
  *out << shape.name;
}

inline ModelShape familyShape(uint32_t layers, uint64_t queryHeads, uint64_t kvHeads,
                              uint64_t valueHeads, bool ownOutput) {
  ModelShape shape = kFixedShape;
  shape.layers = layers;
  shape.fullLayers = LayerSet::every(4, layers);
  shape.queryHeads = queryHeads;
  shape.kvHeads = kvHeads;
  shape.linearValueHeads = valueHeads;
  shape.contextLength = 262144;
  shape.normEps = static_cast<double>(1e-6F);  // as metadata hold it
  shape.ownOutput = ownOutput;
  return shape;
}

// The 2B has the heads of the 0.8B and differs in hidden size and feed-forward width alone.
inline std::vector<NamedShape> familyShapes() {
  return {{"08B", familyShape(24, 8, 2, 16, false)},
          {"4B", familyShape(32, 16, 4, 32, false)},
          {"9B", familyShape(32, 16, 4, 32, true)},
          {"27B", familyShape(64, 24, 4, 48, true)}};
}

// Nothing is a power of two, no extent equals another, and layers of full attention are unevenly
// spaced.
inline ModelShape oddShape() {
  ModelShape shape = kFixedShape;
  shape.layers = 5;
  shape.fullLayers = {};
  shape.fullLayers.add(1);
  shape.fullLayers.add(2);
  shape.queryHeads = 6;
  shape.kvHeads = 2;
  shape.headDim = 40;
  shape.ropeDim = 12;
  shape.ropeBase = 10000.0;
  shape.linearKeyHeads = 3;
  shape.linearValueHeads = 9;
  shape.linearKeyDim = 24;
  shape.linearValueDim = 20;
  shape.convTaps = 3;
  shape.normEps = 0x1p-10;
  shape.contextLength = 300;
  return shape;
}

}  // namespace kel::test
