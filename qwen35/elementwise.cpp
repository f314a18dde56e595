#include "qwen35/elementwise.h"

#include <algorithm>
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

float exponential(float x) {
  float out;
  kernels().exponentials(&x, 0.0f, &out, 1);
  return out;
}

float logOnePlus(float x) {
  constexpr double kLn2 = 0x1.62e42fefa39efp-1;
  constexpr double kSqrtHalf = 0x1.6a09e667f3bcdp-1;
  // 1 + x = (1 + f) * 2^k with f from sqrt(1/2) - 1 to sqrt(2) - 1. Where k is 0, x itself is f: 1
  // + x would lose the digits of a small x.
  double f = x;
  int k = 0;
  if (!(f < 0.41)) {
    double fraction = std::frexp(1.0 + f, &k);
    if (fraction < kSqrtHalf) {
      fraction *= 2.0;
      --k;
    }
    f = fraction - 1.0;
  }
  // log(1 + f) = 2 (s + s^3/3 + s^5/5 + ...), |s| < 0.172: what is left out is below 2^-60.
  const double s = f / (2.0 + f);
  const double square = s * s;
  double series = 0.0;
  for (int n = 21; n > 0; n -= 2) {
    series = series * square + 1.0 / n;
  }
  return static_cast<float>(k * kLn2 + 2.0 * s * series);
}

void silu(const float* x, float* out, size_t n) {
  kernels().sigmoidGate(x, x, out, n);
}

void sigmoid(const float* x, float* out, size_t n) {
  constexpr size_t kRun = 64;
  float ones[kRun];
  std::fill_n(ones, kRun, 1.0f);
  for (size_t i = 0; i < n; i += kRun) {
    kernels().sigmoidGate(ones, x + i, out + i, std::min(kRun, n - i));
  }
}

void softplus(const float* x, float* out, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    out[i] = x[i] > 20.0f ? x[i] : logOnePlus(exponential(x[i]));
  }
}

}  // namespace qwen35
