// Products with a block of inputs against dot products of the decoded rows, bit for bit.
#include "qwen35/block_products.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <vector>

#include "qwen35/simd/dispatch.h"
#include "tests/qwen35/weight_rows.h"

namespace {

using kel::QuantType;
using weight_rows::bits;
using weight_rows::randomFloats;
using weight_rows::randomRows;

kel::TensorView matrix(QuantType type, const std::vector<uint8_t>& data, size_t rows, size_t cols) {
  kel::TensorView view;
  view.data = data.data();
  view.type = type;
  view.dims[0] = cols;
  view.dims[1] = rows;
  view.rank = 2;
  return view;
}

std::vector<uint32_t> product(const kel::TensorView& weights, const std::vector<float>& x,
                              size_t count) {
  qwen35::BlockInputs inputs;
  inputs.assign(x.data(), count, weights.dims[0]);
  std::vector<float> y(count * weights.dims[1], 777.0f);
  qwen35::multiplyBlock(weights, inputs, y.data());
  return bits(y);
}

std::vector<uint32_t> dotProducts(QuantType type, const std::vector<uint8_t>& weights, size_t rows,
                                  const std::vector<float>& x, size_t count) {
  const size_t cols = x.size() / count;
  std::vector<float> y;
  for (size_t i = 0; i < count; ++i) {
    for (size_t r = 0; r < rows; ++r) {
      const uint8_t* row = weights.data() + r * (weights.size() / rows);
      const std::vector<float> w = weight_rows::decoded(type, row, cols);
      y.push_back(0.0f + qwen35::dotF32(w.data(), x.data() + i * cols, cols));
    }
  }
  return bits(y);
}

void expectDotProducts(QuantType type, size_t rows, size_t cols, size_t count) {
  const std::vector<uint8_t> weights = randomRows(type, rows, cols, 1);
  const std::vector<float> x = randomFloats(count * cols, 2);
  EXPECT_EQ(dotProducts(type, weights, rows, x, count),
            product(matrix(type, weights, rows, cols), x, count))
      << kel::quantTypeName(type) << " " << rows << "x" << cols << " with " << count;
}

TEST(MultiplyBlock, IsTheDotProductOfEveryDecodedRow) {
  for (const QuantType type : weight_rows::kProductTypes) {
    for (const size_t count : {1u, 2u, 3u, 7u, 12u, 128u}) {
      expectDotProducts(type, 37, 768, count);
    }
  }
}

TEST(MultiplyBlock, RowsOfAnyLength) {
  for (const QuantType type : {QuantType::F32, QuantType::BF16}) {
    for (const size_t cols : {1u, 7u, 8u, 40u, 257u, 264u, 4096u, 4104u, 9216u}) {
      expectDotProducts(type, 5, cols, 4);
    }
  }
  for (const size_t cols : {32u, 96u, 288u, 4128u, 9216u}) {
    expectDotProducts(QuantType::Q8_0, 18, cols, 5);
  }
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K}) {
    expectDotProducts(type, 18, 9216, 5);
  }
}

TEST(MultiplyBlock, NothingIsWrittenForNoRows) {
  const std::vector<uint8_t> none;
  EXPECT_TRUE(product(matrix(QuantType::F32, none, 0, 64), randomFloats(128, 3), 2).empty());
}

TEST(MultiplyBlock, ThreadsAndInstructionSetsGiveTheSameBits) {
  const std::vector<uint8_t> weights = randomRows(QuantType::Q8_0, 50, 512, 4);
  const std::vector<float> x = randomFloats(6 * 512, 5);
  const kel::TensorView view = matrix(QuantType::Q8_0, weights, 50, 512);
  const std::vector<uint32_t> expected = dotProducts(QuantType::Q8_0, weights, 50, x, 6);
  const int before = omp_get_max_threads();
  for (const qwen35::KernelTable* table : qwen35::supportedKernels()) {
    qwen35::setKernelsForTesting(table);
    for (const int threads : {1, 2, 3, 7}) {
      omp_set_num_threads(threads);
      EXPECT_EQ(expected, product(view, x, 6)) << table->name << " " << threads;
    }
  }
  omp_set_num_threads(before);
  qwen35::setKernelsForTesting(nullptr);
}

}  // namespace
