#include <gtest/gtest.h>

#include <random>
#include <string_view>

#include "container/zym2_format.h"
#include "tests/support/zym2_patch.h"

namespace {

using kel::zym2::crc64;

uint64_t crcOfByte(uint8_t byte) {
  return crc64(&byte, 1);
}

TEST(Crc64, CheckValueOfTheNineDigits) {
  constexpr std::string_view kDigits = "123456789";
  EXPECT_EQ(0x4DB9A9F87EC10C59,
            crc64(reinterpret_cast<const uint8_t*>(kDigits.data()), kDigits.size()));
}

// The checksum of one byte is the table entry of that byte.
TEST(Crc64, TableEntriesOfTheFormat) {
  EXPECT_EQ(0U, crcOfByte(0));
  EXPECT_EQ(0x3C3B78E888D80FE1, crcOfByte(1));
  EXPECT_EQ(0x42F0E1EBA9EA3693, crcOfByte(128));
  EXPECT_EQ(0x1416D7A787B7FAA0, crcOfByte(255));
}

TEST(Crc64, NothingHasChecksumZero) {
  EXPECT_EQ(0U, crc64(nullptr, 0));
}

TEST(Crc64, AgreesWithTheBitwiseDefinition) {
  std::mt19937 random(1);
  for (size_t length = 1; length < 500; length += 7) {
    kel::test::Bytes bytes(length);
    for (uint8_t& byte : bytes)
      byte = static_cast<uint8_t>(random());
    EXPECT_EQ(kel::test::bitwiseCrc64(bytes), crc64(bytes.data(), bytes.size())) << length;
  }
}

}  // namespace
