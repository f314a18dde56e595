// The kernel tables that tests compare with the scalar one.
#pragma once

#include <vector>

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

// supportedKernels(), the scalar one first, then the emulated ones, and that of AVX-VNNI in the
// encoding of AVX-512 where the processor has it.
const std::vector<const KernelTable*>& testedTables();

}  // namespace qwen35
