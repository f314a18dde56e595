#include "quant/block_sizes.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using kel::QuantType;
using kel::quant::blockFormat;
using kel::quant::BlockFormat;
using kel::quant::quantizedBytes;
using kel::quant::quantizedBytesK;

constexpr QuantType kAllTypes[] = {QuantType::F32,  QuantType::F16,  QuantType::BF16,
                                   QuantType::Q4_0, QuantType::Q8_0, QuantType::Q4_K,
                                   QuantType::Q5_K, QuantType::Q6_K, QuantType::IQ4_XS};

TEST(BlockFormat, EveryTypeHasItsBlockLengthAndBytes) {
  constexpr size_t kExpected[][2] = {{1, 4},     {1, 2},     {1, 2},     {32, 18},  {32, 34},
                                     {256, 144}, {256, 176}, {256, 210}, {256, 136}};
  for (size_t i = 0; i < std::size(kAllTypes); ++i) {
    const BlockFormat format = blockFormat(kAllTypes[i]);
    EXPECT_EQ(kExpected[i][0], format.elements) << kel::quantTypeName(kAllTypes[i]);
    EXPECT_EQ(kExpected[i][1], format.bytes) << kel::quantTypeName(kAllTypes[i]);
  }
}

TEST(BlockFormat, ValuesAboveTheLastTypeHaveNone) {
  for (int value = 9; value < 256; ++value) {
    const BlockFormat format = blockFormat(static_cast<QuantType>(value));
    EXPECT_EQ(0u, format.elements) << value;
    EXPECT_EQ(0u, format.bytes) << value;
  }
}

TEST(QuantizedBytes, PlainTypesCountElements) {
  EXPECT_EQ(28u, quantizedBytes(QuantType::F32, 7));
  EXPECT_EQ(14u, quantizedBytes(QuantType::F16, 7));
  EXPECT_EQ(14u, quantizedBytes(QuantType::BF16, 7));
}

TEST(QuantizedBytes, PartialBlocksCountWhole) {
  EXPECT_EQ(18u, quantizedBytes(QuantType::Q4_0, 1));
  EXPECT_EQ(36u, quantizedBytes(QuantType::Q4_0, 33));
  EXPECT_EQ(34u, quantizedBytes(QuantType::Q8_0, 32));
  EXPECT_EQ(144u, quantizedBytes(QuantType::Q4_K, 256));
  EXPECT_EQ(288u, quantizedBytes(QuantType::Q4_K, 300));
  EXPECT_EQ(176u, quantizedBytes(QuantType::Q5_K, 1));
  EXPECT_EQ(420u, quantizedBytes(QuantType::Q6_K, 257));
  EXPECT_EQ(136u, quantizedBytes(QuantType::IQ4_XS, 256));
}

TEST(QuantizedBytes, NothingTakesNoBytes) {
  for (const QuantType type : kAllTypes) {
    EXPECT_EQ(0u, quantizedBytes(type, 0)) << kel::quantTypeName(type);
  }
}

TEST(QuantizedBytes, ValuesAboveTheLastTypeTakeNoBytes) {
  for (int value = 9; value < 256; ++value) {
    for (const size_t n : {0u, 1u, 256u}) {
      EXPECT_EQ(0u, quantizedBytes(static_cast<QuantType>(value), n)) << value;
    }
  }
}

TEST(QuantizedBytes, HugeCountsOfBlocksDoNotWrapWhileCounting) {
  constexpr size_t kMost = std::numeric_limits<size_t>::max();
  EXPECT_EQ((kMost / 256 + 1) * 144, quantizedBytes(QuantType::Q4_K, kMost));
  EXPECT_EQ((kMost / 32 + 1) * 18, quantizedBytes(QuantType::Q4_0, kMost));
}

TEST(QuantizedBytesK, OnlySuperBlockTypesHaveASize) {
  EXPECT_EQ(288u, quantizedBytesK(QuantType::Q4_K, 257));
  EXPECT_EQ(352u, quantizedBytesK(QuantType::Q5_K, 257));
  EXPECT_EQ(420u, quantizedBytesK(QuantType::Q6_K, 257));
  EXPECT_EQ(272u, quantizedBytesK(QuantType::IQ4_XS, 257));
  for (const QuantType type : {QuantType::F32, QuantType::F16, QuantType::BF16, QuantType::Q4_0,
                               QuantType::Q8_0, static_cast<QuantType>(9)}) {
    EXPECT_EQ(0u, quantizedBytesK(type, 256)) << kel::quantTypeName(type);
  }
}

}  // namespace
