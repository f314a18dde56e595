// Row sums of several rows and several inputs for AVX2. See kernels_avx2.cpp for what this file may
// include.
#include "qwen35/simd/avx2_blocks.h"

#include <immintrin.h>

#include "qwen35/simd/kernel_table.h"

namespace qwen35::avx2 {

namespace {

static_assert(kLanes == 8, "one register holds the lanes of a row sum");

// Twelve chains, three inputs and a row element fill the registers; each load serves three or four
// multiply-adds.
constexpr size_t kRowsAtOnce = 4;
constexpr size_t kInputsAtOnce = 3;

// The chains of R rows and P inputs. parts: those of the first row and input; rows of parts are
// partStride floats apart.
template <size_t R, size_t P>
void addTile(const float* rows, const float* inputs, float* parts, size_t partStride, size_t len) {
  __m256 chain[R][P];
  for (size_t r = 0; r < R; ++r) {
    for (size_t p = 0; p < P; ++p) {
      chain[r][p] = _mm256_setzero_ps();
    }
  }
  for (size_t i = 0; i < len; i += kLanes) {
    __m256 input[P];
    for (size_t p = 0; p < P; ++p) {
      input[p] = _mm256_loadu_ps(inputs + p * kChunk + i);
    }
    for (size_t r = 0; r < R; ++r) {
      const __m256 row = _mm256_loadu_ps(rows + r * kChunk + i);
      for (size_t p = 0; p < P; ++p) {
        chain[r][p] = _mm256_fmadd_ps(row, input[p], chain[r][p]);
      }
    }
  }
  for (size_t r = 0; r < R; ++r) {
    for (size_t p = 0; p < P; ++p) {
      float* part = parts + r * partStride + p * kLanes;
      _mm256_storeu_ps(part, _mm256_add_ps(_mm256_loadu_ps(part), chain[r][p]));
    }
  }
}

// All rows with P inputs.
template <size_t P>
void addRows(const float* rows, const float* inputs, float* parts, size_t partStride, size_t nRows,
             size_t len) {
  size_t r = 0;
  for (; nRows - r >= kRowsAtOnce; r += kRowsAtOnce) {
    addTile<kRowsAtOnce, P>(rows + r * kChunk, inputs, parts + r * partStride, partStride, len);
  }
  for (; r < nRows; ++r) {
    addTile<1, P>(rows + r * kChunk, inputs, parts + r * partStride, partStride, len);
  }
}

}  // namespace

void addChunkProducts(const float* rows, const float* inputs, float* parts, size_t nRows,
                      size_t nInputs, size_t len) {
  const size_t partStride = nInputs * kLanes;
  size_t p = 0;
  for (; nInputs - p >= kInputsAtOnce; p += kInputsAtOnce) {
    addRows<kInputsAtOnce>(rows, inputs + p * kChunk, parts + p * kLanes, partStride, nRows, len);
  }
  if (nInputs - p == 2) {
    addRows<2>(rows, inputs + p * kChunk, parts + p * kLanes, partStride, nRows, len);
  } else if (nInputs - p == 1) {
    addRows<1>(rows, inputs + p * kChunk, parts + p * kLanes, partStride, nRows, len);
  }
}

void foldSums(const float* sums, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const __m256 total = _mm256_loadu_ps(sums + i * kLanes);
    const __m128 four = _mm_add_ps(_mm256_castps256_ps128(total), _mm256_extractf128_ps(total, 1));
    const __m128 two = _mm_add_ps(four, _mm_movehl_ps(four, four));
    out[i] = _mm_cvtss_f32(_mm_add_ss(two, _mm_movehdup_ps(two)));
  }
}

}  // namespace qwen35::avx2
