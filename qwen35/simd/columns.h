// Kernels whose columns are independent: weighted sums of rows and the gated delta rule,
// lane-generic.
#pragma once

#include <cstddef>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"

namespace qwen35 {

namespace {

// Adds rows to kVectors * V::kFloats columns of acc, which stay in registers meanwhile.
template <typename V, size_t kVectors>
void addWeightedColumns(const float* weights, float inverseSum, const float* values, size_t stride,
                        float* acc, size_t rows) {
  typename V::F sum[kVectors];
#pragma GCC unroll 8
  for (size_t c = 0; c < kVectors; ++c) {
    sum[c] = V::load(acc + c * V::kFloats);
  }
  for (size_t p = 0; p < rows; ++p, values += stride) {
    const typename V::F weight = V::all(weights[p] * inverseSum);
#pragma GCC unroll 8
    for (size_t c = 0; c < kVectors; ++c) {
      sum[c] = V::add(sum[c], V::mul(weight, V::load(values + c * V::kFloats)));
    }
  }
#pragma GCC unroll 8
  for (size_t c = 0; c < kVectors; ++c) {
    V::store(acc + c * V::kFloats, sum[c]);
  }
}

template <typename V>
void addWeightedRows(const float* weights, float inverseSum, const float* values, size_t stride,
                     float* acc, size_t rows, size_t n) {
  using H = typename V::Half;
  constexpr size_t kWide = 8 / V::kGroups;
  constexpr size_t kRowsPerTile = 16;  // their values are read once from memory, then from cache
  for (size_t p = 0; p < rows; p += kRowsPerTile) {
    const size_t count = rows - p < kRowsPerTile ? rows - p : kRowsPerTile;
    const float* tile = values + p * stride;
    size_t d = 0;
    for (; n - d >= kWide * V::kFloats; d += kWide * V::kFloats) {
      addWeightedColumns<V, kWide>(weights + p, inverseSum, tile + d, stride, acc + d, count);
    }
    for (; n - d >= H::kFloats; d += H::kFloats) {
      addWeightedColumns<H, 1>(weights + p, inverseSum, tile + d, stride, acc + d, count);
    }
    for (; d < n; ++d) {
      for (size_t row = 0; row < count; ++row) {
        acc[d] += (weights[p + row] * inverseSum) * tile[row * stride + d];
      }
    }
  }
}

struct DeltaStep {
  const float* q;
  const float* k;
  size_t keyDim;
  size_t valueDim;  // floats from one row of the state to the next
  float decay;
  float beta;
  float scale;
};

// kVectors * V::kFloats columns of the state. The first pass only reads: the second decays each
// element again, which costs less than storing it twice. The columns stay in L1 between the two.
template <typename V, size_t kVectors>
void deltaColumns(const DeltaStep& step, float* columns, float* v) {
  const typename V::F decay = V::all(step.decay);
  typename V::F kv[kVectors];
#pragma GCC unroll 4
  for (size_t c = 0; c < kVectors; ++c) {
    kv[c] = V::zero();
  }
  for (size_t i = 0; i < step.keyDim; ++i) {
    const typename V::F key = V::all(step.k[i]);
#pragma GCC unroll 4
    for (size_t c = 0; c < kVectors; ++c) {
      const typename V::F state = V::load(columns + i * step.valueDim + c * V::kFloats);
      kv[c] = V::fma(key, V::mul(state, decay), kv[c]);
    }
  }
  typename V::F u[kVectors];
  typename V::F o[kVectors];
#pragma GCC unroll 4
  for (size_t c = 0; c < kVectors; ++c) {
    u[c] = V::mul(V::sub(V::load(v + c * V::kFloats), kv[c]), V::all(step.beta));
    o[c] = V::zero();
  }
  for (size_t i = 0; i < step.keyDim; ++i) {
    const typename V::F key = V::all(step.k[i]);
    const typename V::F query = V::all(step.q[i]);
#pragma GCC unroll 4
    for (size_t c = 0; c < kVectors; ++c) {
      float* at = columns + i * step.valueDim + c * V::kFloats;
      const typename V::F state = V::fma(key, u[c], V::mul(V::load(at), decay));
      V::store(at, state);
      o[c] = V::fma(state, query, o[c]);
    }
  }
#pragma GCC unroll 4
  for (size_t c = 0; c < kVectors; ++c) {
    V::store(v + c * V::kFloats, V::mul(V::all(step.scale), o[c]));
  }
}

inline void deltaColumn(const DeltaStep& step, float* columns, float* v) {
  float kv = 0.0f;
  for (size_t i = 0; i < step.keyDim; ++i) {
    kv = __builtin_fmaf(step.k[i], columns[i * step.valueDim] * step.decay, kv);
  }
  const float u = (*v - kv) * step.beta;
  float o = 0.0f;
  for (size_t i = 0; i < step.keyDim; ++i) {
    columns[i * step.valueDim] =
        __builtin_fmaf(step.k[i], u, columns[i * step.valueDim] * step.decay);
    o = __builtin_fmaf(columns[i * step.valueDim], step.q[i], o);
  }
  *v = step.scale * o;
}

template <typename V>
void deltaStep(float* state, const float* q, const float* k, float* v, size_t keyDim,
               size_t valueDim, float decay, float beta, float scale) {
  using H = typename V::Half;
  constexpr size_t kWide = 4;
  const DeltaStep step{q, k, keyDim, valueDim, decay, beta, scale};
  size_t j = 0;
  for (; valueDim - j >= kWide * V::kFloats; j += kWide * V::kFloats) {
    deltaColumns<V, kWide>(step, state + j, v + j);
  }
  for (; valueDim - j >= H::kFloats; j += H::kFloats) {
    deltaColumns<H, 1>(step, state + j, v + j);
  }
  for (; j < valueDim; ++j) {
    deltaColumn(step, state + j, v + j);
  }
}

}  // namespace

}  // namespace qwen35
