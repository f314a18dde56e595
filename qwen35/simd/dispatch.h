// The choice of a kernel table: the one that ZYM_CPU names, else the widest that this machine runs
// (instruction_sets.h).
#pragma once

#include <vector>

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

// The table in use. Chosen once, on first use; a name in ZYM_CPU that cannot be had is then told of
// on standard error. Any thread.
const KernelTable& kernels();

// Every table that this machine can run, the scalar one first and the preferred one last.
std::vector<const KernelTable*> supportedKernels();

}  // namespace qwen35
