#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "tests/quant/formats.h"
#include "tests/quant/reference_codec.h"

namespace {

using kel::quant::f16ToF32;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

const formats::Format& formatOf(kel::QuantType type) {
  return *std::find_if(std::begin(formats::kAll), std::end(formats::kAll),
                       [type](const formats::Format& each) { return each.type == type; });
}

std::vector<uint8_t> encode(kel::QuantType type, const std::vector<float>& row) {
  return formats::encode(formatOf(type), row);
}

float halfAt(const std::vector<uint8_t>& block, size_t at) {
  return f16ToF32(static_cast<uint16_t>(block[at] | block[at + 1] << 8));
}

int codeQ40(const std::vector<uint8_t>& block, size_t j) {
  return (block[2 + j / 2] >> (j % 2 * 4)) & 15;
}

int codeQ80(const std::vector<uint8_t>& block, size_t j) {
  return static_cast<int8_t>(block[2 + j]);
}

TEST(QuantQ40, ZerosGiveNoScaleAndTheMiddleCode) {
  const auto block = encode(kel::QuantType::Q4_0, std::vector<float>(32));
  EXPECT_EQ(0, block[0]);
  EXPECT_EQ(0, block[1]);
  EXPECT_TRUE(std::all_of(block.begin() + 2, block.end(), [](uint8_t b) { return b == 0x88; }));
  for (const float v : formats::decode(formatOf(kel::QuantType::Q4_0), block, 32)) {
    EXPECT_EQ(0.0F, v);
  }
}

TEST(QuantQ40, LargestMagnitudeTakesCodeZeroWhateverItsSign) {
  std::vector<float> row(32, 1.0F);
  row[9] = -4.0F;
  auto block = encode(kel::QuantType::Q4_0, row);
  EXPECT_EQ(0.5F, halfAt(block, 0));
  EXPECT_EQ(0, codeQ40(block, 9));
  EXPECT_EQ(10, codeQ40(block, 8));
  row[9] = 4.0F;
  block = encode(kel::QuantType::Q4_0, row);
  EXPECT_EQ(-0.5F, halfAt(block, 0));
  EXPECT_EQ(0, codeQ40(block, 9));
  EXPECT_EQ(6, codeQ40(block, 8));
}

TEST(QuantQ40, FirstOfEqualMagnitudesDecidesTheSign) {
  std::vector<float> row(32);
  row[3] = 4.0F;
  row[4] = -4.0F;
  auto block = encode(kel::QuantType::Q4_0, row);
  EXPECT_EQ(-0.5F, halfAt(block, 0));
  EXPECT_EQ(15, codeQ40(block, 4)) << "16 is clamped";
  std::swap(row[3], row[4]);
  EXPECT_EQ(0.5F, halfAt(encode(kel::QuantType::Q4_0, row), 0));
}

// Fused, the sum keeps what a product rounded on its own loses; near a whole number that decides
// the code.
TEST(QuantQ40, MultiplyAddIsFused) {
  formats::RandomBlocks random(6);
  int differing = 0;
  for (int round = 0; round < 120'000; ++round) {
    const std::vector<float> x = random.next(32);
    const auto block = encode(kel::QuantType::Q4_0, x);
    const float max = *std::max_element(
        x.begin(), x.end(), [](float a, float b) { return std::fabs(a) < std::fabs(b); });
    const float inverse = 1 / (max * -0.125F);
    if (!std::isnormal(inverse)) {
      continue;
    }
    for (size_t j = 0; j < 32; ++j) {
      const float product = x[j] * inverse;
      const float fused = std::fma(x[j], inverse, 8.5F);
      if (std::trunc(product + 8.5F) == std::trunc(fused)) {
        continue;
      }
      ++differing;
      EXPECT_EQ(std::min(static_cast<int>(fused), 15), codeQ40(block, j));
    }
  }
  EXPECT_GT(differing, 0) << "no input tells the two apart";
}

TEST(QuantQ80, RoundsHalfAwayFromZero) {
  std::vector<float> row(32);
  row[0] = 127.0F;
  row[1] = 2.5F;
  row[2] = -2.5F;
  row[3] = 2.25F;
  row[4] = -127.0F;
  const auto block = encode(kel::QuantType::Q8_0, row);
  EXPECT_EQ(1.0F, halfAt(block, 0));
  EXPECT_EQ(127, codeQ80(block, 0));
  EXPECT_EQ(3, codeQ80(block, 1));
  EXPECT_EQ(-3, codeQ80(block, 2));
  EXPECT_EQ(2, codeQ80(block, 3));
  EXPECT_EQ(-127, codeQ80(block, 4));
}

// The sum of the largest float below one half and one half is 1 in single precision.
TEST(QuantQ80, AddsTheHalfInSinglePrecision) {
  std::vector<float> row(32);
  row[0] = 127.0F;
  row[1] = std::nextafter(0.5F, 0.0F);
  row[2] = -row[1];
  row[3] = std::nextafter(row[1], 0.0F);
  const auto block = encode(kel::QuantType::Q8_0, row);
  EXPECT_EQ(1, codeQ80(block, 1));
  EXPECT_EQ(-1, codeQ80(block, 2));
  EXPECT_EQ(0, codeQ80(block, 3));
}

TEST(QuantQ80, UnderflowingScaleGivesZeroCodes) {
  std::vector<float> row(32, 63 * std::numeric_limits<float>::denorm_min());
  EXPECT_EQ(std::vector<uint8_t>(34, 0), encode(kel::QuantType::Q8_0, row));
  // One unit more and the scale rounds up to the smallest denormal.
  row[5] = 64 * std::numeric_limits<float>::denorm_min();
  EXPECT_EQ(64, codeQ80(encode(kel::QuantType::Q8_0, row), 5));
}

// Among denormals the scale itself is a whole number of units: 190 / 127 becomes 1, and quotients
// leave the codes' range on both sides.
TEST(QuantQ80, QuotientsBeyondTheCodesAreClampedToThem) {
  constexpr float kUnit = std::numeric_limits<float>::denorm_min();
  std::vector<float> row(32);
  const float units[] = {190, -190, 127, -127, 128, -128, 126, -126};
  std::transform(std::begin(units), std::end(units), row.begin(),
                 [](float n) { return n * kUnit; });
  const auto block = encode(kel::QuantType::Q8_0, row);
  const int expected[] = {127, -127, 127, -127, 127, -127, 126, -126};
  for (size_t j = 0; j < std::size(expected); ++j) {
    EXPECT_EQ(expected[j], codeQ80(block, j)) << j;
  }
  EXPECT_EQ(0.0F, halfAt(block, 0));
}

TEST(QuantQ80, ElementThirtyThreeOpensABlockOfItsOwn) {
  std::vector<float> row(33, 1.0F);
  row[32] = -2.0F;
  const auto blocks = encode(kel::QuantType::Q8_0, row);
  ASSERT_EQ(68u, blocks.size());
  EXPECT_EQ(0x81, blocks[34 + 2]);
  EXPECT_TRUE(std::all_of(blocks.begin() + 37, blocks.end(), [](uint8_t b) { return b == 0; }));
}

TEST(QuantQ4K, ThreeHundredElementsArePaddedWithZeros) {
  formats::RandomBlocks random(7);
  std::vector<float> row(512);
  for (size_t i = 0; i < 300; ++i) {
    row[i] = 5.0F + random.next(1)[0];
  }
  const auto padded = encode(kel::QuantType::Q4_K, row);
  row.resize(300);
  EXPECT_EQ(padded, encode(kel::QuantType::Q4_K, row));
}

TEST(QuantQ4K, PositiveSubBlockHasNoMinimum) {
  std::vector<float> row(256);
  for (size_t i = 0; i < 256; ++i) {
    const float ramp = static_cast<float>(i % 32);
    row[i] = i / 32 == 3 || i / 32 == 6 ? 1.0F + ramp : ramp - 40.0F;
  }
  const auto block = encode(kel::QuantType::Q4_K, row);
  for (int j = 0; j < 8; ++j) {
    uint8_t sc = 0;
    uint8_t m = 0;
    kel::quant::getScaleMinK4(j, block.data() + 4, sc, m);
    EXPECT_EQ(63, sc) << j;
    EXPECT_EQ(j == 3 || j == 6 ? 0 : 63, m) << j;
  }
}

TEST(QuantQ4K, SubBlockWithoutAStoredScaleKeepsItsFirstCodes) {
  std::vector<float> row(256);
  for (size_t i = 0; i < 256; ++i) {
    row[i] = static_cast<float>(i % 32) * (i < 32 ? 1e-3F : 1.0F);
  }
  const auto block = encode(kel::QuantType::Q4_K, row);
  EXPECT_EQ(0, block[4] & 63) << "the scale of sub-block 0 rounds to nothing";
  EXPECT_EQ(0, block[16] & 15);
  EXPECT_EQ(7, block[16 + 15] & 15) << "15 of 31 on 15 levels is 7.26";
  EXPECT_EQ(15, block[16 + 31] & 15);
}

TEST(QuantQ6K, SubBlockWithoutAScaleStoresTheCodeOfZero) {
  std::vector<float> row(256, 1e-4F);
  row[255] = 1.0F;
  const auto block = encode(kel::QuantType::Q6_K, row);
  EXPECT_EQ(0, block[192]);
  EXPECT_EQ(127, block[192 + 15]);
  EXPECT_EQ(0, block[0] & 15);
  EXPECT_EQ(2, block[128] & 3) << "code 32";
}

TEST(PackScalesK, NegativeMinimumsBecomeZeroAndTheLargestSixtyThree) {
  const float scales[8] = {63, 1, 2, 3, 4, 40, 62, 0};
  const float mins[8] = {-1, 126, 2, -126, 4, 6, 64, 100};
  uint8_t packed[12];
  float d = 0;
  float dmin = 0;
  kel::quant::packScalesK(packed, scales, mins, d, dmin);
  EXPECT_EQ(1.0F, d);
  EXPECT_EQ(2.0F, dmin);
  const int expectedMins[8] = {0, 63, 1, 0, 2, 3, 32, 50};
  for (int j = 0; j < 8; ++j) {
    uint8_t sc = 0;
    uint8_t m = 0;
    kel::quant::getScaleMinK4(j, packed, sc, m);
    EXPECT_EQ(scales[j], static_cast<float>(sc)) << j;
    EXPECT_EQ(expectedMins[j], m) << j;
  }
}

TEST(PackScalesK, NothingPositiveGivesZeros) {
  const float scales[8] = {};
  const float mins[8] = {-1, -2, -3, -4, -5, -6, -7, -8};
  uint8_t packed[12];
  std::fill_n(packed, 12, uint8_t{0xFF});
  float d = 1;
  float dmin = 1;
  kel::quant::packScalesK(packed, scales, mins, d, dmin);
  EXPECT_EQ(0.0F, d);
  EXPECT_EQ(0.0F, dmin);
  EXPECT_TRUE(std::all_of(packed, packed + 12, [](uint8_t b) { return b == 0; }));
}

TEST(QuantNonFinite, NanElementTakesTheLowestCodeAndLeavesTheScale) {
  std::vector<float> row(32, 1.0F);
  row[0] = 127.0F;
  row[1] = kNan;
  const auto q80 = encode(kel::QuantType::Q8_0, row);
  EXPECT_EQ(1.0F, halfAt(q80, 0));
  EXPECT_EQ(-127, codeQ80(q80, 1));
  EXPECT_EQ(1, codeQ80(q80, 2));
  const auto q40 = encode(kel::QuantType::Q4_0, row);
  EXPECT_EQ(-127.0F / 8, halfAt(q40, 0));
  EXPECT_EQ(0, codeQ40(q40, 1));
}

TEST(QuantNonFinite, InfinityGivesAnInfiniteScale) {
  std::vector<float> row(256, 1.0F);
  row[1] = -kInfinity;
  EXPECT_EQ(kInfinity, halfAt(encode(kel::QuantType::Q8_0, row), 0));
  EXPECT_EQ(kInfinity, halfAt(encode(kel::QuantType::Q4_0, row), 0));
  EXPECT_EQ(kInfinity, halfAt(encode(kel::QuantType::Q4_K, row), 0));
  EXPECT_EQ(kInfinity, halfAt(encode(kel::QuantType::Q4_K, row), 2));
  EXPECT_EQ(kInfinity, halfAt(encode(kel::QuantType::Q5_K, row), 0));
  EXPECT_EQ(kInfinity, halfAt(encode(kel::QuantType::Q6_K, row), 208));
}

class Encoder : public testing::TestWithParam<formats::Format> {};
INSTANTIATE_TEST_SUITE_P(Formats, Encoder, testing::ValuesIn(formats::kAll),
                         [](const auto& each) { return kel::quantTypeName(each.param.type); });

TEST_P(Encoder, NoElementsReadOrWriteNothing) {
  GetParam().encode(nullptr, nullptr, 0);
}

TEST_P(Encoder, EqualsTheReferenceOnRandomBlocks) {
  formats::RandomBlocks random(8);
  for (int round = 0; round < 20'000; ++round) {
    const std::vector<float> row = random.next(GetParam().blockLen);
    ASSERT_EQ(reference::encode(GetParam().type, row), formats::encode(GetParam(), row)) << round;
  }
}

// Source and destination have exactly the promised sizes and odd alignment; guards stand around.
TEST_P(Encoder, PartialLastBlockIsPaddedWithZerosInsideItsBuffer) {
  formats::RandomBlocks random(9);
  constexpr size_t kGuard = 8;
  for (size_t n = 1; n <= 2 * GetParam().blockLen; ++n) {
    const std::vector<float> row = random.next(n);
    const size_t bytes = kel::quant::quantizedBytes(GetParam().type, n);
    std::vector<uint8_t> buffer(1 + bytes + kGuard, 0xA5);
    GetParam().encode(row.data(), buffer.data() + 1, n);

    std::vector<uint8_t> expected = reference::encode(GetParam().type, row);
    expected.insert(expected.begin(), 0xA5);
    expected.resize(expected.size() + kGuard, 0xA5);
    ASSERT_EQ(expected, buffer) << n;
  }
}

// Within half a step of its sub-block, seen from the codes: a code inside the range is the nearest
// one; at either end the element may lie beyond. The slack covers single-precision rounding and
// the formats whose codes were computed before the scale was rounded to half (Q4_0, Q8_0).
TEST_P(Encoder, RoundTripIsWithinHalfAStep) {
  const bool scaleRoundedLater = GetParam().blockLen == 32;
  std::mt19937 random(10);
  std::normal_distribution<float> gauss;
  for (int round = 0; round < 2000; ++round) {
    std::vector<float> row(2 * GetParam().blockLen + 5);
    for (float& v : row) {
      v = gauss(random) * 0.05F;
    }
    const auto blocks = formats::encode(GetParam(), row);
    const auto decoded = formats::decode(GetParam(), blocks, row.size());
    for (size_t i = 0; i < row.size(); ++i) {
      const reference::Grid grid = reference::gridOf(GetParam().type, blocks, i);
      const double step = grid.scale * grid.d;
      if (step == 0) {
        continue;
      }
      const double slack = scaleRoundedLater ? std::abs(grid.code) * 0x1p-11 + 1e-4 : 1e-4;
      const double stepsAway =
          (static_cast<double>(row[i]) - static_cast<double>(decoded[i])) / step;
      if (grid.code > grid.lowest) {
        ASSERT_GE(stepsAway, -0.5 - slack) << round << " " << i;
      }
      if (grid.code < grid.highest) {
        ASSERT_LE(stepsAway, 0.5 + slack) << round << " " << i;
      }
      // What the clamp may cost: Q4_0 lacks a code for minus its largest element; a stored scale or
      // minimum of a sub-block is itself rounded.
      ASSERT_LE(std::abs(stepsAway), 2) << round << " " << i;
    }
  }
}

TEST_P(Encoder, NonFiniteInputIsDeterministicAndStaysInItsBlock) {
  const size_t blockLen = GetParam().blockLen;
  for (const float odd : {kNan, -kNan, kInfinity, -kInfinity}) {
    for (const size_t at : {size_t{0}, size_t{1}, blockLen - 1}) {
      std::vector<float> row(2 * blockLen, 0.5F);
      const auto clean = formats::encode(GetParam(), row);
      row[at] = odd;
      const auto blocks = formats::encode(GetParam(), row);
      EXPECT_EQ(blocks, formats::encode(GetParam(), row));
      EXPECT_TRUE(std::equal(blocks.begin() + static_cast<ptrdiff_t>(blocks.size() / 2),
                             blocks.end(),
                             clean.begin() + static_cast<ptrdiff_t>(clean.size() / 2)));
    }
  }
}

}  // namespace
