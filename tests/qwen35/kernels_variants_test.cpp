// Every kernel table of this machine against the scalar one, bit for bit, and the scalar one
// against plain loops written from the contracts.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "qwen35/simd/dispatch.h"
#include "tests/qwen35/tested_tables.h"
#include "tests/qwen35/weight_rows.h"

namespace {

using kel::QuantType;
using qwen35::KernelTable;
using weight_rows::bits;
using weight_rows::randomFloats;
using weight_rows::randomRows;
using weight_rows::Scales;

// The types that multiply floats; the others are in quantised_products_test.cpp.
constexpr QuantType kTypes[] = {QuantType::F32, QuantType::BF16, QuantType::Q8_0};

const KernelTable& scalar() {
  return *qwen35::supportedKernels().front();
}

qwen35::RowsProduct product(const KernelTable& table, QuantType type) {
  switch (type) {
    case QuantType::F32:
      return table.rowsF32;
    case QuantType::BF16:
      return table.rowsBf16;
    default:
      return table.rowsQ80;
  }
}

std::string label(const KernelTable& table, QuantType type, size_t rows, size_t cols) {
  return std::string(table.name) + " " + kel::quantTypeName(type) + " " + std::to_string(rows) +
         "x" + std::to_string(cols);
}

// The dot products of weights, which are moved one byte off alignment, with inputs one float off.
std::vector<uint32_t> unalignedRowSums(const KernelTable& table, QuantType type,
                                       const std::vector<uint8_t>& weights,
                                       const std::vector<float>& x, size_t rows) {
  std::vector<uint8_t> moved(weights.size() + 1);
  std::copy(weights.begin(), weights.end(), moved.begin() + 1);
  std::vector<float> shifted(x.size() + 1);
  std::copy(x.begin(), x.end(), shifted.begin() + 1);
  constexpr float kGuard = 12345.0f;
  std::vector<float> out(rows + 2, kGuard);
  product(table, type)(moved.data() + 1, shifted.data() + 1, out.data() + 1, rows, x.size());
  EXPECT_EQ(kGuard, out.front()) << table.name;
  EXPECT_EQ(kGuard, out.back()) << table.name;
  return bits(std::vector<float>(out.begin() + 1, out.end() - 1));
}

void expectSameRowSums(QuantType type, const std::vector<uint8_t>& weights,
                       const std::vector<float>& x, size_t rows) {
  const std::vector<uint32_t> expected = unalignedRowSums(scalar(), type, weights, x, rows);
  for (const KernelTable* table : qwen35::testedTables()) {
    EXPECT_EQ(expected, unalignedRowSums(*table, type, weights, x, rows))
        << label(*table, type, rows, x.size());
  }
}

// Blocks, one lane group, the chunk's length and around it, several chunks, and odd tails.
std::vector<size_t> lengths(QuantType type) {
  const size_t step = weight_rows::blockLen(type);
  if (step > 1) {
    return {0, step, 2 * step, 3 * step, 512 + step, 2560, 4096, 4096 + step};
  }
  return {0, 1, 7, 8, 9, 15, 16, 17, 24, 31, 40, 248, 256, 257, 264, 520, 4096, 4099, 4104, 8200};
}

TEST(KernelVariants, RowSumsAreTheSameBits) {
  for (const QuantType type : kTypes) {
    for (const size_t cols : lengths(type)) {
      for (const size_t rows : {0, 1, 3, 4, 5, 8, 11}) {
        expectSameRowSums(type, randomRows(type, rows, cols, 11), randomFloats(cols, 12), rows);
      }
    }
  }
}

TEST(KernelVariants, RowSumsOfAnyBitPatternAreTheSameBits) {
  for (const QuantType type : kTypes) {
    for (uint32_t seed = 0; seed < 40; ++seed) {
      const size_t cols = type == QuantType::F32 || type == QuantType::BF16 ? 8 : 256;
      expectSameRowSums(type, randomRows(type, 20, cols, seed, Scales::AnyBits),
                        randomFloats(cols, seed, -1e3f, 1e3f), 20);
    }
  }
}

TEST(KernelVariants, RowSumsOfUnusualInputsAreTheSameBits) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const float fillers[] = {0.0f, -0.0f, 0x1p-149f, -0x1p-140f, 3e38f, kInfinity, -kInfinity, NAN};
  for (const QuantType type : kTypes) {
    const std::vector<uint8_t> weights = randomRows(type, 6, 768, 21);
    for (const float filler : fillers) {
      expectSameRowSums(type, weights, std::vector<float>(768, filler), 6);
      std::vector<float> one = randomFloats(768, 22);
      one[515] = filler;
      expectSameRowSums(type, weights, one, 6);
    }
  }
}

TEST(KernelVariants, DotIsTheProductOfOneF32Row) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t n : lengths(QuantType::F32)) {
      const std::vector<float> a = randomFloats(n + 1, 31);
      const std::vector<float> b = randomFloats(n + 1, 32);
      float expected = 0.0f;
      scalar().rowsF32(a.data() + 1, b.data() + 1, &expected, 1, n);
      EXPECT_EQ(bits(expected), bits(table->dot(a.data() + 1, b.data() + 1, n)))
          << table->name << " n=" << n;
    }
  }
}

// The order of a dot product as the contract states it, lane by lane.
float rowSumByContract(const std::vector<float>& w, const std::vector<float>& x) {
  const size_t n = w.size();
  std::array<float, 8> total{};
  for (size_t lane = 0; lane < 8; ++lane) {
    for (size_t span = 0; span < n; span += 4096) {
      float part = 0.0f;
      for (size_t chunk = span; chunk < std::min(span + 4096, n); chunk += 256) {
        float chain = 0.0f;
        for (size_t i = chunk + lane; i < std::min(chunk + 256, n); i += 8) {
          chain = std::fma(w[i], x[i], chain);
        }
        part += chain;
      }
      total[lane] += part;
    }
  }
  const float even = (total[0] + total[4]) + (total[2] + total[6]);
  const float odd = (total[1] + total[5]) + (total[3] + total[7]);
  return even + odd;
}

TEST(KernelVariants, RowSumsFollowTheContract) {
  for (const QuantType type : kTypes) {
    for (const size_t cols : {256, 512, 768, 2560, 4096, 9216}) {
      const std::vector<uint8_t> weights = randomRows(type, 1, cols, 41);
      const std::vector<float> x = randomFloats(cols, 42);
      const float expected = rowSumByContract(weight_rows::decoded(type, weights.data(), cols), x);
      for (const KernelTable* table : qwen35::testedTables()) {
        float sum = 0.0f;
        product(*table, type)(weights.data(), x.data(), &sum, 1, cols);
        EXPECT_EQ(bits(expected), bits(sum)) << label(*table, type, 1, cols);
      }
    }
  }
}

TEST(KernelVariants, DecodersGiveTheBitsOfTheBlockFormats) {
  for (const KernelTable* table : qwen35::testedTables()) {
    const auto expectDecoded = [&](QuantType type, auto decode) {
      for (const Scales scales : {Scales::Usual, Scales::AnyBits}) {
        const std::vector<uint8_t> weights = randomRows(type, 1, 64 * 256, 15, scales);
        std::vector<float> actual(64 * 256);
        decode(weights.data(), actual.data(), actual.size());
        EXPECT_EQ(bits(weight_rows::decoded(type, weights.data(), actual.size())), bits(actual))
            << table->name << " " << kel::quantTypeName(type);
      }
    };
    expectDecoded(QuantType::BF16, table->decodeBf16);
    expectDecoded(QuantType::Q8_0, table->decodeQ80);
    expectDecoded(QuantType::Q4_K, table->decodeQ4K);
    expectDecoded(QuantType::Q5_K, table->decodeQ5K);
  }
}

TEST(KernelVariants, ChunksOfABlockSumUpToTheRowSums) {
  constexpr size_t kCols = 600;  // two whole chunks and a shorter one
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t nRows : {1u, 2u, 4u, 7u, 8u, 11u, 16u}) {
      for (const size_t nInputs : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 11u, 13u}) {
        std::vector<std::vector<float>> rows;
        std::vector<std::vector<float>> inputs;
        for (uint32_t r = 0; r < nRows; ++r)
          rows.push_back(randomFloats(kCols, 100 + r));
        for (uint32_t p = 0; p < nInputs; ++p)
          inputs.push_back(randomFloats(kCols, 200 + p));
        std::vector<float> parts(nRows * nInputs * 8 + 1, 0.0f);
        for (size_t at = 0; at < kCols; at += 256) {
          const size_t len = std::min<size_t>(256, kCols - at);
          std::vector<float> rowChunks(nRows * 256, NAN);  // the rest is not looked at
          for (size_t r = 0; r < nRows; ++r) {
            std::copy_n(rows[r].data() + at, len, rowChunks.data() + r * 256);
          }
          std::vector<float> packed(nInputs * 256, NAN);
          for (size_t p = 0; p < nInputs; ++p) {
            const auto [first, stride] = qwen35::packedChunk(*table, nInputs, p);
            for (size_t i = 0; i < len; ++i) {
              packed[first + i / 8 * stride + i % 8] = inputs[p][at + i];
            }
          }
          table->addChunkProducts(rowChunks.data(), packed.data(), parts.data(), nRows, nInputs,
                                  len);
        }
        EXPECT_EQ(0.0f, parts.back());
        std::vector<float> sums(nRows * nInputs);
        table->foldSums(parts.data(), sums.data(), sums.size());
        for (size_t i = 0; i < sums.size(); ++i) {
          EXPECT_EQ(bits(rowSumByContract(rows[i / nInputs], inputs[i % nInputs])), bits(sums[i]))
              << table->name << " " << nRows << "x" << nInputs << " at " << i;
        }
      }
    }
  }
}

TEST(KernelVariants, PackedInputsTakeTurnsEveryEightElements) {
  KernelTable table = scalar();
  const auto expectChunk = [&](size_t nInputs, size_t input, size_t first, size_t stride) {
    const auto [actualFirst, actualStride] = qwen35::packedChunk(table, nInputs, input);
    EXPECT_EQ(first, actualFirst) << input << " of " << nInputs;
    EXPECT_EQ(stride, actualStride) << input << " of " << nInputs;
  };
  expectChunk(5, 3, 3 * 256, 8);
  table.inputsSideBySide = 2;
  expectChunk(5, 0, 0, 16);
  expectChunk(5, 1, 8, 16);
  expectChunk(5, 2, 2 * 256, 16);
  expectChunk(5, 3, 2 * 256 + 8, 16);
  expectChunk(5, 4, 4 * 256, 8);
}

TEST(KernelVariants, RowSumsAreAccurateToSinglePrecision) {
  for (const QuantType type : kTypes) {
    for (const Scales scales : {Scales::Usual, Scales::Positive}) {
      for (const size_t cols : {256, 512, 1024, 2560, 9216, 32768}) {
        const std::vector<uint8_t> weights = randomRows(type, 8, cols, 51, scales);
        const std::vector<float> x =
            randomFloats(cols, 52, scales == Scales::Positive ? 0.0f : -1.0f);
        std::vector<float> sums(8);
        product(scalar(), type)(weights.data(), x.data(), sums.data(), 8, cols);
        for (size_t r = 0; r < 8; ++r) {
          const std::vector<float> w =
              weight_rows::decoded(type, weights.data() + r * (weights.size() / 8), cols);
          double exact = 0.0;
          double magnitude = 0.0;
          for (size_t i = 0; i < cols; ++i) {
            exact += static_cast<double>(w[i]) * static_cast<double>(x[i]);
            magnitude += std::abs(static_cast<double>(w[i]) * static_cast<double>(x[i]));
          }
          EXPECT_LE(std::abs(exact - static_cast<double>(sums[r])), 0x1p-22 * magnitude)
              << label(scalar(), type, r, cols);
        }
      }
    }
  }
}

TEST(KernelVariants, AccuracyHoldsFromOneBlock) {
  for (const QuantType type : {QuantType::F32, QuantType::BF16, QuantType::Q8_0}) {
    for (size_t cols = 32; cols <= 256; cols += 32) {
      const std::vector<uint8_t> weights = randomRows(type, 1, cols, 61, Scales::Positive);
      const std::vector<float> x = randomFloats(cols, 62, 0.0f);
      const std::vector<float> w = weight_rows::decoded(type, weights.data(), cols);
      double exact = 0.0;
      for (size_t i = 0; i < cols; ++i) {
        exact += static_cast<double>(w[i]) * static_cast<double>(x[i]);
      }
      float sum = 0.0f;
      product(scalar(), type)(weights.data(), x.data(), &sum, 1, cols);
      EXPECT_NEAR(exact, sum, 0x1p-22 * exact) << label(scalar(), type, 1, cols);
    }
  }
}

TEST(KernelVariants, WeightedRowsAreAddedInOrderWithoutFusing) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t n : {0, 1, 7, 8, 20, 64, 100, 256}) {
      for (const size_t rows : {0, 1, 2, 15, 16, 17, 40}) {
        const size_t stride = n + rows % 3;
        const std::vector<float> weights = randomFloats(rows, 71, 0.0f);
        const std::vector<float> values = randomFloats(rows * stride + 1, 72);
        const std::vector<float> before = randomFloats(n, 73);
        std::vector<float> expected = before;
        for (size_t d = 0; d < n; ++d) {
          for (size_t p = 0; p < rows; ++p) {
            expected[d] = expected[d] + weights[p] * 0.3f * values[1 + p * stride + d];
          }
        }
        std::vector<float> acc = before;
        acc.push_back(5.0f);
        table->addWeightedRows(weights.data(), 0.3f, values.data() + 1, stride, acc.data(), rows,
                               n);
        EXPECT_EQ(5.0f, acc.back());
        acc.pop_back();
        EXPECT_EQ(bits(expected), bits(acc)) << table->name << " " << rows << "x" << n;
      }
    }
  }
}

struct DeltaCase {
  std::vector<float> state;
  std::vector<float> q;
  std::vector<float> k;
  std::vector<float> v;
};

// The update step by step, each over the whole state.
void deltaStepByContract(DeltaCase& c, float decay, float beta, float scale) {
  const size_t dim = c.v.size();
  for (float& element : c.state) {
    element *= decay;
  }
  std::vector<float> u(dim);
  for (size_t j = 0; j < dim; ++j) {
    float kv = 0.0f;
    for (size_t i = 0; i < dim; ++i) {
      kv = std::fma(c.k[i], c.state[i * dim + j], kv);
    }
    u[j] = (c.v[j] - kv) * beta;
  }
  for (size_t i = 0; i < dim; ++i) {
    for (size_t j = 0; j < dim; ++j) {
      c.state[i * dim + j] = std::fma(c.k[i], u[j], c.state[i * dim + j]);
    }
  }
  for (size_t j = 0; j < dim; ++j) {
    float o = 0.0f;
    for (size_t i = 0; i < dim; ++i) {
      o = std::fma(c.state[i * dim + j], c.q[i], o);
    }
    c.v[j] = scale * o;
  }
}

TEST(KernelVariants, DeltaStepFollowsTheContract) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t dim : {0, 1, 7, 8, 31, 32, 43, 128}) {
      DeltaCase expected{randomFloats(dim * dim, 81), randomFloats(dim, 82), randomFloats(dim, 83),
                         randomFloats(dim, 84)};
      DeltaCase actual = expected;
      for (int step = 0; step < 3; ++step) {
        deltaStepByContract(expected, 0.9f, 0.7f, 0.1f);
        table->deltaStep(actual.state.data(), actual.q.data(), actual.k.data(), actual.v.data(),
                         dim, 0.9f, 0.7f, 0.1f);
      }
      EXPECT_EQ(bits(expected.state), bits(actual.state)) << table->name << " dim=" << dim;
      EXPECT_EQ(bits(expected.v), bits(actual.v)) << table->name << " dim=" << dim;
    }
  }
}

TEST(KernelVariants, DeltaStepFromZeroStateScalesTheValue) {
  const std::vector<float> q = randomFloats(128, 91);
  const std::vector<float> k = randomFloats(128, 92);
  const std::vector<float> value = randomFloats(128, 93);
  double qk = 0.0;
  for (size_t i = 0; i < 128; ++i) {
    qk += static_cast<double>(q[i]) * static_cast<double>(k[i]);
  }
  for (const KernelTable* table : qwen35::testedTables()) {
    std::vector<float> state(128 * 128, 0.0f);
    std::vector<float> v = value;
    table->deltaStep(state.data(), q.data(), k.data(), v.data(), 128, 0.5f, 0.25f, 2.0f);
    for (size_t j = 0; j < 128; ++j) {
      EXPECT_NEAR(2.0 * 0.25 * qk * static_cast<double>(value[j]), v[j], 2e-6) << table->name;
    }
  }
}

TEST(KernelDispatch, ScalarIsAlwaysSupportedAndTheLastIsChosen) {
  const std::vector<const KernelTable*> tables = qwen35::supportedKernels();
  ASSERT_FALSE(tables.empty());
  EXPECT_STREQ("scalar", tables.front()->name);
  EXPECT_EQ(tables.back(), &qwen35::kernels());
}

}  // namespace
