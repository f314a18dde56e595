#include "qwen35/products.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <thread>
#include <vector>

#include "qwen35/elementwise.h"
#include "qwen35/weights.h"
#include "tests/qwen35/weight_rows.h"

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

// logits = weights x by outputHead.
void head(const TensorView& weights, const std::vector<float>& x, std::vector<float>& logits) {
  qwen35::Model model;
  model.tokEmbd = &weights;
  qwen35::outputHead(model, x.data(), logits.data());
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

TEST(GemvRow, IsTheDotProductOfEveryDecodedRow) {
  for (const QuantType type : kProductTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 70, 512, 1);
    const std::vector<float> x = randomFloats(512, 2);
    std::vector<float> y(70, 0.0f);
    addProduct(matrix(type, weights.data(), 70, 512), x, y);
    EXPECT_EQ(bits(dotProduct(type, weights, x, 70)), bits(y)) << kel::quantTypeName(type);
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

TEST(GemvRow, ThreadsGiveTheSameBits) {
  for (const QuantType type : kProductTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 37, 768, 8);
    const std::vector<float> x = randomFloats(768, 9);
    const std::vector<uint32_t> expected = bits(dotProduct(type, weights, x, 37));
    for (const int nThreads : {1, 2, 3, 7}) {
      const Threads threads(nThreads);
      std::vector<float> y(37, 0.0f);
      addProduct(matrix(type, weights.data(), 37, 768), x, y);
      EXPECT_EQ(expected, bits(y)) << nThreads;
      head(matrix(type, weights.data(), 37, 768), x, y);
      EXPECT_EQ(expected, bits(y)) << nThreads;
    }
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
    EXPECT_EQ(bits(dotProduct(QuantType::F32, wide, x, 6)), bits(wideSum)) << cols;
    EXPECT_EQ(bits(dotProduct(QuantType::BF16, narrow, x, 6)), bits(narrowSum)) << cols;
  }
}

class GemvScratch : public ::testing::Test {
 protected:
  void add(QuantType type, const std::vector<uint8_t>& weights, size_t rows, size_t cols,
           std::vector<float>& y, uint32_t seed = 14) {
    const TensorView view = matrix(type, weights.data(), rows, cols);
    qwen35::gemvRow(m, &view, randomFloats(cols, seed).data(), y.data());
  }

  qwen35::Model m;
};

TEST_F(GemvScratch, HoldsTheLastRowOfEveryThread) {
  const Threads threads(3);
  for (const QuantType type : {QuantType::Q8_0, QuantType::Q4_K, QuantType::Q5_K}) {
    const std::vector<uint8_t> weights = randomRows(type, 7, 256, 13);
    std::vector<float> y(7, 0.0f);
    add(type, weights, 7, 256, y);
    ASSERT_EQ(3u, m.gemvRows.size());
    const size_t lastRows[] = {2, 4, 6};
    for (size_t t = 0; t < 3; ++t) {
      const uint8_t* row = weights.data() + lastRows[t] * (weights.size() / 7);
      EXPECT_EQ(bits(decoded(type, row, 256)), bits(m.gemvRows[t])) << t;
    }
  }
}

TEST_F(GemvScratch, TypesWithoutMatmulMultiplyWhatItHolds) {
  const Threads threads(1);
  const std::vector<uint8_t> weights = randomRows(QuantType::Q8_0, 2, 256, 16);
  for (const QuantType type :
       {QuantType::F16, QuantType::Q4_0, QuantType::Q6_K, QuantType::IQ4_XS}) {
    std::vector<float> y(3, 0.0f);
    add(QuantType::Q8_0, weights, 2, 256, y);
    const float last = y[1];
    y.assign(3, 1.0f);
    add(type, weights, 3, 256, y);
    EXPECT_EQ(std::vector<float>(3, 1.0f + last), y) << kel::quantTypeName(type);
  }
}

TEST_F(GemvScratch, StartsAsZeros) {
  std::vector<float> y(2, 4.0f);
  add(QuantType::Q6_K, {}, 2, 256, y);
  EXPECT_EQ(std::vector<float>(2, 4.0f), y);
}

TEST_F(GemvScratch, LongEnoughRowsAreKeptAndShortOnesReplaced) {
  const Threads threads(2);
  const std::vector<uint8_t> weights = randomRows(QuantType::Q8_0, 2, 512, 18);
  std::vector<float> y(2, 0.0f);
  add(QuantType::Q8_0, weights, 2, 512, y);
  add(QuantType::Q6_K, {}, 2, 256, y);
  EXPECT_EQ(bits(decoded(QuantType::Q8_0, weights.data(), 512)), bits(m.gemvRows[0]));
  add(QuantType::Q6_K, {}, 2, 544, y);
  EXPECT_EQ(std::vector<float>(544, 0.0f), m.gemvRows[0]);
}

TEST_F(GemvScratch, IsReplacedWhenTheThreadCountChanges) {
  const std::vector<uint8_t> weights = randomRows(QuantType::Q8_0, 2, 512, 21);
  std::vector<float> y(2, 0.0f);
  {
    const Threads threads(1);
    add(QuantType::Q8_0, weights, 2, 512, y);
  }
  const Threads threads(3);
  add(QuantType::Q6_K, {}, 2, 32, y);
  EXPECT_EQ(qwen35::ThreadRows(3, std::vector<float>(32, 0.0f)), m.gemvRows);
}

TEST_F(GemvScratch, F32AndBf16LeaveItAlone) {
  std::vector<float> y(2, 0.0f);
  for (const QuantType type : {QuantType::F32, QuantType::BF16}) {
    add(type, randomRows(type, 2, 64, 24), 2, 64, y);
  }
  EXPECT_TRUE(m.gemvRows.empty());
}

TEST(OutputHead, AssignsTheLogits) {
  for (const QuantType type : kProductTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 9, 256, 26);
    const std::vector<float> x = randomFloats(256, 27);
    std::vector<float> logits(10, 99.0f);
    head(matrix(type, weights.data(), 9, 256), x, logits);
    EXPECT_EQ(99.0f, logits.back());
    logits.pop_back();
    EXPECT_EQ(bits(dotProduct(type, weights, x, 9)), bits(logits)) << kel::quantTypeName(type);
  }
}

TEST(OutputHead, ScratchHoldsTheLastRowOfEveryTypeApartFromGemv) {
  const Threads threads(2);
  for (const QuantType type : kProductTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 5, 256, 28);
    const TensorView view = matrix(type, weights.data(), 5, 256);
    qwen35::Model m;
    m.tokEmbd = &view;
    std::vector<float> logits(5);
    qwen35::outputHead(m, randomFloats(256, 29).data(), logits.data());
    ASSERT_EQ(2u, m.headRows.size());
    EXPECT_EQ(bits(decoded(type, weights.data() + 2 * (weights.size() / 5), 256)),
              bits(m.headRows[0]));
    EXPECT_EQ(bits(decoded(type, weights.data() + 4 * (weights.size() / 5), 256)),
              bits(m.headRows[1]));
    EXPECT_TRUE(m.gemvRows.empty());
  }
}

TEST(Products, TwoHostThreadsDoNotMeet) {
  const std::vector<uint8_t> weights = randomRows(QuantType::Q4_K, 64, 512, 30);
  const TensorView view = matrix(QuantType::Q4_K, weights.data(), 64, 512);
  const auto work = [&](uint32_t seed, bool& same) {
    const std::vector<float> x = randomFloats(512, seed);
    const std::vector<uint32_t> expected = bits(dotProduct(QuantType::Q4_K, weights, x, 64));
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
