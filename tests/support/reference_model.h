// An independent account of the model in double precision, from the mathematical definition:
// softmax attention with grouped heads and partial rotary embedding, the gated delta rule, RMS
// norm, SwiGLU. It shares nothing with the product but the reading of tensor records; block formats
// are decoded here, from their documented layouts.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

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
  Vector ssmState;   // [32][128 (key)][128 (value)]
  Vector convState;  // [8192][3], oldest first
  Vector keys;       // [4][tokens][256]
  Vector values;     // [4][tokens][256]
};

struct ReferenceRun {
  std::vector<ReferenceLayer> layers;
  Vectors result;  // before the final norm
  Vectors logits;
};

// Feeds the tokens at positions 0, 1, ... and records everything.
ReferenceRun runReference(const kel::ZYMLoader& loader, const std::vector<size_t>& tokens);

}  // namespace kel::test
