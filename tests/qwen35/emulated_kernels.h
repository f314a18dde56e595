// The lane-generic kernels over plain loops, in the shapes that they have for instruction sets
// (NEON has that of AVX2) and in one that no instruction set has.
#pragma once

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

const KernelTable& emulatedAvx2Kernels();
const KernelTable& emulatedAvx512Kernels();

// Tiles and headers in numbers that divide nothing evenly.
const KernelTable& emulatedOddKernels();

}  // namespace qwen35
