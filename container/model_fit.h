// Whether the tensors of a file can be used as a model of a given shape.
//
// Looks at tensor records alone, never at tensor bytes. The runtime asks before it trusts shapes
// and sizes, the program's check asks on behalf of the runtime: both get the same answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "container/model_shape.h"
#include "container/zym_loader.h"

namespace kel {

struct ModelFault {
  std::string tensor;
  std::string what;         // "has 4096 rows, needs 8192"
  bool isOfBounds = false;  // of where the data lie and end, not of type or shape
};

// At most one fault per tensor, in binding order after those of the model.
//
// A layer is linear attention where it has ssm_out.weight, its feed-forward width is that of
// ffn_gate.weight, and biases count where attn_q.bias exists: then all three must be there.
// output.weight counts where the shape says that the model has its own. Rows of
// a matrix are F32, BF16, Q8_0, Q4_K or Q5_K, of whole blocks, and covered by the tensor's bytes,
// which lie in the weight section. A vector is read as floats and may be longer than needed; of the
// record only its dimensions and place count, so neither label nor byte size is looked at. Any
// address will do for either. Where the embedding is no table, nothing else is looked at; where it
// is missing, only whether the others exist.
std::vector<ModelFault> findModelFaults(const ZYMLoader& loader, const ModelShape& shape);

// Product of the first rank dimensions; none when it overflows.
std::optional<uint64_t> elementCount(const uint64_t* dims, size_t rank);

}  // namespace kel
