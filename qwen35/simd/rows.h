// Products of rows with one input, in floats: the dot products of kernel_table.h, lane-generic.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qwen35/simd/kernel_table.h"
#include "qwen35/simd/lanes.h"

namespace qwen35 {

namespace {

// Rows multiplied side by side: each has one chain of dependent additions, and four of them hide
// the latency of the multiply-add.
inline constexpr size_t kRowsAtOnce = 4;

// A row format says how one block of each of R rows is multiplied with the block's inputs and
// added to the rows' chains. The first row's block is at `first`, the others follow `stride` bytes
// apart.

template <typename V>
struct F32 {
  static constexpr size_t kBytes = 4;

  static typename V::F eight(const uint8_t* at) { return V::loadF32(at); }
  static float one(const uint8_t* at) {
    float value;
    std::memcpy(&value, at, sizeof value);
    return value;
  }
};

template <typename V>
struct Bf16 {
  static constexpr size_t kBytes = 2;

  static typename V::F eight(const uint8_t* at) { return V::loadBf16(at); }
  static float one(const uint8_t* at) {
    uint16_t half;
    std::memcpy(&half, at, sizeof half);
    const uint32_t bits = static_cast<uint32_t>(half) << 16;
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }
};

// Rows of elements by themselves.
template <typename V, typename Element>
struct PlainRows {
  static constexpr size_t kBlockLen = kLanes;
  static constexpr size_t kBlockBytes = kLanes * Element::kBytes;

  template <size_t R>
  static void addBlock(const uint8_t* first, size_t stride, const float* x,
                       typename V::F (&chain)[R]) {
    const typename V::F input = V::load(x);
    for (size_t r = 0; r < R; ++r) {
      chain[r] = V::fma(Element::eight(first + r * stride), input, chain[r]);
    }
  }
};

template <typename V>
struct Q80Rows {
  static constexpr size_t kBlockLen = 32;
  static constexpr size_t kBlockBytes = 34;

  template <size_t R>
  static void addBlock(const uint8_t* first, size_t stride, const float* x,
                       typename V::F (&chain)[R]) {
#pragma GCC unroll 4
    for (size_t r = 0; r < R; ++r) {
      const uint8_t* block = first + r * stride;
      const typename V::F scale = V::all(V::loadHalf(block));
      for (size_t i = 0; i < kBlockLen; i += kLanes) {
        const typename V::F weights = V::mul(V::loadSignedBytes(block + 2 + i), scale);
        chain[r] = V::fma(weights, V::load(x + i), chain[r]);
      }
    }
  }
};

template <typename V, size_t R>
void setZero(typename V::F (&sums)[R]) {
  for (size_t r = 0; r < R; ++r) {
    sums[r] = V::zero();
  }
}

template <typename V, size_t R>
void addTo(typename V::F (&sums)[R], const typename V::F (&finished)[R]) {
  for (size_t r = 0; r < R; ++r) {
    sums[r] = V::add(sums[r], finished[r]);
  }
}

// Asks for the same block of the next R rows: rows are short, and the processor's own prefetching
// starts anew at each of the R streams.
template <typename V, typename Rows, size_t R>
void prefetchNextRows(const uint8_t* first, size_t stride) {
  for (size_t r = 0; r < R; ++r) {
    const uintptr_t block = reinterpret_cast<uintptr_t>(first) + (R + r) * stride;
    for (size_t line = 0; line < Rows::kBlockBytes; line += kLineBytes) {
      V::prefetch(block + line);
    }
  }
}

inline size_t endOfGroup(size_t begin, size_t groupLen, size_t end) {
  return end - begin > groupLen ? begin + groupLen : end;
}

// The dot products of R rows, cols a multiple of the block length.
template <typename V, typename Rows, size_t R>
void dotProducts(const uint8_t* first, size_t stride, const float* x, float* out, size_t cols) {
  typename V::F total[R];
  setZero<V>(total);
  for (size_t i = 0; i < cols;) {
    const size_t spanEnd = endOfGroup(i, kSpan, cols);
    typename V::F part[R];
    setZero<V>(part);
    while (i < spanEnd) {
      const size_t chunkEnd = endOfGroup(i, kChunk, spanEnd);
      typename V::F chain[R];
      setZero<V>(chain);
      for (; i < chunkEnd; i += Rows::kBlockLen, first += Rows::kBlockBytes) {
        prefetchNextRows<V, Rows, R>(first, stride);
        Rows::template addBlock<R>(first, stride, x + i, chain);
      }
      addTo<V>(part, chain);
    }
    addTo<V>(total, part);
  }
  for (size_t r = 0; r < R; ++r) {
    out[r] = V::fold(total[r]);
  }
}

template <typename V, typename Rows>
void blockRows(const void* weights, const float* x, float* out, size_t rows, size_t cols) {
  const auto* row = static_cast<const uint8_t*>(weights);
  const size_t stride = cols / Rows::kBlockLen * Rows::kBlockBytes;
  size_t r = 0;
  for (; rows - r >= kRowsAtOnce; r += kRowsAtOnce, row += kRowsAtOnce * stride) {
    dotProducts<V, Rows, kRowsAtOnce>(row, stride, x, out + r, cols);
  }
  for (; r < rows; ++r, row += stride) {
    dotProducts<V, Rows, 1>(row, stride, x, out + r, cols);
  }
}

// The running sum for lengths that are no multiple of the lanes.
template <typename Element>
float runningSum(const uint8_t* row, const float* x, size_t n) {
  const size_t plain = n - n % 16;
  float sum = 0.0f;
  for (size_t i = 0; i < plain; ++i) {
    sum += Element::one(row + i * Element::kBytes) * x[i];
  }
  for (size_t i = plain; i < n; ++i) {
    sum = __builtin_fmaf(Element::one(row + i * Element::kBytes), x[i], sum);
  }
  return sum;
}

template <typename V, typename Element>
void plainRows(const void* weights, const float* x, float* out, size_t rows, size_t cols) {
  if (cols % kLanes == 0) {
    blockRows<V, PlainRows<V, Element>>(weights, x, out, rows, cols);
    return;
  }
  const auto* row = static_cast<const uint8_t*>(weights);
  for (size_t r = 0; r < rows; ++r, row += cols * Element::kBytes) {
    out[r] = runningSum<Element>(row, x, cols);
  }
}

template <typename V>
float dot(const float* a, const float* b, size_t n) {
  float sum;
  plainRows<V, F32<V>>(a, b, &sum, 1, n);
  return sum;
}

}  // namespace

}  // namespace qwen35
