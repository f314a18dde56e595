// Whether a bound model can be run without reading or writing out of bounds.
//
// Binding takes any tensor that has the right name, so that a file can be opened and looked at
// whatever its contents. Kernels then trust shapes, types and sizes; this check is what makes that
// trust sound. It looks at the tensor records alone, never at tensor bytes, and is made once.
#pragma once

#include <string>

#include "container/zym_loader.h"
#include "qwen35/model.h"

namespace qwen35 {

// Empty when the model can be run. Otherwise the first tensor at fault, in binding order after the
// model-level ones, and what is wrong with it, for example "blk.3.attn_q.weight: has 4096 rows,
// needs 8192".
//
// Every tensor lies inside the weight section and covers its rows. Matrices are F32, BF16, Q8_0,
// Q4_K or Q5_K with rows of whole blocks, of the fixed shape or the file's hidden size; the
// feed-forward width is ffn_gate's. Vectors are F32 with enough elements. F32 and BF16 data are
// aligned to their elements. Biases are looked at where attn_q.bias exists, and then all three must
// be there. m must have been bound from loader, by initLayers and bindModel.
std::string findUnfitTensor(const kel::ZYMLoader& loader, const Model& m);

}  // namespace qwen35
