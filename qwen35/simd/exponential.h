// The exponential of kernel_table.h and the kernels made of it, lane-generic.
#pragma once

#include <cstddef>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"

namespace qwen35 {

namespace {

template <typename V>
typename V::F exponential(typename V::F x) {
  // Adding it leaves an integer in the low bits of a double, in two's complement.
  constexpr double kRounder = 0x1.8p52;
  constexpr double kLog2E = 0x1.71547652b82fep0;
  constexpr double kLn2 = 0x1.62e42fefa39efp-1;
  constexpr double kTaylor[] = {1.0 / 5040, 1.0 / 720, 1.0 / 120, 1.0 / 24, 1.0 / 6, 0.5, 1.0, 1.0};

  const auto d = V::toDouble(V::atMost(V::all(100.0f), V::atLeast(V::all(-110.0f), x)));
  const auto t = V::fmaD(d, V::allD(kLog2E), V::allD(kRounder));
  const auto k = V::subD(t, V::allD(kRounder));
  const auto r = V::fmaD(k, V::allD(-kLn2), d);
  auto p = V::allD(1.0 / 40320);
  for (const double coefficient : kTaylor) {
    p = V::fmaD(p, r, V::allD(coefficient));
  }
  // The low bits of a NaN that was a float are zero: it stays one.
  return V::toFloat(V::addExponent(p, t));
}

// x / (1 + exp(-gates)).
template <typename V>
typename V::F sigmoidGated(typename V::F x, typename V::F gates) {
  const auto exponentials = exponential<V>(V::sub(V::all(0.0f), gates));
  return V::div(x, V::add(V::all(1.0f), exponentials));
}

// out[i] = function(a[i], b[i]), a vector at a time. out may be a or b.
template <typename V, typename Function>
void elementwise(const float* a, const float* b, float* out, size_t n, const Function& function) {
  size_t i = 0;
  for (; n - i >= V::kFloats; i += V::kFloats) {
    V::store(out + i, function(V::load(a + i), V::load(b + i)));
  }
  if (i == n) {
    return;
  }
  float lastA[V::kFloats] = {};
  float lastB[V::kFloats] = {};
  for (size_t lane = 0; lane < n - i; ++lane) {
    lastA[lane] = a[i + lane];
    lastB[lane] = b[i + lane];
  }
  V::store(lastA, function(V::load(lastA), V::load(lastB)));
  for (size_t lane = 0; lane < n - i; ++lane) {
    out[i + lane] = lastA[lane];
  }
}

template <typename V>
void exponentials(const float* x, float shift, float* out, size_t n) {
  using F = typename V::F;
  elementwise<V>(x, x, out, n,
                 [&](F value, F) { return exponential<V>(V::sub(value, V::all(shift))); });
}

template <typename V>
void sigmoidGate(const float* x, const float* gates, float* out, size_t n) {
  using F = typename V::F;
  elementwise<V>(x, gates, out, n, [](F value, F gate) { return sigmoidGated<V>(value, gate); });
}

template <typename V>
void siluGate(const float* x, const float* gates, float* out, size_t n) {
  using F = typename V::F;
  elementwise<V>(x, gates, out, n,
                 [](F value, F gate) { return V::mul(value, sigmoidGated<V>(gate, gate)); });
}

}  // namespace

}  // namespace qwen35
