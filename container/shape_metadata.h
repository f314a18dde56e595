// The shape of a model as metadata: what a container says of itself, under the keys that model
// files of the family use. docs/container.md lists them.
#pragma once

#include <string>
#include <vector>

#include "container/model_shape.h"
#include "container/model_tensors.h"
#include "container/status.h"
#include "container/zym2_reader.h"
#include "container/zym_loader.h"

namespace kel {

class ZYM2Writer;

// What the metadata of a container state. Sizes are 0 where they state none.
struct StatedShape {
  ModelShape shape = kFixedShape;
  ModelSizes sizes;
  // Layers of multi-token prediction behind those of the shape; counted in block_count.
  uint32_t predictionLayers = 0;
  bool isStated = false;  // otherwise the shape is kFixedShape
};

// Reads it. Without any of the keys: kFixedShape. With one, all that have no default must be there,
// each in its type, and agree with the others; a fault names the key and the number. Whether the
// model has an output head of its own is told by the tensor output.weight, not by a key, and looked
// at here; no other tensor is.
Status readShape(const ZYM2Reader& reader, StatedShape& out);

// Why no model can have this shape; empty when one can: heads share their keys evenly, extents are
// positive and small enough that products of them fit 64 bits, and what is rotated is even and not
// wider than the head.
std::string shapeFault(const ModelShape& shape);

// Writes it, to be read back as it is but for ownOutput, which no key tells, and for rounding to
// single precision of the rotary base and the epsilon. vocab is not written: the token list and the
// embedding tell it. The shape must have no fault. In the library of the writer.
void writeShape(ZYM2Writer& writer, const ModelShape& shape, const ModelSizes& sizes,
                uint32_t predictionLayers);

// Numbers of the metadata that the tensors contradict, a sentence each without a full stop:
// "qwen35.embedding_length is 64, but token_embd.weight has rows of 32". Shapes that the model's
// fit names anyway (container/model_fit.h) are not repeated.
std::vector<std::string> findContradictions(const ZYMLoader& loader, const StatedShape& stated);

}  // namespace kel
