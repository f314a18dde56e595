// The rules of the arithmetic as plain scalar loops, each rounding where the rule has one. Tests
// compare the product with them bit for bit.
//
// The exponential is that of the scalar kernels, which exponential_test.cpp holds to its
// definition.
//
// The order in which a row's products are added is left open by the rules, so the matrices here are
// OneHotRows: a row has a single weight, and its product with a vector is one multiplication in any
// order.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "qwen35/simd/dispatch.h"
#include "tests/support/hand_tensors.h"

namespace scalar_rules {

constexpr float kEps = 1e-6f;

inline double sumOfSquares(const float* x, size_t n) {
  double sum = 0.0;
  for (size_t i = 0; i < n; ++i) {
    sum += static_cast<double>(x[i]) * static_cast<double>(x[i]);
  }
  return sum;
}

inline double norm(const std::vector<float>& x) {
  return std::sqrt(sumOfSquares(x.data(), x.size()));
}

inline std::vector<float> rmsNorm(const float* x, const float* w, size_t n, float eps = kEps) {
  const auto mean = static_cast<float>(sumOfSquares(x, n) / static_cast<double>(n));
  const float biased = mean + eps;
  const float inverse = 1.0f / std::sqrt(biased);
  std::vector<float> out(n);
  for (size_t i = 0; i < n; ++i) {
    const float scaled = inverse * x[i];
    out[i] = scaled * w[i];
  }
  return out;
}

inline std::vector<float> l2Norm(const float* x, size_t n, float eps = kEps) {
  const auto sum = static_cast<float>(sumOfSquares(x, n));
  const float biased = sum + eps;
  const float inverse = 1.0f / std::sqrt(biased);
  std::vector<float> out(n);
  for (size_t i = 0; i < n; ++i) {
    out[i] = x[i] * inverse;
  }
  return out;
}

inline float exponential(float x) {
  static const qwen35::KernelTable& scalar = *qwen35::supportedKernels().front();
  float out = 0.0f;
  scalar.exponentials(&x, 0.0f, &out, 1);
  return out;
}

// x / (1 + exp(-x)): one division, where x times the logistic function would round twice.
inline float silu(float x) {
  const float below = 1.0f + exponential(-x);
  return x / below;
}

inline float sigmoid(float x) {
  const float below = 1.0f + exponential(-x);
  return 1.0f / below;
}

// The logarithm is rounded once, from more than single precision.
inline float softplus(float x) {
  if (x > 20.0f) {
    return x;
  }
  return static_cast<float>(std::log1p(static_cast<double>(exponential(x))));
}

// Rotates the pairs (i, i + rotated / 2). The angle of a pair is that of the pair before times one
// ratio, in double; a power per pair would round differently.
inline void rotate(float* head, size_t rotated, uint64_t pos) {
  const double ratio = std::pow(10000000.0, -2.0 / static_cast<double>(rotated));
  auto angle = static_cast<double>(pos);
  for (size_t i = 0; i < rotated / 2; ++i) {
    const auto cosine = static_cast<float>(std::cos(angle));
    const auto sine = static_cast<float>(std::sin(angle));
    const float x0 = head[i];
    const float x1 = head[i + rotated / 2];
    const float sineOfSecond = sine * x1;
    const float cosineOfSecond = cosine * x1;
    head[i] = std::fma(cosine, x0, -sineOfSecond);
    head[i + rotated / 2] = std::fma(sine, x0, cosineOfSecond);
    angle *= ratio;
  }
}

// One update of a gated delta rule's state, [dim (key)][dim (value)], and its read-out into v.
inline void gatedDelta(float* state, const float* q, const float* k, float* v, float beta,
                       size_t dim, float g, float scale) {
  const float decay = exponential(g);
  for (size_t i = 0; i < dim * dim; ++i) {
    state[i] *= decay;
  }
  for (size_t j = 0; j < dim; ++j) {
    float read = 0.0f;
    for (size_t i = 0; i < dim; ++i) {
      read = std::fma(k[i], state[i * dim + j], read);
    }
    const float missing = v[j] - read;
    const float u = missing * beta;
    for (size_t i = 0; i < dim; ++i) {
      state[i * dim + j] = std::fma(k[i], u, state[i * dim + j]);
    }
    float sum = 0.0f;
    for (size_t i = 0; i < dim; ++i) {
      sum = std::fma(state[i * dim + j], q[i], sum);
    }
    v[j] = scale * sum;
  }
}

// A matrix with one weight in each row.
class OneHotRows {
 public:
  // column(r): where row r has its weight, which is drawn from [-bound, bound).
  OneHotRows(kel::test::HandTensors& tensors, size_t rows, size_t cols, float bound,
             const std::function<size_t(size_t)>& column) {
    for (size_t r = 0; r < rows; ++r) {
      columns.push_back(column(r));
      weights.push_back(bound * tensors.random());
    }
    view = tensors.matrix(rows, cols,
                          [&](size_t r, size_t c) { return c == columns[r] ? weights[r] : 0.0f; });
  }

  std::vector<float> times(const std::vector<float>& x) const {
    std::vector<float> y;
    for (size_t r = 0; r < weights.size(); ++r) {
      y.push_back(weights[r] * x[columns[r]]);
    }
    return y;
  }

  const kel::TensorView* view = nullptr;

 private:
  std::vector<size_t> columns;
  std::vector<float> weights;
};

// Zeroed state of a layer.
template <typename Buffer>
void allocate(Buffer& buffer, size_t n) {
  buffer = Buffer(n);
}

// Where two runs of floats first differ, any NaN being equal to any; empty when they do not.
template <typename Expected, typename Actual>
std::string firstDifference(const Expected& expected, const Actual& actual) {
  if (expected.size() != actual.size()) {
    return std::to_string(expected.size()) + " floats expected, " + std::to_string(actual.size()) +
           " there";
  }
  for (size_t i = 0; i < expected.size(); ++i) {
    const float e = expected[i];
    const float a = actual[i];
    if (e != a && !(std::isnan(e) && std::isnan(a))) {
      char text[96];
      std::snprintf(text, sizeof text, "at %zu: %a expected, %a there", i, static_cast<double>(e),
                    static_cast<double>(a));
      return text;
    }
  }
  return "";
}

}  // namespace scalar_rules
