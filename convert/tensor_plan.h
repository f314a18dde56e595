// Which tensors a container will hold, from which source tensor each comes, and how it is stored.
#pragma once

#include <string>
#include <vector>

#include "container/status.h"
#include "convert/convert.h"
#include "convert/model_layout.h"
#include "convert/source_model.h"
#include "quant/quant_type.h"

namespace kel::convert {

struct PlannedTensor {
  TensorSpec spec;
  const SourceTensor* source = nullptr;  // into the SourceModel
  QuantType stored = QuantType::F32;
  bool copied = false;  // the stored blocks are the source's, if perhaps in another order
  std::string reason;   // why it is stored so; empty when it is kept
  uint64_t storedBytes = 0;
};

struct TensorPlan {
  std::vector<PlannedTensor> tensors;  // in the order of modelTensors()
  ModelSizes sizes;
  std::vector<std::string> remarks;
};

// Checks the source's tensors for completeness and shape, and decides. Refuses a tensor that has no
// place in the container, and types that cannot be decoded. Output head and prediction layer have
// been decided on (output_head.h, prediction_layer.h).
Status planTensors(const SourceModel& source, const StorageChoice& storage, TensorPlan& out);

}  // namespace kel::convert
