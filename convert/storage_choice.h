// The stored type of a matrix.
#pragma once

#include <cstdint>
#include <string>

#include "container/model_tensors.h"
#include "convert/convert.h"
#include "convert/source_type.h"

namespace kel::convert {

struct MatrixToStore {
  TensorRole role = TensorRole::Embedding;
  SourceType source = SourceType::F32;
  uint64_t cols = 0;
  bool blocksSplit = false;  // reordering moves parts of the source's blocks: they cannot be copied
};

struct Storage {
  QuantType type = QuantType::F32;
  std::string reason;  // empty: the source's own type
};

Storage chooseStorage(const MatrixToStore& matrix, const StorageChoice& choice);

}  // namespace kel::convert
