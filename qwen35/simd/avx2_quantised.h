// The quantised dot products for AVX2, for the table in kernels_avx2.cpp alone.
#pragma once

#include <cstddef>

#include "qwen35/simd/quantised_input.h"

namespace qwen35::avx2 {

void quantisedRowsQ4K(const void* weights, const QuantisedInput* x, float* out, size_t rows,
                      size_t cols);
void quantisedRowsQ5K(const void* weights, const QuantisedInput* x, float* out, size_t rows,
                      size_t cols);
bool quantiseInput(const float* x, size_t cols, QuantisedInput* groups);

}  // namespace qwen35::avx2
