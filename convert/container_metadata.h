// What a container says of its model and of how it was made. docs/container.md lists the keys.
#pragma once

#include "container/tokenizer_data.h"
#include "container/zym2_writer.h"
#include "convert/convert.h"
#include "convert/source_model.h"
#include "convert/tensor_plan.h"

namespace kel::convert {

// The model as `ConvertSummary` and others describe it: everything a conversion knows before the
// first tensor is written. Depends on source and options alone.
void addMetadata(const SourceModel& source, const TensorPlan& plan, const TokenizerData& tokenizer,
                 const ConvertOptions& options, const ConvertSummary& summary, ZYM2Writer& writer);

}  // namespace kel::convert
