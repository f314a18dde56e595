#include "qwen35/products.h"

#include <omp.h>

#include <algorithm>

#include "qwen35/elementwise.h"
#include "qwen35/simd/dispatch.h"
#include "qwen35/weights.h"

namespace qwen35 {

using kel::QuantType;

namespace {

// Calls body(t, rows of thread t) on every thread of the team that OpenMP grants.
template <typename Body>
void overRows(size_t rows, const Body& body) {
#pragma omp parallel
  {
    const auto t = static_cast<size_t>(omp_get_thread_num());
    body(t, threadRows(rows, static_cast<size_t>(omp_get_num_threads()), t));
  }
}

void addProduct(QuantType type, RowsProduct product, const void* weights, const float* x, float* y,
                size_t rows, size_t cols) {
  const size_t stride = rowBytes(type, cols);
  overRows(rows, [&](size_t, RowRange range) {
    const auto* row = static_cast<const uint8_t*>(weights) + range.begin * stride;
    for (size_t r = range.begin; r < range.end; ++r, row += stride) {
      float sum;
      product(row, x, &sum, 1, cols);
      y[r] += sum;
    }
  });
}

void fitScratch(ThreadRows& scratch, size_t cols) {
  const auto nThreads = static_cast<size_t>(omp_get_max_threads());
  if (scratch.size() != nThreads || scratch[0].size() < cols) {
    scratch.assign(nThreads, std::vector<float>(cols, 0.0f));
  }
}

// Calls take(r, dot product of row r decoded with x) for every row.
template <typename Take>
void decodedRows(const kel::TensorView& weights, const float* x, size_t rows, ThreadRows& scratch,
                 const Take& take) {
  const size_t cols = weights.dims[0];
  const size_t stride = rowBytes(weights.type, cols);
  fitScratch(scratch, cols);
  overRows(rows, [&](size_t t, RowRange range) {
    const auto* row = static_cast<const uint8_t*>(weights.data) + range.begin * stride;
    for (size_t r = range.begin; r < range.end; ++r, row += stride) {
      decodeRow(kernels(), weights.type, row, scratch[t].data(), cols);
      take(r, dotF32(scratch[t].data(), x, cols));
    }
  });
}

}  // namespace

RowRange threadRows(size_t rows, size_t nThreads, size_t t) {
  const size_t share = rows / nThreads;
  const size_t longer = rows % nThreads;
  const size_t begin = t * share + std::min(t, longer);
  return {begin, begin + share + (t < longer ? 1 : 0)};
}

void matvecF32Add(const float* weights, const float* x, float* y, size_t rows, size_t cols) {
  addProduct(QuantType::F32, kernels().rowsF32, weights, x, y, rows, cols);
}

void matvecBf16Add(const uint16_t* weights, const float* x, float* y, size_t rows, size_t cols) {
  addProduct(QuantType::BF16, kernels().rowsBf16, weights, x, y, rows, cols);
}

void gemvRow(Model& m, const kel::TensorView* weights, const float* x, float* y) {
  const size_t rows = rowCount(*weights);
  switch (weights->type) {
    case QuantType::F32:
      addProduct(QuantType::F32, kernels().rowsF32, weights->data, x, y, rows, weights->dims[0]);
      break;
    case QuantType::BF16:
      addProduct(QuantType::BF16, kernels().rowsBf16, weights->data, x, y, rows, weights->dims[0]);
      break;
    default:
      decodedRows(*weights, x, rows, m.gemvRows, [&](size_t r, float dot) { y[r] += dot; });
      break;
  }
}

void outputHead(Model& m, const float* x, float* logits) {
  decodedRows(*m.tokEmbd, x, m.tokEmbd->dims[1], m.headRows,
              [&](size_t r, float dot) { logits[r] = dot; });
}

}  // namespace qwen35
