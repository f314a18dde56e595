// Whether a model computes logits with the embedding, or with a head of its own.
#pragma once

#include "container/status.h"
#include "convert/convert.h"
#include "convert/source_model.h"

namespace kel::convert {

// Sets source.shape.ownOutput. A head whose values are those of the embedding, in whatever element
// types, is left out as tied; any other becomes the tensor output.weight. The tensors decide, since
// files are seen to state the wrong thing; where they state that head and embedding are not the
// same, there must be a head. Comparing reads gigabytes: fails when progress is cancelled
// meanwhile.
Status decideOutputHead(SourceModel& source, ProgressSink& progress);

}  // namespace kel::convert
