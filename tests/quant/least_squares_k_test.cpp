#include "quant/least_squares_k.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "tests/quant/formats.h"
#include "tests/quant/reference_codec.h"

namespace {

using kel::QuantType;
using Row = std::vector<float>;
using Bytes = std::vector<uint8_t>;

constexpr size_t kSuperBlock = 256;

// An encoder under test and the plain one of the same format.
struct Pair {
  QuantType type;
  void (*encode)(const float*, void*, size_t);
  void (*plain)(const float*, void*, size_t);

  Bytes encoded(const Row& row) const { return with(encode, row); }
  Bytes plainly(const Row& row) const { return with(plain, row); }
  Row decoded(const Bytes& blocks) const {
    return reference::decode(type, blocks,
                             blocks.size() / kel::quant::quantizedBytes(type, 1) * kSuperBlock);
  }

 private:
  Bytes with(void (*by)(const float*, void*, size_t), const Row& row) const {
    Bytes blocks(kel::quant::quantizedBytes(type, row.size()));
    by(row.data(), blocks.data(), row.size());
    return blocks;
  }
};

void PrintTo(const Pair& pair, std::ostream* out) {
  *out << kel::quantTypeName(pair.type);
}

double squaredError(const Row& a, const Row& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    const double miss = static_cast<double>(a[i]) - static_cast<double>(b[i]);
    sum += miss * miss;
  }
  return sum;
}

double relativeError(const Pair& pair, const Bytes& blocks, const Row& row) {
  return std::sqrt(squaredError(pair.decoded(blocks), row) / squaredError(row, Row(row.size())));
}

template <typename Distribution>
Row randomRow(Distribution distribution, size_t n, uint32_t seed) {
  std::mt19937 random(seed);
  Row row(n);
  std::generate(row.begin(), row.end(), [&] { return distribution(random); });
  return row;
}

class LeastSquares : public testing::TestWithParam<Pair> {};
INSTANTIATE_TEST_SUITE_P(
    Formats, LeastSquares,
    testing::Values(Pair{QuantType::Q4_K, kel::quant::leastSquaresQ4K, kel::quant::quantQ4K},
                    Pair{QuantType::Q5_K, kel::quant::leastSquaresQ5K, kel::quant::quantQ5K}),
    [](const auto& each) { return kel::quantTypeName(each.param.type); });

// The figures of docs/converting.md.
TEST_P(LeastSquares, ErrorOfGaussianAndOfHeavyTailedRows) {
  struct Figures {
    double plain;
    double searched;
  };
  const bool four = GetParam().type == QuantType::Q4_K;
  const auto check = [](const Row& row, const Figures& figures) {
    EXPECT_NEAR(figures.plain, relativeError(GetParam(), GetParam().plainly(row), row), 5e-4);
    EXPECT_NEAR(figures.searched, relativeError(GetParam(), GetParam().encoded(row), row), 5e-4);
  };
  constexpr size_t kElements = 1000 * kSuperBlock;
  check(randomRow(std::normal_distribution<float>(0, 0.02F), kElements, 1),
        four ? Figures{0.0783, 0.0705} : Figures{0.0381, 0.0347});
  check(randomRow(std::student_t_distribution<float>(5), kElements, 1),
        four ? Figures{0.0898, 0.0816} : Figures{0.0438, 0.0403});
}

// Blocks of every kind, among them those on which the search would lose.
TEST_P(LeastSquares, NoSuperBlockIsWorseThanThePlainOneAndAllValuesAreFinite) {
  formats::RandomBlocks random(3);
  const auto isFinite = [](float v) { return std::isfinite(v); };
  for (int round = 0; round < 12'000; ++round) {
    const Row row = random.next(kSuperBlock);
    const Row found = GetParam().decoded(GetParam().encoded(row));
    ASSERT_TRUE(std::all_of(found.begin(), found.end(), isFinite)) << round;
    const Row plain = GetParam().decoded(GetParam().plainly(row));
    if (std::all_of(plain.begin(), plain.end(), isFinite)) {
      // Errors are compared in single precision.
      ASSERT_LE(squaredError(found, row), squaredError(plain, row) * (1 + 1e-5)) << round;
    }
  }
}

// A row of a format with fewer levels comes through: its steps are found, and what is lost is the
// rounding of scales and minimums to six bits.
TEST_P(LeastSquares, StepsOfACoarserFormatAreFound) {
  std::mt19937 random(5);
  const int most = GetParam().type == QuantType::Q4_K ? 15 : 31;
  for (int levels = most - 6; levels <= most; ++levels) {
    Row row(64 * kSuperBlock);
    for (size_t at = 0; at < row.size(); at += 32) {
      const float scale = 0.5F + static_cast<float>(random() % 1024) / 1024;
      for (size_t l = 0; l < 32; ++l) {
        const auto code =
            l < 2 ? l * static_cast<size_t>(levels) : random() % (static_cast<size_t>(levels) + 1);
        row[at + l] = scale * (static_cast<float>(code) - 8);
      }
    }
    EXPECT_LT(relativeError(GetParam(), GetParam().encoded(row), row), 0.015) << levels;
  }
}

TEST_P(LeastSquares, ConstantsAndZeros) {
  const Row zeros(kSuperBlock);
  EXPECT_EQ(zeros, GetParam().decoded(GetParam().encoded(zeros)));
  for (const float value : {-3.7F, 3.7F, -0.2F, 0.2F, 60000.0F, -60000.0F}) {
    const Row row(kSuperBlock, value);
    // As near as d or dmin in half precision comes.
    for (const float v : GetParam().decoded(GetParam().encoded(row))) {
      ASSERT_NEAR(value, v, std::abs(value) * 0x1p-10F) << value;
    }
  }
}

TEST_P(LeastSquares, ElementsOfOneSign) {
  Row row = randomRow(std::uniform_real_distribution<float>(3, 4), 64 * kSuperBlock, 7);
  EXPECT_LT(relativeError(GetParam(), GetParam().encoded(row), row), 0.07);
  std::transform(row.begin(), row.end(), row.begin(), [](float v) { return -v; });
  EXPECT_LT(relativeError(GetParam(), GetParam().encoded(row), row), 0.006);
}

// What half precision cannot scale is cut off at the largest value that can be stored.
TEST_P(LeastSquares, ValuesBeyondTheFormatAreCutOff) {
  constexpr float kLargestHalf = 65504;
  const float most = kLargestHalf * 63 * (GetParam().type == QuantType::Q4_K ? 15 : 31);
  const float least = -kLargestHalf * 63;
  Row row(kSuperBlock);
  row[0] = std::numeric_limits<float>::max();
  row[40] = -std::numeric_limits<float>::max();
  const Row found = GetParam().decoded(GetParam().encoded(row));
  EXPECT_EQ(most, found[0]);
  EXPECT_EQ(least, found[40]);
}

TEST_P(LeastSquares, WhatIsNotFiniteIsEncodedPlainly) {
  for (const float odd :
       {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
        -std::numeric_limits<float>::infinity()}) {
    for (const size_t at : {size_t{0}, size_t{101}, kSuperBlock - 1}) {
      Row row = randomRow(std::normal_distribution<float>(), 2 * kSuperBlock, 9);
      const Bytes clean = GetParam().encoded(row);
      row[at] = odd;
      const Bytes blocks = GetParam().encoded(row);
      const auto half = static_cast<ptrdiff_t>(blocks.size() / 2);
      const Bytes plain = GetParam().plainly(row);
      EXPECT_TRUE(std::equal(blocks.begin(), blocks.begin() + half, plain.begin())) << at;
      EXPECT_TRUE(std::equal(blocks.begin() + half, blocks.end(), clean.begin() + half)) << at;
    }
  }
}

// Source and destination have exactly the promised sizes and odd alignment; guards stand around.
TEST_P(LeastSquares, PartialLastSuperBlockIsPaddedWithZerosInsideItsBuffer) {
  constexpr size_t kGuard = 8;
  for (const size_t n : {size_t{0}, size_t{1}, size_t{255}, size_t{257}, size_t{300}}) {
    Row row = randomRow(std::normal_distribution<float>(5, 1), n, 11);
    const size_t bytes = kel::quant::quantizedBytes(GetParam().type, n);
    Bytes buffer(1 + bytes + kGuard, 0xA5);
    GetParam().encode(row.data(), buffer.data() + 1, n);
    row.resize((n + kSuperBlock - 1) / kSuperBlock * kSuperBlock);
    Bytes expected = GetParam().encoded(row);
    expected.insert(expected.begin(), 0xA5);
    expected.resize(expected.size() + kGuard, 0xA5);
    EXPECT_EQ(expected, buffer) << n;
  }
}

// Compilers and processors agree. The row is computed with whole numbers alone.
TEST_P(LeastSquares, BytesOfAFixedRow) {
  std::mt19937 random(13);
  Row row(256 * kSuperBlock);
  for (float& v : row) {
    int sum = 0;
    for (int i = 0; i < 4; ++i) {
      sum += static_cast<int>(random() % 4096) - 2048;
    }
    v = std::ldexp(static_cast<float>(sum), -16);
  }
  uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
  for (const uint8_t byte : GetParam().encoded(row)) {
    hash = (hash ^ byte) * 0x100000001b3;
  }
  EXPECT_EQ(GetParam().type == QuantType::Q4_K ? 15287020000685131607U : 3841919298517527482U,
            hash);
}

}  // namespace
