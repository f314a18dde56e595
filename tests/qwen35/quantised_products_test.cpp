// Quantised inputs and the quantised dot products of Q4_K and Q5_K: every tested kernel table
// against the scalar one, and the scalar one against the contract written out in wide integers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "qwen35/simd/dispatch.h"
#include "tests/qwen35/tested_tables.h"
#include "tests/qwen35/weight_rows.h"

namespace {

using kel::QuantType;
using qwen35::InputWords;
using qwen35::KernelTable;
using qwen35::QuantisedInput;
using weight_rows::bits;
using weight_rows::randomFloats;
using weight_rows::randomRows;
using weight_rows::Scales;

constexpr QuantType kQuantisedTypes[] = {QuantType::Q4_K, QuantType::Q5_K};
constexpr size_t kSuper = 256;
constexpr size_t kSub = 32;
constexpr float kLargestInput = 0x1.fffffep121f;  // that is quantised

const KernelTable& scalar() {
  return *qwen35::supportedKernels().front();
}

bool isUntouched(const QuantisedInput& group) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&group);
  return std::all_of(bytes, bytes + sizeof group, [](uint8_t byte) { return byte == 0x5A; });
}

// The groups of an input that is moved one float off alignment, in memory that was not zero.
std::vector<QuantisedInput> quantised(const KernelTable& table, const std::vector<float>& x) {
  std::vector<QuantisedInput> groups(qwen35::quantisedGroups(x.size()) + 1);
  for (QuantisedInput& group : groups) {
    std::memset(static_cast<void*>(&group), 0x5A, sizeof group);
  }
  std::vector<float> moved(x.size() + 1);
  std::copy(x.begin(), x.end(), moved.begin() + 1);
  EXPECT_TRUE(table.quantiseInput(moved.data() + 1, x.size(), groups.data()));
  EXPECT_TRUE(isUntouched(groups.back())) << table.name;
  groups.pop_back();
  return groups;
}

// Every product of a row of weights that is moved one byte off alignment.
std::vector<float> dotProducts(const KernelTable& table, QuantType type,
                               const std::vector<uint8_t>& weights,
                               const std::vector<QuantisedInput>& groups, size_t rows,
                               size_t cols) {
  std::vector<uint8_t> moved(weights.size() + 1);
  std::copy(weights.begin(), weights.end(), moved.begin() + 1);
  std::vector<float> out(rows + 1, 12345.0f);
  (type == QuantType::Q4_K ? table.rowsQ4K : table.rowsQ5K)(moved.data() + 1, groups.data(),
                                                            out.data(), rows, cols);
  EXPECT_EQ(12345.0f, out.back()) << table.name;
  out.pop_back();
  return out;
}

std::vector<float> dotProducts(const KernelTable& table, QuantType type,
                               const std::vector<uint8_t>& weights, const std::vector<float>& x,
                               size_t rows) {
  return dotProducts(table, type, weights, quantised(table, x), rows, x.size());
}

std::string label(const KernelTable& table, QuantType type, size_t cols) {
  return std::string(table.name) + " " + kel::quantTypeName(type) + " " + std::to_string(cols);
}

// Inputs as a network has them, of wide range, and at the edges of the float format.
std::vector<std::vector<float>> inputs(size_t cols) {
  std::vector<std::vector<float>> out{randomFloats(cols, 1), std::vector<float>(cols, 0.0f),
                                      std::vector<float>(cols, -0.0f)};
  std::mt19937 generator(2);
  std::vector<float> wide = randomFloats(cols, 3);
  for (float& value : wide) {
    value = std::ldexp(value, static_cast<int>(generator() % 60) - 30);
  }
  out.push_back(wide);
  for (const float filler : {0x1p-149f, -0x1p-140f, 0x1p-100f, 1.0f, -0.9999999f, 0x1.fcfefep-1f,
                             0x1.fcfefcp-1f, 0x1.fdp-1f, 0x1p121f, -kLargestInput}) {
    out.emplace_back(cols, filler);
    std::vector<float> one = randomFloats(cols, 4);
    if (cols > 0) {
      one[cols / 2 + 3] = filler;
    }
    out.push_back(one);
  }
  return out;
}

// Limb p of element i of a super-block.
int64_t limbAt(const QuantisedInput& group, size_t block, size_t i, size_t p) {
  const size_t sub = i / kSub;
  const size_t pair = sub / 4 * 2 + sub % 2;  // 0 and 2, 1 and 3, 4 and 6, 5 and 7
  const size_t half = sub % 4 < 2 ? 0 : 1;
  return group.limbs[block][pair][p][half][i % kSub];
}

// An element in fixed point, in units of its last limb.
int64_t fixedAt(const QuantisedInput& group, size_t block, size_t i) {
  int64_t fixed = 0;
  for (size_t p = 4; p-- > 0;) {
    fixed = fixed * 256 + limbAt(group, block, i, p);
  }
  return fixed;
}

float sumAt(const QuantisedInput& group, size_t block, size_t sub) {
  return group.sums[block][sub];
}

TEST(QuantisedInput, IsTheNearestFixedPointOfTheLargestShift) {
  for (const std::vector<float>& x : inputs(3 * kSuper)) {
    const std::vector<QuantisedInput> groups = quantised(scalar(), x);
    for (size_t b = 0; b < 3; ++b) {
      const double unit = groups[0].scales[b] * 0x1p-8;
      double largest = 0.0;
      double magnitudes = 0.0;
      for (size_t i = 0; i < kSuper; ++i) {
        const double value = x[b * kSuper + i];
        const double nearest = std::nearbyint(value / unit);
        largest = std::max(largest, std::abs(value));
        magnitudes += std::floor(std::abs(nearest) / 256);
        const double error = std::abs(nearest - static_cast<double>(fixedAt(groups[0], b, i)));
        EXPECT_LE(error, groups[0].keepsLastLimb[b] ? 0.0 : 128.0);
      }
      EXPECT_EQ(magnitudes < 0x1p27, groups[0].keepsLastLimb[b]);
      EXPECT_LE(largest / unit, 0x7F7F7F00);
      if (largest == 0.0) {
        EXPECT_EQ(0x1p-8, unit);
      } else if (unit > 0x1p-108) {
        EXPECT_GT(2.0 * largest / unit, 0x7F7F7F00);
      }
      EXPECT_GE(unit, 0x1p-108);
    }
  }
}

TEST(QuantisedInput, LastLimbsAreKeptBesideOutliersAlone) {
  std::vector<float> x = randomFloats(2 * kSuper, 7);
  x[300] = 50.0f;
  for (const KernelTable* table : qwen35::testedTables()) {
    const std::vector<QuantisedInput> groups = quantised(*table, x);
    EXPECT_FALSE(groups[0].keepsLastLimb[0]) << table->name;
    EXPECT_TRUE(groups[0].keepsLastLimb[1]) << table->name;
    EXPECT_EQ(0, limbAt(groups[0], 0, 0, 0)) << table->name;
  }
}

// Where |fixed| / 256 sum up to 2^27: 32 elements of 2^30, and one of them a little less.
TEST(QuantisedInput, LastLimbsAreKeptBelowASixteenthOfTheRange) {
  std::vector<float> x(2 * kSuper, 0.0f);
  for (size_t i = 0; i < 32; ++i) {
    x[8 * i] = x[kSuper + 8 * i] = i % 2 == 0 ? 1.0f : -1.0f;
  }
  x[kSuper + 8] = -0x1.fffffep-1f;
  for (const KernelTable* table : qwen35::testedTables()) {
    const std::vector<QuantisedInput> groups = quantised(*table, x);
    EXPECT_FALSE(groups[0].keepsLastLimb[0]) << table->name;
    EXPECT_TRUE(groups[0].keepsLastLimb[1]) << table->name;
  }
}

TEST(QuantisedInput, SumsAreThoseOfTheFixedPointElements) {
  for (const std::vector<float>& x : inputs(2 * kSuper)) {
    const std::vector<QuantisedInput> groups = quantised(scalar(), x);
    for (size_t b = 0; b < 2; ++b) {
      for (size_t sub = 0; sub < 8; ++sub) {
        int64_t sum = 0;
        for (size_t i = 0; i < kSub; ++i) {
          sum += fixedAt(groups[0], b, sub * kSub + i);
        }
        EXPECT_EQ(static_cast<float>(sum) * 0x1p-8f * groups[0].scales[b],
                  sumAt(groups[0], b, sub));
      }
    }
  }
}

TEST(QuantisedInput, MissingSuperBlocksOfTheLastGroupAreZero) {
  for (const KernelTable* table : qwen35::testedTables()) {
    const std::vector<QuantisedInput> groups = quantised(*table, randomFloats(5 * kSuper, 5));
    ASSERT_EQ(2u, groups.size());
    for (size_t b = 1; b < 4; ++b) {
      EXPECT_EQ(0.0f, groups[1].scales[b]);
      EXPECT_FALSE(groups[1].keepsLastLimb[b]) << table->name;
      for (size_t i = 0; i < kSuper; ++i) {
        EXPECT_EQ(0, fixedAt(groups[1], b, i));
      }
      for (size_t sub = 0; sub < 8; ++sub) {
        EXPECT_EQ(0.0f, sumAt(groups[1], b, sub));
      }
    }
  }
}

TEST(QuantisedInput, TiesRoundToEven) {
  constexpr float kUnit = 0x1p-30f;  // of the largest element's fixed point
  const std::pair<float, int64_t> ties[] = {{0.5f, 0},  {1.5f, 2},   {2.5f, 2},   {3.5f, 4},
                                            {-0.5f, 0}, {-1.5f, -2}, {-2.5f, -2}, {-3.5f, -4}};
  std::vector<float> x(kSuper, 0.0f);
  x[0] = 1.0f;
  for (size_t i = 1; i < kSuper; ++i) {
    x[i] = ties[i % 8].first * kUnit;
  }
  for (const KernelTable* table : qwen35::testedTables()) {
    const std::vector<QuantisedInput> groups = quantised(*table, x);
    ASSERT_TRUE(groups[0].keepsLastLimb[0]);
    for (size_t i = 1; i < kSuper; ++i) {
      EXPECT_EQ(ties[i % 8].second, fixedAt(groups[0], 0, i)) << table->name << " " << i;
    }
  }
}

TEST(QuantisedInput, IsTheSameInEveryTable) {
  for (const size_t cols : {0u, 256u, 512u, 768u, 1024u, 1280u, 4096u + 256u}) {
    for (const std::vector<float>& x : inputs(cols)) {
      const std::vector<QuantisedInput> expected = quantised(scalar(), x);
      for (const KernelTable* table : qwen35::testedTables()) {
        const std::vector<QuantisedInput> actual = quantised(*table, x);
        for (size_t g = 0; g < expected.size(); ++g) {
          EXPECT_EQ(0, std::memcmp(expected[g].limbs, actual[g].limbs, sizeof actual[g].limbs));
          EXPECT_EQ(0, std::memcmp(expected[g].sums, actual[g].sums, sizeof actual[g].sums));
          EXPECT_EQ(0, std::memcmp(expected[g].scales, actual[g].scales, sizeof actual[g].scales));
          EXPECT_TRUE(std::ranges::equal(expected[g].keepsLastLimb, actual[g].keepsLastLimb));
        }
      }
    }
  }
}

TEST(QuantisedInput, RefusesElementsThatAreTooLargeOrNotFinite) {
  const auto accepts = [](const KernelTable& table, float odd, size_t at) {
    std::vector<float> x = randomFloats(512, 6);
    x[at] = odd;
    std::vector<QuantisedInput> groups(1);
    return table.quantiseInput(x.data(), x.size(), groups.data());
  };
  for (const KernelTable* table : qwen35::testedTables()) {
    for (const size_t at : {0u, 7u, 255u, 256u, 300u, 511u}) {
      for (const float odd : {INFINITY, -INFINITY, NAN, -NAN, 0x1p122f, -0x1p122f,
                              std::numeric_limits<float>::max()}) {
        EXPECT_FALSE(accepts(*table, odd, at)) << table->name << " " << at << " " << odd;
      }
      EXPECT_TRUE(accepts(*table, kLargestInput, at)) << table->name << " " << at;
      EXPECT_TRUE(accepts(*table, -kLargestInput, at)) << table->name << " " << at;
    }
  }
}

// Of the largest inputs that are quantised, 32 of one sign still sum up to a float: a minimum of
// zero times an infinite sum would be NaN.
TEST(QuantisedProducts, OfTheLargestInputsStayFinite) {
  const std::vector<float> x(2 * kSuper, kLargestInput);
  for (const QuantType type : kQuantisedTypes) {
    std::vector<uint8_t> weights = randomRows(type, 3, x.size(), 13);
    for (size_t at = 0; at < weights.size(); at += weight_rows::blockBytes(type)) {
      weight_rows::put16(weights, at, kel::quant::f32ToF16(0x1p-14f));
      weight_rows::put16(weights, at + 2, 0);
    }
    for (const KernelTable* table : qwen35::testedTables()) {
      for (const float sum : dotProducts(*table, type, weights, x, 3)) {
        EXPECT_TRUE(std::isfinite(sum)) << label(*table, type, x.size());
      }
    }
  }
}

TEST(QuantisedProducts, AreTheSameBitsInEveryTable) {
  for (const QuantType type : kQuantisedTypes) {
    for (const size_t cols : {0u, 256u, 512u, 768u, 1024u, 2560u, 4096u, 4352u, 9216u}) {
      for (const size_t rows : {0u, 1u, 3u, 5u}) {
        const std::vector<uint8_t> weights = randomRows(type, rows, cols, 11);
        for (const std::vector<float>& x : inputs(cols)) {
          const std::vector<uint32_t> expected =
              bits(dotProducts(scalar(), type, weights, x, rows));
          for (const KernelTable* table : qwen35::testedTables()) {
            EXPECT_EQ(expected, bits(dotProducts(*table, type, weights, x, rows)))
                << label(*table, type, cols);
          }
        }
      }
    }
  }
}

// Around sixteen rows, whose sums are built up together, and sixteen super-blocks, a span.
TEST(QuantisedProducts, OfManyRowsAndAnyNumberOfSuperBlocksAreTheSameBits) {
  for (const QuantType type : kQuantisedTypes) {
    for (const auto& [rows, blocks] :
         {std::pair{15, 3}, {16, 5}, {17, 15}, {33, 17}, {2, 18}, {2, 33}, {1, 49}}) {
      const size_t cols = static_cast<size_t>(blocks) * kSuper;
      const std::vector<uint8_t> weights = randomRows(type, rows, cols, 14);
      const std::vector<float> x = randomFloats(cols, 15);
      const std::vector<uint32_t> expected = bits(dotProducts(scalar(), type, weights, x, rows));
      for (const KernelTable* table : qwen35::testedTables()) {
        EXPECT_EQ(expected, bits(dotProducts(*table, type, weights, x, rows)))
            << label(*table, type, cols) << " " << rows;
      }
    }
  }
}

TEST(QuantisedProducts, OfAnyBitPatternAreTheSameBits) {
  for (const QuantType type : kQuantisedTypes) {
    for (uint32_t seed = 0; seed < 60; ++seed) {
      const std::vector<uint8_t> weights = randomRows(type, 12, 1280, seed, Scales::AnyBits);
      const std::vector<float> x = randomFloats(1280, seed, -1e3f, 1e3f);
      const std::vector<uint32_t> expected = bits(dotProducts(scalar(), type, weights, x, 12));
      for (const KernelTable* table : qwen35::testedTables()) {
        EXPECT_EQ(expected, bits(dotProducts(*table, type, weights, x, 12)))
            << label(*table, type, seed);
      }
    }
  }
}

// Several inputs as the products of several take them, and each by itself.
struct SeveralInputs {
  std::vector<std::vector<QuantisedInput>> each;
  std::vector<QuantisedInput> all;
  std::vector<InputWords> words;
};

SeveralInputs severalInputs(const KernelTable& table,
                            const std::vector<std::vector<QuantisedInput>>& each, size_t blocks) {
  SeveralInputs out{each, {}, std::vector<InputWords>(blocks * each.size())};
  for (size_t i = 0; i < each.size(); ++i) {
    out.all.insert(out.all.end(), each[i].begin(), each[i].end());
    for (size_t b = 0; b < blocks; ++b) {
      table.splitInput(each[i][b / 4], b % 4, out.words[b * each.size() + i]);
    }
  }
  return out;
}

void expectEachInputsSums(const KernelTable& table, QuantType type,
                          const std::vector<std::vector<QuantisedInput>>& each,
                          const std::vector<uint8_t>& weights, size_t rows, size_t cols) {
  const SeveralInputs inputs = severalInputs(table, each, cols / kSuper);
  std::vector<uint8_t> moved(weights.size() + 1);
  std::copy(weights.begin(), weights.end(), moved.begin() + 1);
  std::vector<float> out(rows * each.size() + 1, 12345.0f);
  (type == QuantType::Q4_K ? table.severalQ4K : table.severalQ5K)(
      moved.data() + 1, inputs.all.data(), inputs.words.data(), each.size(), out.data(), rows,
      cols);
  EXPECT_EQ(12345.0f, out.back()) << table.name;
  for (size_t i = 0; i < each.size(); ++i) {
    const std::vector<float> expected = dotProducts(scalar(), type, weights, each[i], rows, cols);
    for (size_t r = 0; r < rows; ++r) {
      EXPECT_EQ(bits(expected[r]), bits(out[r * each.size() + i]))
          << label(table, type, cols) << " row " << r << " input " << i << " of " << each.size();
    }
  }
}

std::vector<const KernelTable*> tablesOfSeveralInputs() {
  std::vector<const KernelTable*> tables = qwen35::testedTables();
  std::erase_if(tables, [](const KernelTable* table) { return table->severalQ4K == nullptr; });
  return tables;
}

// Around eight inputs, whose rows are unpacked once, sixteen rows, and sixteen super-blocks, a
// span.
TEST(QuantisedProducts, OfSeveralInputsAreThoseOfEach) {
  for (const QuantType type : kQuantisedTypes) {
    for (const auto& [nInputs, rows, blocks] : {std::tuple{1, 1, 1},
                                                {2, 15, 3},
                                                {3, 16, 5},
                                                {5, 17, 16},
                                                {8, 9, 17},
                                                {9, 33, 10},
                                                {17, 3, 33},
                                                {2, 0, 4},
                                                {9, 2, 0}}) {
      const size_t cols = static_cast<size_t>(blocks) * kSuper;
      std::vector<std::vector<QuantisedInput>> each;
      for (int i = 0; i < nInputs; ++i) {
        each.push_back(quantised(scalar(), randomFloats(cols, static_cast<uint32_t>(20 + i))));
      }
      const std::vector<uint8_t> weights = randomRows(type, static_cast<size_t>(rows), cols, 16);
      for (const KernelTable* table : tablesOfSeveralInputs()) {
        expectEachInputsSums(*table, type, each, weights, static_cast<size_t>(rows), cols);
      }
    }
  }
}

TEST(QuantisedProducts, OfSeveralInputsOfAnyRangeAreThoseOfEach) {
  constexpr size_t kCols = 5 * kSuper;
  std::vector<std::vector<QuantisedInput>> each;
  for (const std::vector<float>& x : inputs(kCols)) {
    each.push_back(quantised(scalar(), x));
  }
  for (const QuantType type : kQuantisedTypes) {
    for (uint32_t seed = 0; seed < 10; ++seed) {
      const std::vector<uint8_t> weights = randomRows(type, 5, kCols, seed, Scales::AnyBits);
      for (const KernelTable* table : tablesOfSeveralInputs()) {
        expectEachInputsSums(*table, type, each, weights, 5, kCols);
      }
    }
  }
}

// Limbs at their ends: the largest codes and scales with the largest limbs of one sign pass 2^31 in
// a lane unless they are taken as what they are.
TEST(QuantisedProducts, OfSeveralInputsWithExtremeLimbsAreThoseOfEach) {
  std::vector<std::vector<QuantisedInput>> each;
  for (const int8_t first : {int8_t{-128}, int8_t{127}, int8_t{-1}, int8_t{0}}) {
    for (const int8_t second : {int8_t{-128}, int8_t{127}, int8_t{1}}) {
      std::vector<QuantisedInput> input(1);
      std::memset(static_cast<void*>(input.data()), 0, sizeof(QuantisedInput));
      for (size_t b = 0; b < 4; ++b) {
        input[0].scales[b] = 1.0f;
        for (auto& pair : input[0].limbs[b]) {
          std::memset(pair[1], first, sizeof pair[1]);
          std::memset(pair[2], second, sizeof pair[2]);
          std::memset(pair[3], b % 2 == 0 ? 127 : -128, sizeof pair[3]);
        }
      }
      each.push_back(input);
    }
  }
  for (const QuantType type : kQuantisedTypes) {
    std::vector<uint8_t> weights(4 * weight_rows::blockBytes(type), 0xFF);
    for (size_t b = 0; b < 4; ++b) {
      weight_rows::put16(weights, b * weight_rows::blockBytes(type), kel::quant::f32ToF16(1.0f));
      weight_rows::put16(weights, b * weight_rows::blockBytes(type) + 2, 0);
    }
    for (const KernelTable* table : tablesOfSeveralInputs()) {
      expectEachInputsSums(*table, type, each, weights, 1, 4 * kSuper);
    }
  }
}

// Weight i of a row is superScale * scale * code - superMinimum * minimum.
struct RowParts {
  float superScale;
  float superMinimum;
  uint8_t scale[8];
  uint8_t minimum[8];
  int code[kSuper];
};

RowParts parts(QuantType type, const uint8_t* super) {
  RowParts out{};
  uint16_t half[2];
  std::memcpy(half, super, sizeof half);
  out.superScale = kel::quant::f16ToF32(half[0]);
  out.superMinimum = kel::quant::f16ToF32(half[1]);
  for (int sub = 0; sub < 8; ++sub) {
    kel::quant::getScaleMinK4(sub, super + 4, out.scale[sub], out.minimum[sub]);
  }
  const uint8_t* nibbles = super + (type == QuantType::Q4_K ? 16 : 48);
  for (size_t i = 0; i < kSuper; ++i) {
    const size_t sub = i / kSub;
    out.code[i] = (nibbles[sub / 2 * kSub + i % kSub] >> (sub % 2 * 4)) & 15;
    if (type == QuantType::Q5_K) {
      out.code[i] += (super[16 + i % kSub] >> sub & 1) * 16;
    }
  }
  return out;
}

float sumByContract(QuantType type, const uint8_t* row, const std::vector<float>& x) {
  const std::vector<QuantisedInput> groups = quantised(scalar(), x);
  float total[8] = {};
  const size_t blocks = x.size() / kSuper;
  for (size_t span = 0; span < blocks; span += 16) {
    float chain[8] = {};
    float low[8] = {};
    for (size_t b = span; b < std::min(span + 16, blocks); ++b) {
      const QuantisedInput& group = groups[b / 4];
      const RowParts p = parts(type, row + b * weight_rows::blockBytes(type));
      for (size_t lane = 0; lane < 8; ++lane) {
        int64_t sums[4] = {};
        for (size_t i = 0; i < kSuper; ++i) {
          for (size_t l = 0; i % kSub / 4 == lane && l < 4; ++l) {
            sums[l] += int64_t{p.scale[i / kSub]} * p.code[i] * limbAt(group, b % 4, i, l);
          }
        }
        const float units =
            std::fma(static_cast<float>(sums[0]), 1.0f / 256.0f, static_cast<float>(sums[1]));
        const float lower = std::fma(static_cast<float>(sums[2]), 256.0f, units);
        const float value = std::fma(static_cast<float>(sums[3]), 65536.0f, lower);
        chain[lane] = std::fma(value, p.superScale * group.scales[b % 4], chain[lane]);
      }
      for (size_t sub = 0; sub < 8; ++sub) {
        low[sub] = std::fma(p.superMinimum * static_cast<float>(p.minimum[sub]),
                            sumAt(group, b % 4, sub), low[sub]);
      }
    }
    for (size_t lane = 0; lane < 8; ++lane) {
      total[lane] += chain[lane] - low[lane];
    }
  }
  const float even = (total[0] + total[4]) + (total[2] + total[6]);
  const float odd = (total[1] + total[5]) + (total[3] + total[7]);
  return even + odd;
}

TEST(QuantisedProducts, FollowTheContract) {
  for (const QuantType type : kQuantisedTypes) {
    for (const size_t cols : {256u, 512u, 768u, 2560u, 4096u, 4352u, 9216u}) {
      const std::vector<uint8_t> weights = randomRows(type, 1, cols, 41);
      const std::vector<float> x = randomFloats(cols, 42);
      const float expected = sumByContract(type, weights.data(), x);
      for (const KernelTable* table : qwen35::testedTables()) {
        EXPECT_EQ(bits(expected), bits(dotProducts(*table, type, weights, x, 1)[0]))
            << label(*table, type, cols);
      }
    }
  }
}

void store(QuantType type, const RowParts& p, uint8_t* super) {
  const uint16_t halves[] = {kel::quant::f32ToF16(p.superScale),
                             kel::quant::f32ToF16(p.superMinimum)};
  std::memcpy(super, halves, sizeof halves);
  for (size_t sub = 0; sub < 4; ++sub) {
    const uint8_t upperScale = p.scale[sub + 4];
    const uint8_t upperMinimum = p.minimum[sub + 4];
    super[4 + sub] = static_cast<uint8_t>(p.scale[sub] | (upperScale >> 4 << 6));
    super[8 + sub] = static_cast<uint8_t>(p.minimum[sub] | (upperMinimum >> 4 << 6));
    super[12 + sub] = static_cast<uint8_t>((upperScale & 15) | (upperMinimum << 4));
  }
  uint8_t* nibbles = super + (type == QuantType::Q4_K ? 16 : 48);
  std::fill(super + 16, super + weight_rows::blockBytes(type), uint8_t{0});
  for (size_t i = 0; i < kSuper; ++i) {
    const size_t sub = i / kSub;
    nibbles[sub / 2 * kSub + i % kSub] |= static_cast<uint8_t>((p.code[i] & 15) << (sub % 2 * 4));
    if (type == QuantType::Q5_K) {
      super[16 + i % kSub] |= static_cast<uint8_t>(p.code[i] >> 4 << sub);
    }
  }
}

// The largest codes and scales on the largest limbs: every sum of integers is at its end.
TEST(QuantisedProducts, OfTheLargestIntegerSumsAreExact) {
  for (const QuantType type : kQuantisedTypes) {
    RowParts largest{};
    largest.superScale = 1.0f;
    std::fill_n(largest.scale, 8, uint8_t{63});
    const int code = type == QuantType::Q4_K ? 15 : 31;
    std::fill_n(largest.code, kSuper, code);
    std::vector<uint8_t> weights(weight_rows::blockBytes(type));
    store(type, largest, weights.data());
    for (const int limb : {-128, -127, 127}) {
      for (const bool keepsLast : {false, true}) {
        std::vector<QuantisedInput> groups(1);
        groups[0].scales[0] = 1.0f;
        groups[0].keepsLastLimb[0] = keepsLast;
        for (auto& pair : groups[0].limbs[0]) {
          std::memset(pair, limb, sizeof pair);
          std::memset(pair[0], keepsLast ? limb : 0, sizeof pair[0]);
        }
        const auto sum = static_cast<float>(63 * code * 8 * 4 * limb);
        const float units = keepsLast ? std::fma(sum, 0x1p-8f, sum) : sum;
        const float lane = std::fma(sum, 65536.0f, std::fma(sum, 256.0f, units));
        for (const KernelTable* table : qwen35::testedTables()) {
          EXPECT_EQ(8.0f * lane, dotProducts(*table, type, weights, groups, 1, kSuper)[0])
              << label(*table, type, kSuper) << " " << limb << " " << keepsLast;
        }
      }
    }
  }
}

// Groups of any limbs, and of sums and scales that the products have to carry along.
std::vector<QuantisedInput> randomGroups(size_t cols, uint32_t seed) {
  std::mt19937 generator(seed);
  std::vector<QuantisedInput> groups(qwen35::quantisedGroups(cols));
  const std::vector<float> odd = {1.0f, -0.0f, 0x1p-149f, 0x1p120f, INFINITY, NAN};
  for (size_t b = 0; b < cols / kSuper; ++b) {
    QuantisedInput& group = groups[b / 4];
    group.keepsLastLimb[b % 4] = generator() % 2 == 0;
    for (auto& pair : group.limbs[b % 4]) {
      for (size_t p = group.keepsLastLimb[b % 4] ? 0 : 1; p < 4; ++p) {
        for (size_t i = 0; i < 2 * kSub; ++i) {
          pair[p][i / kSub][i % kSub] = static_cast<int8_t>(generator());
        }
      }
    }
    for (float& sum : group.sums[b % 4]) {
      sum = generator() % 64 == 0 ? odd[generator() % odd.size()] : static_cast<float>(generator());
    }
    group.scales[b % 4] = std::ldexp(1.0f, static_cast<int>(generator() % 40) - 20);
  }
  return groups;
}

TEST(QuantisedProducts, OfAnyLimbsAreTheSameBits) {
  for (const QuantType type : kQuantisedTypes) {
    for (uint32_t seed = 0; seed < 40; ++seed) {
      const size_t cols = (1 + seed % 18) * kSuper;
      const Scales scales = seed % 4 == 0 ? Scales::AnyBits : Scales::Usual;
      const std::vector<uint8_t> weights = randomRows(type, 5, cols, seed, scales);
      const std::vector<QuantisedInput> groups = randomGroups(cols, seed);
      const std::vector<uint32_t> expected =
          bits(dotProducts(scalar(), type, weights, groups, 5, cols));
      for (const KernelTable* table : qwen35::testedTables()) {
        EXPECT_EQ(expected, bits(dotProducts(*table, type, weights, groups, 5, cols)))
            << label(*table, type, cols) << " " << seed;
      }
    }
  }
}

constexpr size_t kRows = 16;

// Random rows of which edit(parts, super-block of the row) has changed every super-block.
template <typename Edit>
std::vector<uint8_t> editedRows(QuantType type, size_t cols, const Edit& edit) {
  std::vector<uint8_t> weights = randomRows(type, kRows, cols, 71);
  const size_t blocks = cols / kSuper;
  for (size_t b = 0; b < kRows * blocks; ++b) {
    uint8_t* super = weights.data() + b * weight_rows::blockBytes(type);
    RowParts p = parts(type, super);
    edit(p, b % blocks);
    store(type, p, super);
  }
  return weights;
}

// The one outlier of super-block b.
constexpr size_t outlierAt(size_t b) {
  return 17 * b % kSuper;
}

std::vector<uint8_t> zeroWeightsAtOutliers(QuantType type, size_t cols) {
  return editedRows(type, cols, [](RowParts& p, size_t b) {
    p.minimum[outlierAt(b) / kSub] = 0;
    p.code[outlierAt(b)] = 0;
  });
}

// Weights of zero as the difference of a code part and a minimum part that are not.
std::vector<uint8_t> cancelledWeightsAtOutliers(QuantType type, size_t cols) {
  return editedRows(type, cols, [](RowParts& p, size_t b) {
    const size_t sub = outlierAt(b) / kSub;
    p.superMinimum = p.superScale;
    p.scale[sub] = 7;
    p.minimum[sub] = 63;
    p.code[outlierAt(b)] = 9;
  });
}

// All weights of a sub-block are zero in that way, but for one that is a step of the code away.
std::vector<uint8_t> cancelledWeights(QuantType type, size_t cols) {
  return editedRows(type, cols, [](RowParts& p, size_t b) {
    p.superMinimum = p.superScale;
    for (size_t sub = 0; sub < 8; ++sub) {
      const int code = 3 + p.scale[sub] % 12;
      p.scale[sub] = static_cast<uint8_t>(63 / code);
      p.minimum[sub] = static_cast<uint8_t>(p.scale[sub] * code);
      std::fill_n(p.code + sub * kSub, kSub, code);
      p.code[sub * kSub + (b + sub) % kSub] = code + 1;
    }
  });
}

// One weight in a super-block, at some even element other than the first.
std::vector<uint8_t> sparseWeights(QuantType type, size_t cols) {
  return editedRows(type, cols, [](RowParts& p, size_t b) {
    const size_t at = 2 + 2 * ((static_cast<size_t>(p.code[0]) * 7 + b) % 127);
    std::fill_n(p.minimum, 8, uint8_t{0});
    std::fill_n(p.code, kSuper, 0);
    p.scale[at / kSub] |= 1;
    p.code[at] = 13;
  });
}

std::vector<float> gaussian(size_t n, float scale = 1.0f) {
  std::mt19937 generator(81);
  std::normal_distribution<float> value;
  std::vector<float> out(n);
  for (float& v : out) {
    v = scale * value(generator);
  }
  return out;
}

std::vector<float> withOutliers(size_t n, float factor) {
  std::vector<float> out = gaussian(n);
  for (size_t b = 0; b < n / kSuper; ++b) {
    out[b * kSuper + outlierAt(b)] = factor * 2.5f;
  }
  return out;
}

// Small where sparse weights are, up to `odd` between; the first of a super-block is 1.
std::vector<float> mostlySmall(size_t n, float odd) {
  std::vector<float> out = randomFloats(n, 82);
  for (size_t i = 0; i < n; ++i) {
    out[i] = i % kSuper == 0 ? 1.0f : out[i] * (i % 2 == 0 ? 1e-5f : odd);
  }
  return out;
}

// The error of one dot product against double precision over the decoded row, and what it is
// compared with.
struct Accuracy {
  double error = 0.0;
  double products = 0.0;  // sum of |w * x|
  double bound = 0.0;     // of docs/kernels.md
};

Accuracy accuracyOf(QuantType type, const uint8_t* row, const std::vector<float>& x, float sum) {
  const size_t blocks = x.size() / kSuper;
  const size_t roundings = std::min<size_t>(blocks, 16) + (blocks + 15) / 16 + 7;
  const std::vector<float> w = weight_rows::decoded(type, row, x.size());
  Accuracy out;
  double exact = 0.0;
  for (size_t b = 0; b < blocks; ++b) {
    const RowParts p = parts(type, row + b * weight_rows::blockBytes(type));
    double largest = 0x1p-77;
    double inputs = 0.0;
    double magnitudes = 0.0;
    for (size_t i = 0; i < kSuper; ++i) {
      const double value = x[b * kSuper + i];
      const double weight = w[b * kSuper + i];
      const double magnitude =
          std::abs(static_cast<double>(p.superScale)) * p.scale[i / kSub] * p.code[i] +
          std::abs(static_cast<double>(p.superMinimum)) * p.minimum[i / kSub];
      exact += weight * value;
      out.products += std::abs(weight * value);
      out.bound += static_cast<double>(roundings) * 0x1p-24 * magnitude * std::abs(value);
      largest = std::max(largest, std::abs(value));
      inputs += std::abs(value);
      magnitudes += magnitude;
    }
    const bool fourLimbs = inputs / kSuper < largest / 16;
    out.bound += (fourLimbs ? 1.01 * 0x1p-30 : 1.02 * 0x1p-23) * largest * magnitudes;
  }
  out.error = std::abs(exact - static_cast<double>(sum));
  return out;
}

std::vector<Accuracy> accuracies(QuantType type, const std::vector<uint8_t>& weights,
                                 const std::vector<float>& x, size_t rows = kRows) {
  const std::vector<float> sums = dotProducts(scalar(), type, weights, x, rows);
  std::vector<Accuracy> out;
  for (size_t r = 0; r < rows; ++r) {
    out.push_back(accuracyOf(type, weights.data() + r * (weights.size() / rows), x, sums[r]));
  }
  return out;
}

void expectBounded(QuantType type, const std::vector<uint8_t>& weights,
                   const std::vector<float>& x) {
  for (const Accuracy& a : accuracies(type, weights, x)) {
    EXPECT_LE(a.error, a.bound) << label(scalar(), type, x.size());
  }
}

// The largest error over the sum of |w * x|.
double worstError(const std::vector<Accuracy>& accuracies) {
  double worst = 0.0;
  for (const Accuracy& a : accuracies) {
    worst = std::max(worst, a.error / a.products);
  }
  return worst;
}

constexpr size_t kBoundedLengths[] = {256, 768, 2560, 4352, 9216};

TEST(QuantisedProducts, ErrorsOfRandomRowsAreBounded) {
  for (const QuantType type : kQuantisedTypes) {
    for (const size_t cols : kBoundedLengths) {
      for (const Scales scales : {Scales::Usual, Scales::Positive}) {
        const std::vector<uint8_t> weights = randomRows(type, kRows, cols, 51, scales);
        expectBounded(type, weights, randomFloats(cols, 52));
        expectBounded(type, weights, randomFloats(cols, 52, 0.0f));
        expectBounded(type, weights, gaussian(cols));
        expectBounded(type, weights, std::vector<float>(cols, 1.2345678f));
      }
    }
  }
}

TEST(QuantisedProducts, ErrorsBesideOutliersAreBounded) {
  for (const QuantType type : kQuantisedTypes) {
    for (const size_t cols : kBoundedLengths) {
      for (const float factor : {3.0f, 10.0f, 30.0f, 1e3f, 1e6f, 1e9f}) {
        const std::vector<float> x = withOutliers(cols, factor);
        expectBounded(type, randomRows(type, kRows, cols, 62), x);
        expectBounded(type, zeroWeightsAtOutliers(type, cols), x);
        expectBounded(type, cancelledWeightsAtOutliers(type, cols), x);
      }
    }
  }
}

TEST(QuantisedProducts, ErrorsOfWeightsThatCancelAreBounded) {
  for (const QuantType type : kQuantisedTypes) {
    for (const size_t cols : kBoundedLengths) {
      expectBounded(type, cancelledWeights(type, cols), gaussian(cols));
      expectBounded(type, cancelledWeights(type, cols), randomFloats(cols, 52, 0.0f));
    }
  }
}

// Nothing evens out: what fixed point takes off the one input that counts is the error.
TEST(QuantisedProducts, ErrorsOfSparseRowsAreBounded) {
  for (const QuantType type : kQuantisedTypes) {
    for (const size_t cols : kBoundedLengths) {
      for (const float odd : {1e-5f, 0.2f, 1.0f}) {
        expectBounded(type, sparseWeights(type, cols), mostlySmall(cols, odd));
      }
    }
  }
}

TEST(QuantisedProducts, ErrorsOfTinyAndHugeInputsAreBounded) {
  for (const QuantType type : kQuantisedTypes) {
    for (const float scale : {0x1p-149f, 0x1p-120f, 0x1p-101f, 0x1p-82f, 0x1p-80f, 0x1p-78f,
                              0x1p-70f, 0x1p70f, 0x1p110f}) {
      expectBounded(type, randomRows(type, kRows, 2560, 51), gaussian(2560, scale));
      expectBounded(type, zeroWeightsAtOutliers(type, 2560), gaussian(2560, scale));
    }
  }
}

// The bound is not one of the sum of |w * x|: that knows nothing of an input whose weight is zero.
TEST(QuantisedProducts, OutliersAtWeightsOfZeroCostTheOtherInputsAccuracy) {
  for (const QuantType type : kQuantisedTypes) {
    const std::vector<float> x = withOutliers(2560, 1e6f);
    EXPECT_GT(worstError(accuracies(type, zeroWeightsAtOutliers(type, 2560), x)), 0x1p-19);
    EXPECT_GT(worstError(accuracies(type, cancelledWeightsAtOutliers(type, 2560), x)), 0x1p-19);
  }
}

// Nor does it know that a weight is a difference.
TEST(QuantisedProducts, WeightsThatCancelCostAccuracy) {
  for (const QuantType type : kQuantisedTypes) {
    const std::vector<float> x = randomFloats(2560, 52, 0.0f);
    EXPECT_GT(worstError(accuracies(type, cancelledWeights(type, 2560), x)), 0x1p-19);
  }
}

TEST(QuantisedProducts, OfRandomRowsAreAccurateToSinglePrecision) {
  for (const QuantType type : kQuantisedTypes) {
    for (const size_t cols : {256u, 512u, 1024u, 2560u, 9216u, 32768u}) {
      for (const Scales scales : {Scales::Usual, Scales::Positive}) {
        const std::vector<uint8_t> weights = randomRows(type, 64, cols, 51, scales);
        for (const float low : {-1.0f, 0.0f}) {
          EXPECT_LE(worstError(accuracies(type, weights, randomFloats(cols, 52, low), 64)), 0x1p-22)
              << kel::quantTypeName(type) << " " << cols;
        }
      }
    }
  }
}

}  // namespace
