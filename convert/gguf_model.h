// A GGUF file as a model: which metadata it must have, and what its tensors are called.
#pragma once

#include "container/status.h"
#include "convert/gguf_reader.h"
#include "convert/source_model.h"

namespace kel::convert {

// Fills everything but the files and the name where the metadata have none. file: what file was
// parsed from stays mapped while out is used.
Status readGgufModel(const GgufFile& file, SourceModel& out);

}  // namespace kel::convert
