// Whether a tensor can be used as what it is expected to be, as the runtime decides it: more values
// than needed do no harm to a vector, rows may be spread over further dimensions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "container/tensor_view.h"
#include "host/inspect/expected_tensors.h"

namespace zym {

// Product of the first rank dimensions; none when it overflows.
std::optional<uint64_t> elementCount(const uint64_t* dims, size_t rank);
// Rows of a tensor: 1 for a vector; none when the number overflows.
std::optional<uint64_t> rowCount(const kel::TensorView& tensor);

// Every reason why the runtime cannot use it, for example "has shape 1 x 4096, needs 1 x 8192".
// Looks at the record alone, not at the bounds of its data.
std::vector<std::string> misfits(const ExpectedTensor& expected, const kel::TensorView& tensor);

}  // namespace zym
