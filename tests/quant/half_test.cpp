#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "quant/blocks.h"
#include "tests/quant/reference_codec.h"

namespace {

using kel::quant::f16ToF32;
using kel::quant::f32ToF16;

uint32_t bits(float x) {
  return std::bit_cast<uint32_t>(x);
}

TEST(HalfFromFloat, LargestFiniteHalf) {
  EXPECT_EQ(0x7BFF, f32ToF16(65504.0F));
}

TEST(HalfFromFloat, From65520UpIsInfinity) {
  EXPECT_EQ(0x7BFF, f32ToF16(std::nextafter(65520.0F, 0.0F)));
  EXPECT_EQ(0x7C00, f32ToF16(65520.0F));
  EXPECT_EQ(0x7C00, f32ToF16(65536.0F));
  EXPECT_EQ(0xFC00, f32ToF16(-std::numeric_limits<float>::max()));
  EXPECT_EQ(0xFC00, f32ToF16(-std::numeric_limits<float>::infinity()));
}

TEST(HalfFromFloat, NanIsQuietWithTheSignAndNoPayload) {
  EXPECT_EQ(0x7E00, f32ToF16(std::bit_cast<float>(0x7FC12345U)));
  EXPECT_EQ(0xFE00, f32ToF16(std::bit_cast<float>(0xFF800001U)));
}

TEST(HalfFromFloat, TinyValuesRoundToZeroOrTheSmallestSubnormal) {
  EXPECT_EQ(0x0000, f32ToF16(0x1p-25F)) << "a tie goes to even";
  EXPECT_EQ(0x0001, f32ToF16(std::nextafter(0x1p-25F, 1.0F)));
  EXPECT_EQ(0x0000, f32ToF16(0x1p-26F));
  EXPECT_EQ(0x8000, f32ToF16(-0x1p-26F));
  EXPECT_EQ(0x8000, f32ToF16(-0.0F));
  EXPECT_EQ(0x0000, f32ToF16(std::numeric_limits<float>::denorm_min()));
}

TEST(HalfFromFloat, RoundingCarriesAcrossExponents) {
  EXPECT_EQ(0x0400, f32ToF16(0x1.FFFp-15F)) << "subnormal to the smallest normal";
  EXPECT_EQ(0x4000, f32ToF16(0x1.FFEp0F)) << "tie at an odd mantissa of 1023";
}

TEST(FloatFromHalf, Subnormals) {
  EXPECT_EQ(0x1p-24F, f16ToF32(0x0001));
  EXPECT_EQ(1023 * 0x1p-24F, f16ToF32(0x03FF));
}

TEST(FloatFromHalf, NanKeepsItsPayload) {
  EXPECT_EQ(0x7F802000U, bits(f16ToF32(0x7C01)));
  EXPECT_EQ(0xFFFFE000U, bits(f16ToF32(0xFFFF)));
}

TEST(FloatFromHalf, NegativeZero) {
  EXPECT_EQ(0x80000000U, bits(f16ToF32(0x8000)));
}

TEST(FloatFromHalf, EveryPatternHasItsValue) {
  for (uint32_t h = 0; h <= 0xFFFF; ++h) {
    const auto pattern = static_cast<uint16_t>(h);
    const double expected = reference::numberFromHalf(pattern);
    const auto actual = static_cast<double>(f16ToF32(pattern));
    if (std::isnan(expected)) {
      EXPECT_TRUE(std::isnan(actual)) << h;
    } else {
      EXPECT_EQ(expected, actual) << h;
      EXPECT_EQ(h >= 0x8000, std::signbit(actual)) << h;
    }
  }
}

TEST(HalfRoundTrip, EveryPatternComesBackAndNanBecomesQuiet) {
  for (uint32_t h = 0; h <= 0xFFFF; ++h) {
    const bool isNan = (h & 0x7C00) == 0x7C00 && (h & 0x3FF) != 0;
    const uint32_t expected = isNan ? (h & 0x8000) | 0x7E00 : h;
    EXPECT_EQ(expected, f32ToF16(f16ToF32(static_cast<uint16_t>(h)))) << h;
  }
}

TEST(HalfFromFloat, EveryTieAndItsNeighboursRoundCorrectly) {
  for (uint32_t h = 0; h < 0x7C00; ++h) {
    const auto lower = reference::numberFromHalf(static_cast<uint16_t>(h));
    const auto upper =
        h == 0x7BFF ? 65536 : reference::numberFromHalf(static_cast<uint16_t>(h + 1));
    const auto tie = static_cast<float>((lower + upper) / 2);
    const uint32_t even = h + h % 2;
    EXPECT_EQ(even, f32ToF16(tie)) << h;
    EXPECT_EQ(even | 0x8000, f32ToF16(-tie)) << h;
    EXPECT_EQ(h, f32ToF16(std::nextafter(tie, 0.0F))) << h;
    EXPECT_EQ(h + 1, f32ToF16(std::nextafter(tie, 1e6F))) << h;
  }
}

TEST(HalfFromFloat, RandomFloatsRoundToTheNearestHalf) {
  std::mt19937 random(1);
  for (int i = 0; i < 1'000'000; ++i) {
    // Exponents from 2^-28 to 2^17: the range of half precision and a little beyond.
    const auto pattern = static_cast<uint32_t>(random());
    const auto exponent = static_cast<uint32_t>(99 + random() % 46);
    const float x = std::bit_cast<float>((pattern & 0x807FFFFFU) | exponent << 23);
    ASSERT_EQ(reference::halfFromNumber(static_cast<double>(x)), f32ToF16(x)) << bits(x);
  }
}

}  // namespace
