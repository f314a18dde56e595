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

// Checks the source's tensors for completeness and shape, and decides. Refuses a tensor that has no
// place in the container, an output head that is not the embedding, and types that cannot be
// decoded. out is in the order of modelTensors(). Comparing an output head with the embedding reads
// gigabytes: fails when progress is cancelled meanwhile.
Status planTensors(const SourceModel& source, const StorageChoice& storage, ProgressSink& progress,
                   std::vector<PlannedTensor>& out);

}  // namespace kel::convert
