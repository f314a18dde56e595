#include "qwen35/block_products.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>

#include "qwen35/kernels.h"
#include "qwen35/products.h"
#include "qwen35/simd/dispatch.h"

namespace qwen35 {

namespace {

// Rows that are decoded and multiplied together: their chunk fits half of the first cache.
constexpr size_t kTileRows = 16;

// Rows whose sums are built up together: a chunk of the inputs is read once for all of them and
// stays, with their parts, in the second cache.
constexpr size_t kGroupRows = 64;

struct TileScratch {
  AlignedFloats rows;       // [kTileRows][kChunk], decoded
  AlignedFloats parts;      // [rows][inputs][kLanes]
  AlignedFloats totals;     // the same; rows longer than one span
  std::vector<float> sums;  // [rows][inputs]
};

// One per thread of the team. Made ready by the calling thread: nothing may be thrown inside a
// parallel region.
std::vector<TileScratch>& tileScratch(const BlockInputs& inputs) {
  static thread_local std::vector<TileScratch> perThread;
  perThread.resize(static_cast<size_t>(omp_get_max_threads()));
  const size_t sums = kGroupRows * inputs.count();
  for (TileScratch& s : perThread) {
    s.rows.resize(std::max(kTileRows * kChunk, inputs.cols()));
    s.parts.reserve(sums * kLanes);
    s.totals.reserve(inputs.cols() > kSpan ? sums * kLanes : 0);
    s.sums.reserve(sums);
  }
  return perThread;
}

void addAndClear(AlignedFloats& totals, AlignedFloats& parts) {
  for (size_t i = 0; i < parts.size(); ++i) {
    totals[i] += parts[i];
    parts[i] = 0.0f;
  }
}

// One matrix, taken apart.
struct Matrix {
  const uint8_t* data;
  kel::QuantType type;
  size_t rows;
  size_t stride;      // bytes from row to row
  size_t chunkBytes;  // bytes from chunk to chunk
};

// Decodes `len` elements of each of `count` rows, from element `at` on, and adds their products
// with every input to parts.
void addTile(const Matrix& weights, size_t firstRow, size_t count, size_t at, size_t len,
             const BlockInputs& inputs, AlignedFloats& decoded, float* parts) {
  const uint8_t* chunk =
      weights.data + firstRow * weights.stride + at / kChunk * weights.chunkBytes;
  for (size_t r = 0; r < count; ++r, chunk += weights.stride) {
    decodeRow(weights.type, chunk, decoded.data() + r * kChunk, len);
  }
  kernels().addChunkProducts(decoded.data(), inputs.chunk(at), parts, count, inputs.count(), len);
}

// The row sums of `count` consecutive rows with every input, into s.sums.
void sumGroup(const Matrix& weights, size_t firstRow, size_t count, const BlockInputs& inputs,
              TileScratch& s) {
  const size_t cols = inputs.cols();
  const size_t rowParts = inputs.count() * kLanes;
  s.parts.assign(count * rowParts, 0.0f);
  const bool severalSpans = cols > kSpan;
  s.totals.assign(severalSpans ? s.parts.size() : 0, 0.0f);
  for (size_t at = 0; at < cols; at += kChunk) {
    const size_t len = std::min(kChunk, cols - at);
    for (size_t r = 0; r < count; r += kTileRows) {
      addTile(weights, firstRow + r, std::min(kTileRows, count - r), at, len, inputs, s.rows,
              s.parts.data() + r * rowParts);
    }
    if (severalSpans && ((at + len) % kSpan == 0 || at + len == cols)) {
      addAndClear(s.totals, s.parts);
    }
  }
  s.sums.resize(count * inputs.count());
  kernels().foldSums(severalSpans ? s.totals.data() : s.parts.data(), s.sums.data(), s.sums.size());
}

void multiplyRange(const Matrix& weights, RowRange range, const BlockInputs& inputs, TileScratch& s,
                   float* y) {
  for (size_t r = range.begin; r < range.end; r += kGroupRows) {
    const size_t count = std::min(kGroupRows, range.end - r);
    sumGroup(weights, r, count, inputs, s);
    for (size_t p = 0; p < inputs.count(); ++p) {
      for (size_t i = 0; i < count; ++i) {
        y[p * weights.rows + r + i] = 0.0f + s.sums[i * inputs.count() + p];
      }
    }
  }
}

// Row by row, for lengths that the lanes do not divide.
void multiplyRangeByRows(const Matrix& weights, RowRange range, const BlockInputs& inputs,
                         TileScratch& s, float* y) {
  for (size_t r = range.begin; r < range.end; ++r) {
    decodeRow(weights.type, weights.data + r * weights.stride, s.rows.data(), inputs.cols());
    for (size_t i = 0; i < inputs.count(); ++i) {
      y[i * weights.rows + r] = 0.0f + dotF32(s.rows.data(), inputs.input(i), inputs.cols());
    }
  }
}

}  // namespace

void BlockInputs::assign(const float* x, size_t count, size_t cols) {
  source = x;
  nInputs = count;
  nCols = cols;
  const size_t chunks = cols % kLanes == 0 ? (cols + kChunk - 1) / kChunk : 0;
  packed.resize(std::max(packed.size(), chunks * kChunk * count));
  for (size_t c = 0; c < chunks; ++c) {
    const size_t at = c * kChunk;
    for (size_t i = 0; i < count; ++i) {
      std::copy_n(input(i) + at, std::min(kChunk, cols - at),
                  packed.data() + at * count + i * kChunk);
    }
  }
}

void multiplyBlock(const kel::TensorView& weights, const BlockInputs& inputs, float* y) {
  const size_t cols = inputs.cols();
  const Matrix matrix{static_cast<const uint8_t*>(weights.data), weights.type, rowCount(weights),
                      rowBytes(weights.type, cols), rowBytes(weights.type, kChunk)};
  const auto multiply = cols % kLanes == 0 ? multiplyRange : multiplyRangeByRows;
  std::vector<TileScratch>& scratch = tileScratch(inputs);
#pragma omp parallel
  {
    const auto t = static_cast<size_t>(omp_get_thread_num());
    multiply(matrix, rowsOfThisThread(matrix.rows), inputs, scratch[t], y);
  }
}

}  // namespace qwen35
