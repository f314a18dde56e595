// All rows of one planned tensor in order, converted by several threads a stretch at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "container/status.h"
#include "convert/source_model.h"
#include "convert/tensor_plan.h"

namespace kel::convert {

// Receives stored bytes in order, with the number of source bytes that they stand for. A status
// that is not ok ends the stream.
using StoredBytesSink = std::function<Status(const uint8_t* data, size_t nBytes, uint64_t nSource)>;

// Memory: a stretch of some megabytes and two rows of floats a thread. The bytes do not depend on
// the number of threads. Unsupported, with the tensor and the row, when a value cannot be (not
// finite, also where bytes are copied; a decay not negative; too large for the stored type).
Status streamTensor(const PlannedTensor& plan, const SourceModel& source, unsigned threads,
                    const StoredBytesSink& sink);

}  // namespace kel::convert
