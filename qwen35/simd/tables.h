// The tables of the instruction-set files, for dispatch.cpp alone: the others ask kernels().
#pragma once

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

const KernelTable& scalarKernels();

// Each only where ZYM_HAVE_ with its name is defined.
const KernelTable& avx2Kernels();
const KernelTable& avxVnniKernels();
const KernelTable& avx512Kernels();
const KernelTable& neonKernels();

}  // namespace qwen35
