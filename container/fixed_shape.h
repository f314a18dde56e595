// What the plugin interface, which reads no metadata and takes every model to be of kFixedShape,
// would compute differently.
#pragma once

#include <string>

#include "container/model_shape.h"

namespace kel {

// The first number of the shape that is not that of kFixedShape: "models of 32 layers, not of 24".
// Empty when they compute the same but for the output head. Which layers are of which kind is told
// by tensors there too, and a longer context is only left unused, so neither counts; numbers that
// metadata hold in single precision are compared in it.
std::string differenceFromFixed(const ModelShape& shape);

}  // namespace kel
