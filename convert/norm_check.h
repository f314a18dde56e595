// Whether the norm weights of a source follow the convention that the source should have.
#pragma once

#include <vector>

#include "container/status.h"
#include "convert/source_model.h"
#include "convert/tensor_plan.h"

namespace kel::convert {

// A model whose norms are shifted twice, or not at all, runs and talks fluent nonsense, so the
// weights are looked at: over the input norms of all layers, the runtime's weights have a mean well
// above 0.5, and weights stored less 1 lie about 0, on both sides.
Status checkNorms(const std::vector<PlannedTensor>& plan, const SourceModel& source);

}  // namespace kel::convert
