#include "qwen35/products.h"

#include <omp.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "quant/blocks.h"
#include "qwen35/kernels.h"
#include "qwen35/simd/dispatch.h"

namespace qwen35 {

using kel::QuantType;

namespace {

// Rows whose sums are held on the stack between the product and the addition to the output.
constexpr size_t kRowsPerPass = 64;

// One matrix with what it takes to multiply its rows. Both products are null where rows are decoded
// to scratch first: for a type that has no product, and for rows that end inside a block.
struct RowSource {
  const uint8_t* data;
  QuantType type;
  size_t cols;
  size_t stride;  // bytes
  RowsProduct product = nullptr;
  CodedRowsProduct codedProduct = nullptr;  // for an input that could be coded
};

void chooseProduct(RowSource& weights) {
  const KernelTable& table = kernels();
  switch (weights.type) {
    case QuantType::F32:
      weights.product = table.rowsF32;
      break;
    case QuantType::BF16:
      weights.product = table.rowsBf16;
      break;
    case QuantType::Q8_0:
      weights.product = weights.cols % kel::quant::kBlockLen == 0 ? table.rowsQ80 : nullptr;
      break;
    case QuantType::Q4_K:
      weights.codedProduct = table.rowsQ4K;
      break;
    case QuantType::Q5_K:
      weights.codedProduct = table.rowsQ5K;
      break;
    default:
      break;
  }
  if (weights.cols % kel::quant::kSuperBlockLen != 0) {
    weights.codedProduct = nullptr;
  }
}

RowSource rowSource(const void* data, QuantType type, size_t cols) {
  RowSource weights{static_cast<const uint8_t*>(data), type, cols, rowBytes(type, cols)};
  chooseProduct(weights);
  return weights;
}

// An input vector, coded as well where a matrix asks for it and the elements allow it.
struct Input {
  const float* x;
  const CodedInput* coded;
};

thread_local bool decodedRowSums = false;

// The coded form is kept by the calling thread until its next product.
Input inputFor(const RowSource& weights, const float* x) {
  if (weights.codedProduct == nullptr || decodedRowSums) {
    return {x, nullptr};
  }
  static thread_local std::vector<CodedInput> groups;
  groups.resize(std::max(groups.size(), codedGroups(weights.cols)));
  const bool finite = kernels().codeInput(x, weights.cols, groups.data());
  return {x, finite ? groups.data() : nullptr};
}

// sums[i] = row first + i times the input, for `count` rows; scratch: cols floats, used when rows
// have to be decoded.
void multiplyRows(const RowSource& weights, size_t first, size_t count, const Input& input,
                  float* sums, float* scratch) {
  const uint8_t* row = weights.data + first * weights.stride;
  if (weights.product != nullptr) {
    weights.product(row, input.x, sums, count, weights.cols);
    return;
  }
  if (input.coded != nullptr) {
    weights.codedProduct(row, input.coded, sums, count, weights.cols);
    return;
  }
  for (size_t i = 0; i < count; ++i, row += weights.stride) {
    decodeRow(weights.type, row, scratch, weights.cols);
    sums[i] = dotF32(scratch, input.x, weights.cols);
  }
}

void addProductOfRange(const RowSource& weights, RowRange range, const Input& input, float* y,
                       float* scratch) {
  float sums[kRowsPerPass];
  for (size_t r = range.begin; r < range.end; r += kRowsPerPass) {
    const size_t count = std::min(kRowsPerPass, range.end - r);
    multiplyRows(weights, r, count, input, sums, scratch);
    for (size_t i = 0; i < count; ++i) {
      y[r + i] += sums[i];
    }
  }
}

// Leaves the last row of the range in the scratch row, where a row by row product would have left
// it: a later product of a type that decodes nothing reads it.
void keepLastRow(const RowSource& weights, RowRange range, float* scratch) {
  if (range.begin < range.end) {
    decodeRow(weights.type, weights.data + (range.end - 1) * weights.stride, scratch, weights.cols);
  }
}

// Calls body(t, rows of thread t) on every thread of the team that OpenMP grants.
template <typename Body>
void overRows(size_t rows, const Body& body) {
#pragma omp parallel
  { body(static_cast<size_t>(omp_get_thread_num()), rowsOfThisThread(rows)); }
}

void addProduct(const RowSource& weights, const float* x, float* y, size_t rows) {
  const Input input{x, nullptr};
  overRows(rows, [&](size_t, RowRange range) {
    addProductOfRange(weights, range, input, y, /*scratch=*/nullptr);
  });
}

void fitScratch(ThreadRows& scratch, size_t cols) {
  const auto nThreads = static_cast<size_t>(omp_get_max_threads());
  if (scratch.size() != nThreads || scratch[0].size() < cols) {
    scratch.assign(nThreads, std::vector<float>(cols, 0.0f));
  }
}

// One set per calling thread, so that two models driven by two host threads do not meet. The
// threads of a team use the caller's set.
ThreadRows& gemvScratch() {
  static thread_local ThreadRows bufs;
  return bufs;
}

ThreadRows& headScratch() {
  static thread_local ThreadRows scrs;
  return scrs;
}

}  // namespace

size_t rowCount(const kel::TensorView& weights) {
  size_t rows = 1;
  for (size_t d = 1; d < std::min<size_t>(weights.rank, 4); ++d) {
    rows *= weights.dims[d];
  }
  return rows;
}

size_t rowBytes(QuantType type, size_t cols) {
  using namespace kel::quant;
  switch (type) {
    case QuantType::F32:
      return cols * sizeof(float);
    case QuantType::BF16:
      return cols * sizeof(uint16_t);
    case QuantType::Q8_0:
      return cols / kBlockLen * kQ80Bytes;
    case QuantType::Q4_K:
      return cols / kSuperBlockLen * kQ4KBytes;
    case QuantType::Q5_K:
      return cols / kSuperBlockLen * kQ5KBytes;
    default:
      return 0;
  }
}

void decodeRow(QuantType type, const void* row, float* dst, size_t n) {
  using namespace kel::quant;
  const KernelTable& table = kernels();
  const bool wholeBlocks = n % kBlockLen == 0;
  const bool wholeSuperBlocks = n % kSuperBlockLen == 0;
  switch (type) {
    case QuantType::F32:
      if (n > 0) {
        std::memcpy(dst, row, n * sizeof(float));
      }
      break;
    case QuantType::BF16:
      for (size_t i = 0; i < n; ++i) {
        uint16_t half;
        std::memcpy(&half, static_cast<const uint8_t*>(row) + i * sizeof half, sizeof half);
        dst[i] = bf16ToF32(half);
      }
      break;
    case QuantType::Q8_0:
      (wholeBlocks ? table.decodeQ80 : dequantQ80)(row, dst, n);
      break;
    case QuantType::Q4_K:
      (wholeSuperBlocks ? table.decodeQ4K : dequantQ4K)(row, dst, n);
      break;
    case QuantType::Q5_K:
      (wholeSuperBlocks ? table.decodeQ5K : dequantQ5K)(row, dst, n);
      break;
    default:
      break;
  }
}

RowRange threadRows(size_t rows, size_t nThreads, size_t t) {
  const size_t share = rows / nThreads;
  const size_t longer = rows % nThreads;
  const size_t begin = t * share + std::min(t, longer);
  return {begin, begin + share + (t < longer ? 1 : 0)};
}

RowRange rowsOfThisThread(size_t rows) {
  return threadRows(rows, static_cast<size_t>(omp_get_num_threads()),
                    static_cast<size_t>(omp_get_thread_num()));
}

void matvecF32Add(const float* weights, const float* x, float* y, size_t rows, size_t cols) {
  addProduct(rowSource(weights, QuantType::F32, cols), x, y, rows);
}

void matvecBf16Add(const uint16_t* weights, const float* x, float* y, size_t rows, size_t cols) {
  addProduct(rowSource(weights, QuantType::BF16, cols), x, y, rows);
}

void gemvRow(Model& /*m*/, const kel::TensorView* weights, const float* x, float* y) {
  const size_t rows = rowCount(*weights);
  const RowSource source = rowSource(weights->data, weights->type, weights->dims[0]);
  if (weights->type == QuantType::F32 || weights->type == QuantType::BF16) {
    addProduct(source, x, y, rows);
    return;
  }
  ThreadRows& bufs = gemvScratch();
  fitScratch(bufs, source.cols);
  const Input input = inputFor(source, x);
  overRows(rows, [&](size_t t, RowRange range) {
    addProductOfRange(source, range, input, y, bufs[t].data());
    keepLastRow(source, range, bufs[t].data());
  });
}

DecodedRowSums::DecodedRowSums() : before(std::exchange(decodedRowSums, true)) {}

DecodedRowSums::~DecodedRowSums() {
  decodedRowSums = before;
}

void outputHead(const kel::TensorView* weights, const float* x, float* logits) {
  const RowSource source = rowSource(weights->data, weights->type, weights->dims[0]);
  ThreadRows& scrs = headScratch();
  fitScratch(scrs, source.cols);
  const Input input = inputFor(source, x);
  overRows(weights->dims[1], [&](size_t t, RowRange range) {
    multiplyRows(source, range.begin, range.end - range.begin, input, logits + range.begin,
                 scrs[t].data());
    keepLastRow(source, range, scrs[t].data());
  });
}

const ThreadRows& gemvScratchForTesting() {
  return gemvScratch();
}

const ThreadRows& headScratchForTesting() {
  return headScratch();
}

}  // namespace qwen35
