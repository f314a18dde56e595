#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "tests/quant/formats.h"
#include "tests/quant/reference_codec.h"

namespace {

using kel::quant::f32ToF16;

constexpr float kUntouched = -12345.0F;

void putHalf(std::vector<uint8_t>& bytes, size_t at, float value) {
  const uint16_t h = f32ToF16(value);
  bytes[at] = static_cast<uint8_t>(h & 0xFF);
  bytes[at + 1] = static_cast<uint8_t>(h >> 8);
}

TEST(DequantQ40, NeighboursShareAByteLowNibbleFirst) {
  std::vector<uint8_t> block(18);
  putHalf(block, 0, 0.5F);
  for (size_t i = 0; i < 16; ++i) {
    block[2 + i] = static_cast<uint8_t>((2 * i % 16) | (2 * i + 1) % 16 << 4);
  }
  ASSERT_EQ(0x10, block[2]);
  ASSERT_EQ(0x32, block[3]);
  float row[32];
  kel::quant::dequantQ40(block.data(), row, 32);
  for (int j = 0; j < 32; ++j) {
    EXPECT_EQ(0.5F * static_cast<float>(j % 16 - 8), row[j]) << j;
  }
}

TEST(DequantQ80, CodesAreSigned) {
  std::vector<uint8_t> block(34);
  putHalf(block, 0, 0.25F);
  block[2] = 0x80;
  block[3] = 0xFF;
  block[33] = 0x7F;
  float row[32];
  kel::quant::dequantQ80(block.data(), row, 32);
  EXPECT_EQ(-32.0F, row[0]);
  EXPECT_EQ(-0.25F, row[1]);
  EXPECT_EQ(31.75F, row[31]);
}

TEST(GetScaleMinK4, UnpacksEveryBitToItsPlace) {
  // One bit set at a time: it must show up in exactly one scale or minimum, at one position.
  for (int bit = 0; bit < 96; ++bit) {
    uint8_t scales[12] = {};
    scales[bit / 8] = static_cast<uint8_t>(1 << bit % 8);
    const int byte = bit / 8;
    const int at = bit % 8;
    for (int j = 0; j < 8; ++j) {
      int expectedScale = 0;
      int expectedMin = 0;
      if (byte < 4 && at < 6 && j == byte) {
        expectedScale = 1 << at;
      }
      if (byte < 4 && at >= 6 && j == byte + 4) {
        expectedScale = 1 << (at - 2);
      }
      if (byte >= 8 && at < 4 && j == byte - 4) {
        expectedScale = 1 << at;
      }
      if (byte >= 4 && byte < 8 && at < 6 && j == byte - 4) {
        expectedMin = 1 << at;
      }
      if (byte >= 4 && byte < 8 && at >= 6 && j == byte) {
        expectedMin = 1 << (at - 2);
      }
      if (byte >= 8 && at >= 4 && j == byte - 4) {
        expectedMin = 1 << (at - 4);
      }
      uint8_t sc = 0xFF;
      uint8_t m = 0xFF;
      kel::quant::getScaleMinK4(j, scales, sc, m);
      EXPECT_EQ(expectedScale, sc) << "bit " << bit << " sub-block " << j;
      EXPECT_EQ(expectedMin, m) << "bit " << bit << " sub-block " << j;
    }
  }
}

TEST(DequantQ4K, GroupsOfSixtyFourSplitIntoNibbles) {
  std::vector<uint8_t> block(144);
  putHalf(block, 0, 0.5F);
  putHalf(block, 2, 0.25F);
  block[4] = 2;      // scale of sub-block 0
  block[5] = 3;      // scale of sub-block 1
  block[8] = 4;      // minimum of sub-block 0
  block[16] = 0xA7;  // elements 0 and 32
  float row[256];
  kel::quant::dequantQ4K(block.data(), row, 256);
  EXPECT_EQ(7 * 1.0F - 1.0F, row[0]);
  EXPECT_EQ(10 * 1.5F, row[32]);
  EXPECT_EQ(-1.0F, row[1]);
  EXPECT_EQ(0.0F, row[64]);
}

TEST(DequantQ5K, FifthBitsLieBySubBlock) {
  std::vector<uint8_t> block(176);
  putHalf(block, 0, 1.0F);
  std::fill_n(block.begin() + 4, 4, uint8_t{1});   // scales of sub-blocks 0..3
  std::fill_n(block.begin() + 12, 4, uint8_t{1});  // scales of sub-blocks 4..7
  block[16 + 5] = 0x82;                            // element 5 of sub-blocks 1 and 7
  block[48 + 32 * 3 + 5] = 0x30;                   // low bits 3 of sub-block 7
  float row[256];
  kel::quant::dequantQ5K(block.data(), row, 256);
  for (size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(i == 37 ? 16.0F : i == 229 ? 19.0F : 0.0F, row[i]) << i;
  }
}

// Which NaN is open: the sign of the sum's NaN is the processor's matter.
TEST(DequantScaleMin, ANanScaleOrMinimumMakesEveryElementNan) {
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  for (const formats::Format& format : {formats::kAll[2], formats::kAll[3]}) {
    for (const size_t at : {size_t{0}, size_t{2}}) {
      for (const float odd : {kNan, -kNan}) {
        std::vector<uint8_t> block(kel::quant::quantizedBytes(format.type, 256), 0x11);
        putHalf(block, 0, 1.0F);
        putHalf(block, 2, 1.0F);
        putHalf(block, at, odd);
        std::fill_n(block.begin() + 4, 4, uint8_t{0});  // a scale of zero keeps the NaN
        for (const float v : formats::decode(format, block, 256)) {
          ASSERT_TRUE(std::isnan(v)) << kel::quantTypeName(format.type) << " " << at;
        }
      }
    }
  }
}

// Infinity times a minimum of zero is no number; times any other it is minus infinity.
TEST(DequantScaleMin, AnInfiniteMinimumReachesTheElements) {
  for (const formats::Format& format : {formats::kAll[2], formats::kAll[3]}) {
    std::vector<uint8_t> block(kel::quant::quantizedBytes(format.type, 256));
    putHalf(block, 0, 1.0F);
    putHalf(block, 2, std::numeric_limits<float>::infinity());
    block[8] = 1;  // the minimum of sub-block 0, the only one above zero
    const std::vector<float> row = formats::decode(format, block, 256);
    for (size_t i = 0; i < 256; ++i) {
      ASSERT_TRUE(i < 32 ? row[i] == -std::numeric_limits<float>::infinity() : std::isnan(row[i]))
          << kel::quantTypeName(format.type) << " " << i;
    }
  }
}

TEST(DequantQ6K, CodesAreCentredAndScalesSigned) {
  std::vector<uint8_t> block(210);
  putHalf(block, 208, 0.5F);
  block[192 + 1] = 0x9D;   // scale -99 of elements 16..31
  block[16] = 0x05;        // element 16: low bits 5
  block[128 + 16] = 0x03;  // and high bits 3: code 53
  float row[256];
  kel::quant::dequantQ6K(block.data(), row, 256);
  EXPECT_EQ((53 - 32) * -99 * 0.5F, row[16]);
  EXPECT_EQ(-32 * -99 * 0.5F, row[17]);
}

TEST(DequantQ6K, CodeAndScaleMultiplyAsIntegers) {
  std::vector<uint8_t> block(210);
  putHalf(block, 208, 0.5F);
  block[192] = 0xFF;  // scale -1
  block[128] = 0x02;  // element 0: code 32, the centre
  float row[256];
  kel::quant::dequantQ6K(block.data(), row, 256);
  EXPECT_EQ(0.0F, row[0]);
  EXPECT_FALSE(std::signbit(row[0])) << "a float product with the scale would give -0";
}

std::vector<uint8_t> q8kBlock(float d, float sub) {
  std::vector<uint8_t> block(290);
  putHalf(block, 0, d);
  for (size_t i = 0; i < 256; ++i) {
    block[2 + i] = static_cast<uint8_t>(i);
  }
  for (size_t s = 0; s < 16; ++s) {
    putHalf(block, 258 + 2 * s, sub * static_cast<float>(s + 1));
  }
  return block;
}

TEST(DequantQ8K, WritesWholeSuperBlocksAlone) {
  std::vector<uint8_t> blocks = q8kBlock(0.5F, 0.125F);
  blocks.resize(580);
  std::vector<float> row(300, kUntouched);
  kel::quant::dequantQ8K(blocks.data(), row.data(), 300);
  for (size_t i = 0; i < 256; ++i) {
    const size_t sixteenth = i / 16 + 1;
    const float code = static_cast<float>(static_cast<int8_t>(i));
    EXPECT_EQ(code * 0.5F * (0.125F * static_cast<float>(sixteenth)), row[i]) << i;
  }
  EXPECT_TRUE(std::all_of(row.begin() + 256, row.end(), [](float v) { return v == kUntouched; }));
}

TEST(DequantQ8K, FirstGlobalScaleServesEverySuperBlock) {
  std::vector<uint8_t> blocks = q8kBlock(0.5F, 0.125F);
  const std::vector<uint8_t> second = q8kBlock(7.0F, 0.25F);
  blocks.insert(blocks.end(), second.begin(), second.end());
  std::vector<float> row(512);
  kel::quant::dequantQ8K(blocks.data(), row.data(), 512);
  for (size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(2 * row[i], row[256 + i]) << "sub-scales doubled, the second d ignored, " << i;
  }
}

TEST(DequantQ8K, LessThanASuperBlockReadsNothing) {
  float untouched = kUntouched;
  kel::quant::dequantQ8K(nullptr, &untouched, 255);
  EXPECT_EQ(kUntouched, untouched);
}

TEST(DequantQ4K, ThreeHundredElementsComeFromTwoBlocks) {
  const formats::Format& q4k = formats::kAll[2];
  formats::RandomBlocks random(3);
  std::vector<float> source = random.next(256);
  const std::vector<float> more = random.next(256);
  source.insert(source.end(), more.begin(), more.end());
  source[299] = 1;
  const std::vector<uint8_t> blocks = formats::encode(q4k, source);
  const std::vector<float> whole = formats::decode(q4k, blocks, 512);
  std::vector<float> row(301, kUntouched);
  kel::quant::dequantQ4K(blocks.data(), row.data(), 300);
  EXPECT_TRUE(std::equal(row.begin(), row.begin() + 300, whole.begin()));
  EXPECT_NE(0.0F, row[299]);
  EXPECT_EQ(kUntouched, row[300]);
}

class Decoder : public testing::TestWithParam<formats::Format> {};
INSTANTIATE_TEST_SUITE_P(Formats, Decoder, testing::ValuesIn(formats::kAll),
                         [](const auto& each) { return kel::quantTypeName(each.param.type); });

TEST_P(Decoder, NoElementsReadOrWriteNothing) {
  GetParam().decode(nullptr, nullptr, 0);
}

TEST_P(Decoder, EqualsTheReferenceOnRandomBytes) {
  std::mt19937 random(4);
  const size_t n = 4 * GetParam().blockLen;
  for (int round = 0; round < 5000; ++round) {
    std::vector<uint8_t> blocks(kel::quant::quantizedBytes(GetParam().type, n));
    std::generate(blocks.begin(), blocks.end(), [&] { return static_cast<uint8_t>(random()); });
    const std::vector<float> expected = reference::decode(GetParam().type, blocks, n);
    const std::vector<float> actual = formats::decode(GetParam(), blocks, n);
    for (size_t i = 0; i < n; ++i) {
      ASSERT_TRUE(formats::sameFloat(expected[i], actual[i]))
          << "round " << round << " element " << i << ": " << expected[i] << " " << actual[i];
    }
  }
}

// Every length up to two blocks, from an odd address, in buffers of exactly the promised sizes (the
// address sanitizer guards the source).
TEST_P(Decoder, WritesExactlyTheElementsAskedFor) {
  std::mt19937 random(5);
  const size_t longest = 2 * GetParam().blockLen;
  std::vector<uint8_t> all(kel::quant::quantizedBytes(GetParam().type, longest));
  std::generate(all.begin(), all.end(), [&] { return static_cast<uint8_t>(random() % 0x78); });
  const std::vector<float> whole = formats::decode(GetParam(), all, longest);
  for (size_t n = 0; n <= longest; ++n) {
    const size_t bytes = kel::quant::quantizedBytes(GetParam().type, n);
    std::vector<uint8_t> shifted(bytes + 1);
    std::copy_n(all.begin(), bytes, shifted.begin() + 1);
    std::vector<float> row(n + 8, kUntouched);
    GetParam().decode(shifted.data() + 1, row.data(), n);
    for (size_t i = 0; i < row.size(); ++i) {
      ASSERT_TRUE(formats::sameFloat(i < n ? whole[i] : kUntouched, row[i])) << n << " " << i;
    }
  }
}

}  // namespace
