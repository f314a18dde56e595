// The choice of a kernel table: the widest one that this processor runs.
#pragma once

#include <vector>

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

// The table in use. The processor is asked once, on first use. Any thread.
const KernelTable& kernels();

// Every table that this machine can run, the scalar one first and the preferred one last.
std::vector<const KernelTable*> supportedKernels();

}  // namespace qwen35
