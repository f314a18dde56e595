#include "qwen35/products.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <thread>
#include <vector>

#include "qwen35/kernels.h"
#include "qwen35/simd/dispatch.h"
#include "tests/qwen35/weight_rows.h"

namespace qwen35 {
struct Model {};
}  // namespace qwen35

namespace {

using kel::QuantType;
using kel::TensorView;
using qwen35::RowRange;
using weight_rows::bits;
using weight_rows::decoded;
using weight_rows::kProductTypes;
using weight_rows::randomFloats;
using weight_rows::randomRows;

TensorView matrix(QuantType type, const void* data, size_t rows, size_t cols) {
  TensorView view;
  view.data = data;
  view.type = type;
  view.dims[0] = cols;
  view.dims[1] = rows;
  view.rank = 2;
  return view;
}

// y += weights x by gemvRow.
void addProduct(const TensorView& weights, const std::vector<float>& x, std::vector<float>& y) {
  qwen35::Model model;
  qwen35::gemvRow(model, &weights, x.data(), y.data());
}

// The coded row sums of the reference kernels.
std::vector<float> codedProduct(QuantType type, const std::vector<uint8_t>& weights,
                                const std::vector<float>& x, size_t rows) {
  const qwen35::KernelTable& scalar = *qwen35::supportedKernels().front();
  std::vector<qwen35::CodedInput> groups(qwen35::codedGroups(x.size()));
  EXPECT_TRUE(scalar.codeInput(x.data(), x.size(), groups.data()));
  std::vector<float> out(rows);
  (type == QuantType::Q4_K ? scalar.rowsQ4K : scalar.rowsQ5K)(weights.data(), groups.data(),
                                                              out.data(), rows, x.size());
  return out;
}

// The dot products of the decoded rows.
std::vector<float> dotProduct(QuantType type, const std::vector<uint8_t>& weights,
                              const std::vector<float>& x, size_t rows) {
  std::vector<float> out;
  for (size_t r = 0; r < rows; ++r) {
    const std::vector<float> row =
        decoded(type, weights.data() + r * (weights.size() / rows), x.size());
    out.push_back(qwen35::dotF32(row.data(), x.data(), x.size()));
  }
  return out;
}

std::vector<float> plainProduct(QuantType type, const std::vector<uint8_t>& weights,
                                const std::vector<float>& x, size_t rows) {
  const bool coded = type == QuantType::Q4_K || type == QuantType::Q5_K;
  return coded ? codedProduct(type, weights, x, rows) : dotProduct(type, weights, x, rows);
}

// Runs with a given number of OpenMP threads and restores the former one.
class Threads {
 public:
  explicit Threads(int n) : before(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(before); }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

 private:
  int before;
};

TEST(ThreadRows, SevenRowsOnThreeThreads) {
  const size_t expected[3][2] = {{0, 3}, {3, 5}, {5, 7}};
  for (size_t t = 0; t < 3; ++t) {
    const RowRange range = qwen35::threadRows(7, 3, t);
    EXPECT_EQ(expected[t][0], range.begin) << t;
    EXPECT_EQ(expected[t][1], range.end) << t;
  }
}

TEST(ThreadRows, RangesCoverEveryRowOnceInOrder) {
  for (size_t rows = 0; rows < 20; ++rows) {
    for (size_t nThreads = 1; nThreads < 9; ++nThreads) {
      size_t next = 0;
      for (size_t t = 0; t < nThreads; ++t) {
        const RowRange range = qwen35::threadRows(rows, nThreads, t);
        EXPECT_EQ(next, range.begin);
        EXPECT_LE(range.end - range.begin, rows / nThreads + 1);
        next = range.end;
      }
      EXPECT_EQ(rows, next);
    }
  }
}

TEST(RowCount, IsTheProductOfTheDimensionsAfterTheFirst) {
  TensorView view;
  const uint64_t dims[] = {5, 2, 3, 4};
  std::copy(std::begin(dims), std::end(dims), view.dims);
  const size_t expected[] = {1, 1, 2, 6, 24};
  for (uint16_t rank = 0; rank <= 4; ++rank) {
    view.rank = rank;
    EXPECT_EQ(expected[rank], qwen35::rowCount(view)) << rank;
  }
}

TEST(RowBytes, CountsWholeBlocks) {
  EXPECT_EQ(400u, qwen35::rowBytes(QuantType::F32, 100));
  EXPECT_EQ(200u, qwen35::rowBytes(QuantType::BF16, 100));
  EXPECT_EQ(3u * 34, qwen35::rowBytes(QuantType::Q8_0, 100));
  EXPECT_EQ(2u * 144, qwen35::rowBytes(QuantType::Q4_K, 600));
  EXPECT_EQ(2u * 176, qwen35::rowBytes(QuantType::Q5_K, 600));
  EXPECT_EQ(0u, qwen35::rowBytes(QuantType::Q6_K, 600));
}

TEST(GemvRow, IsTheRowSumOfEveryRow) {
  for (const QuantType type : kProductTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 70, 512, 1);
    const std::vector<float> x = randomFloats(512, 2);
    std::vector<float> y(70, 0.0f);
    addProduct(matrix(type, weights.data(), 70, 512), x, y);
    EXPECT_EQ(bits(plainProduct(type, weights, x, 70)), bits(y)) << kel::quantTypeName(type);
  }
}

TEST(GemvRow, InputsThatAreNotFiniteAreMultipliedWithDecodedRows) {
  for (const QuantType type : {QuantType::Q4_K, QuantType::Q5_K}) {
    for (const float odd : {INFINITY, -INFINITY, NAN}) {
      const std::vector<uint8_t> weights = randomRows(type, 9, 512, 7);
      std::vector<float> x = randomFloats(512, 8);
      x[300] = odd;
      std::vector<float> y(9, 0.0f);
      addProduct(matrix(type, weights.data(), 9, 512), x, y);
      EXPECT_EQ(bits(dotProduct(type, weights, x, 9)), bits(y)) << odd;
    }
  }
}

TEST(GemvRow, TwoCallsDoubleTheResult) {
  for (const QuantType type : kProductTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 5, 256, 3);
    const std::vector<float> x = randomFloats(256, 4);
    const TensorView view = matrix(type, weights.data(), 5, 256);
    std::vector<float> once(5, 0.0f);
    addProduct(view, x, once);
    std::vector<float> twice(5, 0.0f);
    addProduct(view, x, twice);
    addProduct(view, x, twice);
    for (size_t r = 0; r < 5; ++r) {
      EXPECT_EQ(2.0f * once[r], twice[r]) << kel::quantTypeName(type);
    }
  }
}

TEST(GemvRow, OneDimensionIsOneRow) {
  const std::vector<float> w = randomFloats(24, 5);
  const std::vector<float> x = randomFloats(24, 6);
  TensorView view = matrix(QuantType::F32, w.data(), 0, 24);
  view.rank = 1;
  std::vector<float> y{1.0f, 7.0f};
  addProduct(view, x, y);
  EXPECT_EQ(1.0f + qwen35::dotF32(w.data(), x.data(), 24), y[0]);
  EXPECT_EQ(7.0f, y[1]);
}

TEST(GemvRow, NoRowsDoNothing) {
  for (const QuantType type : kProductTypes) {
    std::vector<float> y{3.0f};
    addProduct(matrix(type, nullptr, 0, 256), randomFloats(256, 7), y);
    EXPECT_EQ(3.0f, y[0]);
  }
}

TEST(GemvRow, ThreadsAndInstructionSetsGiveTheSameBits) {
  for (const QuantType type : kProductTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 37, 768, 8);
    const std::vector<float> x = randomFloats(768, 9);
    const std::vector<uint32_t> expected = bits(plainProduct(type, weights, x, 37));
    for (const qwen35::KernelTable* table : qwen35::supportedKernels()) {
      qwen35::setKernelsForTesting(table);
      for (const int nThreads : {1, 2, 3, 7}) {
        const Threads threads(nThreads);
        std::vector<float> y(37, 0.0f);
        addProduct(matrix(type, weights.data(), 37, 768), x, y);
        EXPECT_EQ(expected, bits(y)) << table->name << " " << nThreads;
        qwen35::outputHead(std::vector<TensorView>{matrix(type, weights.data(), 37, 768)}.data(),
                           x.data(), y.data());
        EXPECT_EQ(expected, bits(y)) << table->name << " " << nThreads;
      }
    }
    qwen35::setKernelsForTesting(nullptr);
  }
}

TEST(Matvec, AddsRowsOfAnyLength) {
  for (const size_t cols : {1, 8, 21, 40}) {
    const std::vector<float> x = randomFloats(cols, 10);
    const std::vector<uint8_t> wide = randomRows(QuantType::F32, 6, cols, 11);
    const std::vector<uint8_t> narrow = randomRows(QuantType::BF16, 6, cols, 12);
    std::vector<float> wideSum(6, 0.0f);
    std::vector<float> narrowSum(6, 0.0f);
    qwen35::matvecF32Add(reinterpret_cast<const float*>(wide.data()), x.data(), wideSum.data(), 6,
                         cols);
    qwen35::matvecBf16Add(reinterpret_cast<const uint16_t*>(narrow.data()), x.data(),
                          narrowSum.data(), 6, cols);
    EXPECT_EQ(bits(plainProduct(QuantType::F32, wide, x, 6)), bits(wideSum)) << cols;
    EXPECT_EQ(bits(plainProduct(QuantType::BF16, narrow, x, 6)), bits(narrowSum)) << cols;
  }
}

// The scratch rows of a fresh host thread, so that earlier tests leave no trace.
template <typename Body>
void onFreshThread(const Body& body) {
  std::thread(body).join();
}

TEST(GemvScratch, HoldsTheLastRowOfEveryThread) {
  onFreshThread([] {
    const Threads threads(3);
    for (const QuantType type : {QuantType::Q8_0, QuantType::Q4_K, QuantType::Q5_K}) {
      const std::vector<uint8_t> weights = randomRows(type, 7, 256, 13);
      std::vector<float> y(7, 0.0f);
      addProduct(matrix(type, weights.data(), 7, 256), randomFloats(256, 14), y);
      const qwen35::ThreadRows& scratch = qwen35::gemvScratchForTesting();
      ASSERT_EQ(3u, scratch.size());
      const size_t lastRows[] = {2, 4, 6};
      for (size_t t = 0; t < 3; ++t) {
        const uint8_t* row = weights.data() + lastRows[t] * (weights.size() / 7);
        EXPECT_EQ(bits(decoded(type, row, 256)), bits(scratch[t])) << t;
      }
    }
  });
}

TEST(GemvScratch, TypesWithoutAProductMultiplyWhatItHolds) {
  onFreshThread([] {
    const Threads threads(1);
    const std::vector<float> x = randomFloats(256, 15);
    const std::vector<uint8_t> weights = randomRows(QuantType::Q8_0, 2, 256, 16);
    for (const QuantType type :
         {QuantType::F16, QuantType::Q4_0, QuantType::Q6_K, QuantType::IQ4_XS}) {
      std::vector<float> y(3, 0.0f);
      addProduct(matrix(QuantType::Q8_0, weights.data(), 2, 256), x, y);
      const float last = y[1];
      y.assign(3, 1.0f);
      addProduct(matrix(type, weights.data(), 3, 256), x, y);
      EXPECT_EQ(std::vector<float>(3, 1.0f + last), y) << kel::quantTypeName(type);
    }
  });
}

TEST(GemvScratch, StartsAsZeros) {
  onFreshThread([] {
    std::vector<float> y(2, 4.0f);
    addProduct(matrix(QuantType::Q6_K, nullptr, 2, 256), randomFloats(256, 17), y);
    EXPECT_EQ(std::vector<float>(2, 4.0f), y);
  });
}

TEST(GemvScratch, LongEnoughRowsAreKeptAndShortOnesReplaced) {
  onFreshThread([] {
    const Threads threads(2);
    const std::vector<uint8_t> weights = randomRows(QuantType::Q8_0, 2, 512, 18);
    std::vector<float> y(2, 0.0f);
    addProduct(matrix(QuantType::Q8_0, weights.data(), 2, 512), randomFloats(512, 19), y);
    const qwen35::ThreadRows& scratch = qwen35::gemvScratchForTesting();
    addProduct(matrix(QuantType::Q6_K, nullptr, 2, 256), randomFloats(256, 20), y);
    EXPECT_EQ(bits(decoded(QuantType::Q8_0, weights.data(), 512)), bits(scratch[0]));
    addProduct(matrix(QuantType::Q6_K, nullptr, 2, 544), randomFloats(544, 20), y);
    EXPECT_EQ(std::vector<float>(544, 0.0f), scratch[0]);
  });
}

TEST(GemvScratch, IsReplacedWhenTheThreadCountChanges) {
  onFreshThread([] {
    const std::vector<uint8_t> weights = randomRows(QuantType::Q8_0, 2, 512, 21);
    std::vector<float> y(2, 0.0f);
    const qwen35::ThreadRows& scratch = qwen35::gemvScratchForTesting();
    {
      const Threads threads(1);
      addProduct(matrix(QuantType::Q8_0, weights.data(), 2, 512), randomFloats(512, 22), y);
    }
    const Threads threads(3);
    addProduct(matrix(QuantType::Q6_K, nullptr, 2, 32), randomFloats(32, 23), y);
    EXPECT_EQ(qwen35::ThreadRows(3, std::vector<float>(32, 0.0f)), scratch);
  });
}

TEST(GemvScratch, F32AndBf16LeaveItAlone) {
  onFreshThread([] {
    std::vector<float> y(2, 0.0f);
    for (const QuantType type : {QuantType::F32, QuantType::BF16}) {
      const std::vector<uint8_t> weights = randomRows(type, 2, 64, 24);
      addProduct(matrix(type, weights.data(), 2, 64), randomFloats(64, 25), y);
    }
    EXPECT_TRUE(qwen35::gemvScratchForTesting().empty());
  });
}

TEST(OutputHead, AssignsTheLogits) {
  for (const QuantType type : kProductTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 9, 256, 26);
    const std::vector<float> x = randomFloats(256, 27);
    const TensorView view = matrix(type, weights.data(), 9, 256);
    std::vector<float> logits(10, 99.0f);
    qwen35::outputHead(&view, x.data(), logits.data());
    EXPECT_EQ(99.0f, logits.back());
    logits.pop_back();
    EXPECT_EQ(bits(plainProduct(type, weights, x, 9)), bits(logits)) << kel::quantTypeName(type);
  }
}

TEST(OutputHead, ScratchHoldsTheLastRowOfEveryTypeApartFromGemv) {
  onFreshThread([] {
    const Threads threads(2);
    for (const QuantType type : kProductTypes) {
      const std::vector<uint8_t> weights = randomRows(type, 5, 256, 28);
      const TensorView view = matrix(type, weights.data(), 5, 256);
      std::vector<float> logits(5);
      qwen35::outputHead(&view, randomFloats(256, 29).data(), logits.data());
      const qwen35::ThreadRows& scratch = qwen35::headScratchForTesting();
      ASSERT_EQ(2u, scratch.size());
      EXPECT_EQ(bits(decoded(type, weights.data() + 2 * (weights.size() / 5), 256)),
                bits(scratch[0]));
      EXPECT_EQ(bits(decoded(type, weights.data() + 4 * (weights.size() / 5), 256)),
                bits(scratch[1]));
    }
    EXPECT_TRUE(qwen35::gemvScratchForTesting().empty());
  });
}

TEST(Products, TwoHostThreadsDoNotMeet) {
  const std::vector<uint8_t> weights = randomRows(QuantType::Q4_K, 64, 512, 30);
  const TensorView view = matrix(QuantType::Q4_K, weights.data(), 64, 512);
  const auto work = [&](uint32_t seed, bool& same) {
    const std::vector<float> x = randomFloats(512, seed);
    const std::vector<uint32_t> expected = bits(plainProduct(QuantType::Q4_K, weights, x, 64));
    for (int i = 0; i < 50; ++i) {
      std::vector<float> y(64, 0.0f);
      addProduct(view, x, y);
      same = same && bits(y) == expected;
    }
  };
  bool firstSame = true;
  bool secondSame = true;
  std::thread first([&] { work(31, firstSame); });
  std::thread second([&] { work(32, secondSame); });
  first.join();
  second.join();
  EXPECT_TRUE(firstSame);
  EXPECT_TRUE(secondSame);
}

}  // namespace
