// Vectors whose bytes start where no float may: read as floats, they have to be copied first.
//
// The writer aligns every tensor, but no file has to, and matrices are read at any address.
#pragma once

#include "qwen35/model.h"

namespace qwen35 {

// Gives every bound vector and every set of convolution taps at such an address a copy of what the
// forward pass reads of it, owned by the model, and binds that instead. All others stay in the
// file. m has passed findUnfitTensor. Throws std::bad_alloc.
void alignVectors(Model& m);

}  // namespace qwen35
