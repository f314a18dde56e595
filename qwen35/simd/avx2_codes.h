// The coded products for AVX2, for the table in kernels_avx2.cpp alone.
#pragma once

#include <cstddef>

#include "qwen35/simd/coded_input.h"

namespace qwen35::avx2 {

void codedRowsQ4K(const void* weights, const CodedInput* x, float* out, size_t rows, size_t cols);
void codedRowsQ5K(const void* weights, const CodedInput* x, float* out, size_t rows, size_t cols);
bool codeInput(const float* x, size_t cols, CodedInput* groups);

}  // namespace qwen35::avx2
