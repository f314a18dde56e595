// Which field of a layer holds which tensor.
#pragma once

#include "container/model_tensors.h"
#include "qwen35/model.h"

namespace qwen35 {

// role: of a tensor that layers have.
const kel::TensorView*& layerTensor(Layer& layer, kel::TensorRole role);

}  // namespace qwen35
