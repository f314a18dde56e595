#include "quant/bfloat16.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using kel::quant::bf16ToF32;
using kel::quant::f32ToBf16;

TEST(Bfloat16, WideningPutsTheBitsAboveZeros) {
  EXPECT_EQ(1.0f, bf16ToF32(0x3F80));
  EXPECT_EQ(-2.5f, bf16ToF32(0xC020));
  EXPECT_EQ(0x1p-133f, bf16ToF32(0x0001));
  EXPECT_TRUE(std::isinf(bf16ToF32(0x7F80)));
  EXPECT_TRUE(std::signbit(bf16ToF32(0x8000)));
}

TEST(Bfloat16, HalfWayValuesGoToTheEvenNeighbour) {
  EXPECT_EQ(0x3F80, f32ToBf16(1.00390625f));  // between 0x3F80 and 0x3F81
  EXPECT_EQ(0x3F82, f32ToBf16(1.01171875f));  // between 0x3F81 and 0x3F82
  EXPECT_EQ(0x3F81, f32ToBf16(std::nextafter(1.00390625f, 2.0f)));
  EXPECT_EQ(0x3F81, f32ToBf16(std::nextafter(1.01171875f, 1.0f)));
}

TEST(Bfloat16, NothingIsSpecialAboutInfinityAndNan) {
  EXPECT_EQ(0x7F80, f32ToBf16(std::numeric_limits<float>::max()));
  EXPECT_EQ(0x7F80, f32ToBf16(std::numeric_limits<float>::infinity()));
  EXPECT_EQ(0x7F80, f32ToBf16(std::bit_cast<float>(0x7F800001u)));
  EXPECT_EQ(0x7FC0, f32ToBf16(std::bit_cast<float>(0x7FC00000u)));
  EXPECT_EQ(0x8000, f32ToBf16(std::bit_cast<float>(0x7FFFFFFFu)));
}

}  // namespace
