// The tables of the instruction-set files, for dispatch.cpp alone: the others ask kernels(). Each
// but the scalar one is there where its ZYM_HAVE_ macro is defined, and serves machines that
// supportedInstructionSets() finds fit for it.
#pragma once

#include "qwen35/simd/kernel_table.h"

namespace qwen35 {

const KernelTable& scalarKernels();
const KernelTable& avx2Kernels();     // ZYM_HAVE_AVX2: AVX2, FMA and F16C
const KernelTable& avxVnniKernels();  // ZYM_HAVE_AVXVNNI: those and AVX-VNNI
const KernelTable& avx512Kernels();   // ZYM_HAVE_AVX512: AVX-512 F, BW, VL, DQ and VNNI, and AVX2's
const KernelTable& neonKernels();     // ZYM_HAVE_NEON: Advanced SIMD with dot products

}  // namespace qwen35
