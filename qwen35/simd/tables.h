// The tables of the instruction-set files, for dispatch.cpp alone: the others ask kernels().
#pragma once

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

const KernelTable& scalarKernels();
const KernelTable& avx2Kernels();  // only where ZYM_HAVE_AVX2 is defined; needs AVX2, FMA and F16C

}  // namespace qwen35
