// Small single-precision functions of the forward pass: norms, activations, bfloat16, dot product.
//
// Plain sequential functions: any thread, no allocation, no errors. Elementwise functions may be
// called with out equal to x. The matrix products are in qwen35/matmul.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "quant/bfloat16.h"

namespace qwen35 {

// Sum of a[i] * b[i], n floats each, in single precision.
//
// n a multiple of 8: the order of additions is that of KernelTable (qwen35/simd/kernel_table.h).
// Otherwise the products are added to one running sum in index order, each rounded before it is
// added, except that the last n mod 16 are added with fused multiply-adds.
float dotF32(const float* a, const float* b, size_t n);

// Root-mean-square norm of one row: out[i] = (inv * x[i]) * w[i], inv = 1 / sqrt(mean(x^2) + eps).
// "Root Mean Square Layer Normalization" (2019), eq. 4, with eps added under the root.
//
// x, w, out: n floats. The squares are summed in double in index order and divided by n in double;
// all that follows is single precision. w multiplies as stored, without "1 +".
void rmsNorm(const float* x, const float* w, float* out, size_t n, float eps);

// Scales each of nBlocks consecutive blocks of blockLen floats to unit length:
// out = x * inv, inv = 1 / sqrt(sum(x^2) + eps). The squares are summed in double in index order.
void l2NormBlocks(const float* x, float* out, size_t nBlocks, size_t blockLen, float eps);

// The exponential of KernelTable, of one value.
float exponential(float x);

// log(1 + x) for finite x >= 0, computed in double precision to 2^-50 of the result and rounded
// once: the same bits everywhere, which the C library's does not promise. A NaN gives a NaN. The
// series is that of 2 artanh(f / (2 + f)), Abramowitz and Stegun, "Handbook of Mathematical
// Functions", 4.1.27.
float logOnePlus(float x);

// All exponentials below are that one, and every other operation rounds to single precision.

// out[i] = x[i] / (1 + exp(-x[i])).
void silu(const float* x, float* out, size_t n);

// out[i] = 1 / (1 + exp(-x[i])).
void sigmoid(const float* x, float* out, size_t n);

// out[i] = logOnePlus(exp(x[i])), or x[i] itself above 20, where the two agree to single precision
// and the exponential would overflow later.
void softplus(const float* x, float* out, size_t n);

// Between bfloat16 and float (quant/bfloat16.h).
inline float bf16ToF32(uint16_t h) {
  return kel::quant::bf16ToF32(h);
}
inline uint16_t f32ToBf16(float f) {
  return kel::quant::f32ToBf16(f);
}

}  // namespace qwen35
