// Kernel tables that only tests run.
#pragma once

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

// The lane-generic kernels over plain loops, in the shapes that they have for instruction sets
// (NEON has that of AVX2), and with tiles and headers in numbers that divide nothing evenly.
const KernelTable& emulatedAvx2Kernels();
const KernelTable& emulatedAvx512Kernels();
const KernelTable& emulatedOddKernels();

// The kernels of AVX-VNNI in the encoding of AVX-512, only where ZYM_HAVE_AVXVNNI_EVEX is defined.
const KernelTable& avxVnniKernelsInEvex();

}  // namespace qwen35
