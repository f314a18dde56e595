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
// What makes a tensor fit: container/model_fit.h. m must have been bound from loader, by initLayers
// and bindModel.
std::string findUnfitTensor(const kel::ZYMLoader& loader, const Model& m);

}  // namespace qwen35
