// An independent account of the model in double precision, from the mathematical definition:
// softmax attention with grouped heads and partial rotary embedding, the gated delta rule, RMS
// norm, SwiGLU. It shares nothing with the product but the reading of tensor records; block formats
// are decoded here, from their documented layouts.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "container/model_shape.h"
#include "container/zym_loader.h"

namespace kel::test {

using Vector = std::vector<double>;
using Vectors = std::vector<Vector>;  // one per token

struct ReferenceLayer {
  Vectors attn;
  Vectors residual;
  Vectors normed;
  Vectors ffn;
  Vectors out;
  // State after the last token; the pair of the layer's kind is filled.
  Vector ssmState;   // [value heads][key dim][value dim]
  Vector convState;  // [channels][taps - 1], oldest first
  Vector keys;       // [kv heads][tokens][head dim]
  Vector values;     // the same
};

struct ReferenceRun {
  std::vector<ReferenceLayer> layers;
  Vectors result;  // before the final norm
  Vectors logits;
};

// Feeds the tokens at positions 0, 1, ... and records everything.
ReferenceRun runReference(const kel::ZYMLoader& loader, const std::vector<size_t>& tokens,
                          const kel::ModelShape& shape = kel::kFixedShape);

}  // namespace kel::test
