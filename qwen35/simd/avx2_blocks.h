// Products of several rows with several inputs for AVX2, for the table in kernels_avx2.cpp alone.
#pragma once

#include <cstddef>

namespace qwen35::avx2 {

void addChunkProducts(const float* rows, const float* inputs, float* parts, size_t nRows,
                      size_t nInputs, size_t len);
void foldSums(const float* sums, float* out, size_t n);
void decodeQ80(const void* src, float* dst, size_t n);
void decodeQ4K(const void* src, float* dst, size_t n);
void decodeQ5K(const void* src, float* dst, size_t n);

}  // namespace qwen35::avx2
