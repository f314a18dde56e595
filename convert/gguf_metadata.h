// Whether a GGUF file is a model of this family at all.
#pragma once

#include "container/status.h"
#include "convert/gguf_reader.h"

namespace kel::convert {

// Refuses other architectures, files that go with a model and are none, and a rotation that is
// scaled. The numbers are the business of gguf_shape.h.
Status checkGgufMetadata(const GgufFile& file);

}  // namespace kel::convert
