// The shape of a model from the metadata of its GGUF file.
#pragma once

#include "container/model_shape.h"
#include "container/status.h"
#include "convert/gguf_reader.h"

namespace kel::convert {

// Every number must be there but those that files may leave out: the number of prediction layers,
// and all but one of what tells the kinds of layers. Files count a prediction layer among the
// blocks or do not, and may lack it where they count it: its tensors decide. Names the first key
// that is missing, is of another kind, or contradicts another.
Status readGgufShape(const GgufFile& file, ModelShape& out);

}  // namespace kel::convert
