// Every tested kernel table against the scalar one, bit for bit, and the scalar one against plain
// loops written from the contracts.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
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

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kUnusual[] = {0.0f,       -0.0f,      0x1p-149f,
                              -0x1p-140f, 0x1p-126f,  3e38f,
                              kInfinity,  -kInfinity, std::numeric_limits<float>::quiet_NaN()};

// Random floats with one unusual among them, at an odd place.
std::vector<float> withUnusual(size_t n, uint32_t seed, float unusual) {
  std::vector<float> out = randomFloats(n, seed);
  if (n > 0) {
    out[n * 3 / 5] = unusual;
  }
  return out;
}

constexpr float kGuard = 12345.0f;

// n floats, one float off alignment, between two that nothing may write to.
class Guarded {
 public:
  explicit Guarded(size_t n) : values(n + 2, kGuard) {}
  explicit Guarded(const std::vector<float>& content) : Guarded(content.size()) {
    std::copy(content.begin(), content.end(), data());
  }

  float* data() { return values.data() + 1; }

  // The content, once the guards are seen to be what they were.
  std::vector<float> checked() const {
    EXPECT_EQ(kGuard, values.front());
    EXPECT_EQ(kGuard, values.back());
    return {values.begin() + 1, values.end() - 1};
  }

 private:
  std::vector<float> values;
};

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
  Guarded shifted(x);
  Guarded out(rows);
  product(table, type)(moved.data() + 1, shifted.data(), out.data(), rows, x.size());
  return bits(out.checked());
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
  for (const QuantType type : kTypes) {
    for (const size_t cols : {768, 771}) {
      if (cols % weight_rows::blockLen(type) != 0) {
        continue;
      }
      const std::vector<uint8_t> weights = randomRows(type, 6, cols, 21);
      for (const float filler : kUnusual) {
        expectSameRowSums(type, weights, std::vector<float>(cols, filler), 6);
        std::vector<float> one = randomFloats(cols, 22);
        one[515] = filler;
        one[cols - 1] = filler;
        expectSameRowSums(type, weights, one, 6);
      }
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

void expectDecoded(const KernelTable& table, QuantType type, size_t n, Scales scales,
                   void (*decode)(const void*, float*, size_t)) {
  std::vector<uint8_t> weights = randomRows(type, 1, n, 15, scales);
  const std::vector<float> expected = weight_rows::decoded(type, weights.data(), n);
  weights.insert(weights.begin(), 0);  // moves the row off alignment
  Guarded actual(n);
  decode(weights.data() + 1, actual.data(), n);
  EXPECT_EQ(bits(expected), bits(actual.checked())) << label(table, type, 1, n);
}

TEST(KernelVariants, DecodersGiveTheBitsOfTheBlockFormats) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const Scales scales : {Scales::Usual, Scales::AnyBits}) {
      for (const size_t n : {0, 1, 7, 8, 9, 31, 100, 16384}) {
        expectDecoded(*table, QuantType::BF16, n, scales, table->decodeBf16);
      }
      for (const size_t n : {0, 32, 96, 16384}) {
        expectDecoded(*table, QuantType::Q8_0, n, scales, table->decodeQ80);
      }
      for (const size_t n : {0, 256, 768, 16384}) {
        expectDecoded(*table, QuantType::Q4_K, n, scales, table->decodeQ4K);
        expectDecoded(*table, QuantType::Q5_K, n, scales, table->decodeQ5K);
      }
    }
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

// One call for one chunk, to parts that hold sums already, of floats that are one float off
// alignment.
std::vector<uint32_t> chunkParts(const KernelTable& table, size_t nRows, size_t nInputs, size_t len,
                                 float unusual) {
  Guarded rows(withUnusual(nRows * 256, 111, unusual));
  std::vector<float> packed(nInputs * 256, NAN);
  for (size_t p = 0; p < nInputs; ++p) {
    const auto [first, stride] = qwen35::packedChunk(table, nInputs, p);
    const std::vector<float> input = withUnusual(len, 120 + static_cast<uint32_t>(p), unusual);
    for (size_t i = 0; i < len; ++i) {
      packed[first + i / 8 * stride + i % 8] = input[i];
    }
  }
  Guarded inputs(packed);
  Guarded parts(withUnusual(nRows * nInputs * 8, 113, unusual));
  table.addChunkProducts(rows.data(), inputs.data(), parts.data(), nRows, nInputs, len);
  return bits(parts.checked());
}

TEST(KernelVariants, ChunksOfUnusualFloatsAreAddedInTheSameWay) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const auto& [nRows, nInputs] : {std::pair{1, 1}, {3, 2}, {9, 3}, {12, 7}, {17, 13}}) {
      for (const size_t len : {0, 8, 24, 256}) {
        for (const float unusual : kUnusual) {
          EXPECT_EQ(chunkParts(scalar(), nRows, nInputs, len, unusual),
                    chunkParts(*table, nRows, nInputs, len, unusual))
              << table->name << " " << nRows << "x" << nInputs << " " << len << " " << unusual;
        }
      }
    }
  }
}

TEST(KernelVariants, SumsFoldByHalves) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t n : {0, 1, 2, 3, 17}) {
      for (const float unusual : kUnusual) {
        Guarded sums(withUnusual(n * 8, 131, unusual));
        std::vector<float> expected;
        for (size_t i = 0; i < n; ++i) {
          const float* l = sums.data() + i * 8;
          expected.push_back(((l[0] + l[4]) + (l[2] + l[6])) + ((l[1] + l[5]) + (l[3] + l[7])));
        }
        Guarded out(n);
        table->foldSums(sums.data(), out.data(), n);
        EXPECT_EQ(bits(expected), bits(out.checked())) << table->name << " " << n;
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

void expectWeightedRows(const KernelTable& table, size_t rows, size_t n, float unusual) {
  const size_t stride = n + rows % 3;
  const std::vector<float> weights = withUnusual(rows, 71, unusual);
  Guarded values(withUnusual(rows * stride, 72, unusual));
  Guarded acc(withUnusual(n, 73, unusual));
  std::vector<float> expected = acc.checked();
  for (size_t d = 0; d < n; ++d) {
    for (size_t p = 0; p < rows; ++p) {
      expected[d] = expected[d] + weights[p] * 0.3f * values.data()[p * stride + d];
    }
  }
  table.addWeightedRows(weights.data(), 0.3f, values.data(), stride, acc.data(), rows, n);
  EXPECT_EQ(bits(expected), bits(acc.checked()))
      << table.name << " " << rows << "x" << n << " " << unusual;
}

TEST(KernelVariants, WeightedRowsAreAddedInOrderWithoutFusing) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t n : {0, 1, 7, 8, 20, 64, 65, 79, 100, 136, 256}) {
      for (const size_t rows : {0, 1, 2, 15, 16, 17, 40}) {
        expectWeightedRows(*table, rows, n, 0.5f);
      }
    }
    for (const float unusual : kUnusual) {
      expectWeightedRows(*table, 17, 79, unusual);
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
  const size_t keyDim = c.k.size();
  const size_t valueDim = c.v.size();
  for (float& element : c.state) {
    element *= decay;
  }
  std::vector<float> u(valueDim);
  for (size_t j = 0; j < valueDim; ++j) {
    float kv = 0.0f;
    for (size_t i = 0; i < keyDim; ++i) {
      kv = std::fma(c.k[i], c.state[i * valueDim + j], kv);
    }
    u[j] = (c.v[j] - kv) * beta;
  }
  for (size_t i = 0; i < keyDim; ++i) {
    for (size_t j = 0; j < valueDim; ++j) {
      c.state[i * valueDim + j] = std::fma(c.k[i], u[j], c.state[i * valueDim + j]);
    }
  }
  for (size_t j = 0; j < valueDim; ++j) {
    float o = 0.0f;
    for (size_t i = 0; i < keyDim; ++i) {
      o = std::fma(c.state[i * valueDim + j], c.q[i], o);
    }
    c.v[j] = scale * o;
  }
}

void expectDeltaSteps(const KernelTable& table, size_t keyDim, size_t valueDim, float decay,
                      float beta, float unusual) {
  DeltaCase expected{withUnusual(keyDim * valueDim, 81, unusual), withUnusual(keyDim, 82, unusual),
                     withUnusual(keyDim, 83, unusual), withUnusual(valueDim, 84, unusual)};
  Guarded state(expected.state);
  Guarded q(expected.q);
  Guarded k(expected.k);
  Guarded v(expected.v);
  for (int step = 0; step < 3; ++step) {
    deltaStepByContract(expected, decay, beta, 0.1f);
    table.deltaStep(state.data(), q.data(), k.data(), v.data(), keyDim, valueDim, decay, beta,
                    0.1f);
  }
  const std::string what = std::string(table.name) + " dims=" + std::to_string(keyDim) + "x" +
                           std::to_string(valueDim) + " " + std::to_string(decay) + " " +
                           std::to_string(unusual);
  EXPECT_EQ(bits(expected.state), bits(state.checked())) << what;
  EXPECT_EQ(bits(expected.v), bits(v.checked())) << what;
}

TEST(KernelVariants, DeltaStepFollowsTheContract) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t dim : {0, 1, 7, 8, 31, 32, 43, 63, 64, 79, 128}) {
      expectDeltaSteps(*table, dim, dim, 0.9f, 0.7f, 0.5f);
      expectDeltaSteps(*table, 24, dim, 0.9f, 0.7f, 0.5f);
      expectDeltaSteps(*table, dim, 48, 0.9f, 0.7f, 0.5f);
    }
    for (const float unusual : kUnusual) {
      expectDeltaSteps(*table, 43, 43, 0.9f, 0.7f, unusual);
      expectDeltaSteps(*table, 43, 43, 0.0f, 0.7f, unusual);
      expectDeltaSteps(*table, 43, 43, 1.0f, 0.0f, unusual);
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
    table->deltaStep(state.data(), q.data(), k.data(), v.data(), 128, 128, 0.5f, 0.25f, 2.0f);
    for (size_t j = 0; j < 128; ++j) {
      EXPECT_NEAR(2.0 * 0.25 * qk * static_cast<double>(value[j]), v[j], 2e-6) << table->name;
    }
  }
}

// All inputs that the channels of a convolution have had, [channels] each, the latest last.
class ConvolutionInputs {
 public:
  // The history's, which the convolution starts with.
  ConvolutionInputs(const std::vector<float>& history, size_t channels, size_t earlier)
      : inputs(earlier, std::vector<float>(channels)) {
    for (size_t i = 0; i < history.size(); ++i) {
      inputs[i % earlier][i / earlier] = history[i];
    }
  }

  void add(const std::vector<float>& next) { inputs.push_back(next); }

  // Input i of channel c of the latest `count`, from the oldest on.
  float latest(size_t count, size_t i, size_t c) const {
    return inputs[inputs.size() - count + i][c];
  }

  std::vector<float> history(size_t channels, size_t earlier) const {
    std::vector<float> out(channels * earlier);
    for (size_t i = 0; i < out.size(); ++i) {
      out[i] = latest(earlier, i % earlier, i / earlier);
    }
    return out;
  }

 private:
  std::vector<std::vector<float>> inputs;
};

struct Convolution {
  size_t channels;
  size_t nTaps;
  size_t stride;
  std::vector<float> taps;
  std::vector<float> history;

  std::string label(const KernelTable& table) const {
    return std::string(table.name) + " " + std::to_string(channels) + " channels, " +
           std::to_string(nTaps) + " taps in " + std::to_string(stride);
  }
};

Convolution convolution(size_t channels, size_t nTaps, size_t stride, float unusual) {
  return {channels, nTaps, stride, withUnusual(channels * stride, 141, unusual),
          withUnusual(channels * (nTaps - 1), 142, unusual)};
}

// Steps that follow one another, so that each sees what the ones before have left.
void expectConvolution(const KernelTable& table, const Convolution& c,
                       const std::vector<std::vector<float>>& steps) {
  Guarded taps(c.taps);
  Guarded history(c.history);
  ConvolutionInputs inputs(c.history, c.channels, c.nTaps - 1);
  for (const std::vector<float>& step : steps) {
    inputs.add(step);
    std::vector<float> expected(c.channels, 0.0f);
    for (size_t channel = 0; channel < c.channels; ++channel) {
      for (size_t i = 0; i < c.nTaps; ++i) {
        expected[channel] = std::fma(c.taps[channel * c.stride + i],
                                     inputs.latest(c.nTaps, i, channel), expected[channel]);
      }
    }
    Guarded in(step);
    Guarded out(c.channels);
    table.convolve(taps.data(), c.stride, c.nTaps, history.data(), in.data(), out.data(),
                   c.channels);
    EXPECT_EQ(bits(expected), bits(out.checked())) << c.label(table);
    EXPECT_EQ(bits(inputs.history(c.channels, c.nTaps - 1)), bits(history.checked()))
        << c.label(table);
    EXPECT_EQ(bits(step), bits(in.checked())) << c.label(table);
  }
  EXPECT_EQ(bits(c.taps), bits(taps.checked())) << c.label(table);
}

TEST(KernelVariants, ConvolutionFollowsTheContract) {
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t channels : {0, 1, 3, 7, 8, 9, 15, 16, 17, 31, 33, 128}) {
      std::vector<std::vector<float>> steps;
      for (uint32_t step = 0; step < 6; ++step) {
        steps.push_back(randomFloats(channels, 150 + step));
      }
      for (const size_t nTaps : {1, 2, 3, 4, 5}) {
        for (const size_t beyond : {0, 1, 3}) {
          expectConvolution(*table, convolution(channels, nTaps, nTaps + beyond, 0.5f), steps);
        }
      }
    }
  }
}

TEST(KernelVariants, ConvolutionOfUnusualFloatsFollowsTheContract) {
  constexpr size_t kChannels = 43;
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t nTaps : {1, 2, 4, 5}) {
      for (const float unusual : kUnusual) {
        expectConvolution(
            *table, convolution(kChannels, nTaps, nTaps, unusual),
            {withUnusual(kChannels, 161, unusual), randomFloats(kChannels, 162),
             std::vector<float>(kChannels, unusual), std::vector<float>(kChannels, unusual)});
      }
    }
  }
}

TEST(KernelVariants, ConvolutionIsAccurateToItsRoundings) {
  constexpr size_t kChannels = 100;
  for (const size_t nTaps : {1, 2, 4, 5}) {
    Convolution c = convolution(kChannels, nTaps, nTaps, 0.5f);
    const std::vector<float> before = c.history;
    const std::vector<float> in = randomFloats(kChannels, 171);
    std::vector<float> out(kChannels);
    scalar().convolve(c.taps.data(), nTaps, nTaps, c.history.data(), in.data(), out.data(),
                      kChannels);
    for (size_t channel = 0; channel < kChannels; ++channel) {
      double exact = 0.0;
      double magnitude = 0.0;
      for (size_t i = 0; i < nTaps; ++i) {
        const float x = i + 1 < nTaps ? before[channel * (nTaps - 1) + i] : in[channel];
        const double product =
            static_cast<double>(c.taps[channel * nTaps + i]) * static_cast<double>(x);
        exact += product;
        magnitude += std::abs(product);
      }
      EXPECT_NEAR(exact, out[channel], 1.01 * 0x1p-24 * static_cast<double>(nTaps) * magnitude)
          << c.label(scalar()) << " channel " << channel;
    }
  }
}

}  // namespace
