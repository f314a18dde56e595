#include "qwen35/elementwise.h"

#include <cmath>

#include "qwen35/simd/dispatch.h"

namespace qwen35 {

namespace {

double sumOfSquares(const float* x, size_t n) {
  double sum = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const double value = x[i];
    sum += value * value;
  }
  return sum;
}

}  // namespace

float dotF32(const float* a, const float* b, size_t n) {
  return kernels().dot(a, b, n);
}

void rmsNorm(const float* x, const float* w, float* out, size_t n, float eps) {
  const auto mean = static_cast<float>(sumOfSquares(x, n) / static_cast<double>(n));
  const float inv = 1.0f / std::sqrt(mean + eps);
  for (size_t i = 0; i < n; ++i) {
    out[i] = (inv * x[i]) * w[i];
  }
}

void l2NormBlocks(const float* x, float* out, size_t nBlocks, size_t blockLen, float eps) {
  for (size_t block = 0; block < nBlocks; ++block, x += blockLen, out += blockLen) {
    const auto sum = static_cast<float>(sumOfSquares(x, blockLen));
    const float inv = 1.0f / std::sqrt(sum + eps);
    for (size_t i = 0; i < blockLen; ++i) {
      out[i] = x[i] * inv;
    }
  }
}

void silu(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = x[i] / (1.0f + std::exp(-x[i]));
  }
}

void sigmoid(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = 1.0f / (1.0f + std::exp(-x[i]));
  }
}

void softplus(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = x[i] > 20.0f ? x[i] : std::log1p(std::exp(x[i]));
  }
}

}  // namespace qwen35
