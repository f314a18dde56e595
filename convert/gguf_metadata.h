// Whether the metadata of a GGUF file describe a model that the runtime can run.
#pragma once

#include "container/status.h"
#include "convert/gguf_reader.h"

namespace kel::convert {

// Names the first key that does not fit, with its value and the one needed. Keys that are absent
// fit, but for the architecture: the tensors' shapes decide.
Status checkGgufMetadata(const GgufFile& file);

}  // namespace kel::convert
