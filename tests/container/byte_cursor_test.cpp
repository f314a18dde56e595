#include "container/byte_cursor.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>

namespace {

using kel::ByteCursor;

// Heap buffers of the exact size: the address sanitizer sees a read one byte too far.
TEST(ByteCursor, ReadsScalarsAtAnyAlignmentInFileOrder) {
  const std::unique_ptr<uint8_t[]> bytes(new uint8_t[7]{0xAA, 0x01, 0x02, 0x03, 0x04, 0xBB, 0xCC});
  ByteCursor in(bytes.get(), 7);
  uint8_t first = 0;
  uint32_t middle = 0;
  uint16_t last = 0;
  EXPECT_TRUE(in.read(first));
  EXPECT_TRUE(in.read(middle));
  EXPECT_TRUE(in.read(last));
  EXPECT_EQ(0xAAU, first);
  EXPECT_EQ(0x04030201U, middle);
  EXPECT_EQ(0xCCBBU, last);
  EXPECT_EQ(0U, in.remaining());
}

TEST(ByteCursor, AReadThatDoesNotFitChangesNothing) {
  const std::unique_ptr<uint8_t[]> bytes(new uint8_t[3]{1, 2, 3});
  ByteCursor in(bytes.get(), 3);
  uint32_t value = 77;
  const uint8_t* view = nullptr;
  EXPECT_FALSE(in.read(value));
  EXPECT_FALSE(in.take(4, view));
  EXPECT_EQ(77U, value);
  EXPECT_EQ(nullptr, view);
  EXPECT_EQ(3U, in.remaining());
  EXPECT_TRUE(in.take(3, view));
  EXPECT_EQ(bytes.get(), view);
}

TEST(ByteCursor, ALengthNearTheTopOfItsRangeDoesNotWrap) {
  const std::unique_ptr<uint8_t[]> bytes(new uint8_t[8]{});
  ByteCursor in(bytes.get(), 8);
  const uint8_t* view = nullptr;
  EXPECT_TRUE(in.take(4, view));
  EXPECT_FALSE(in.take(std::numeric_limits<uint64_t>::max(), view));
  EXPECT_FALSE(in.take(std::numeric_limits<uint64_t>::max() - 3, view));
  EXPECT_EQ(4U, in.remaining());
}

TEST(ByteCursor, AnEmptyRangeHoldsEmptyPiecesOnly) {
  ByteCursor in(nullptr, 0);
  const uint8_t* view = nullptr;
  uint8_t byte = 0;
  EXPECT_TRUE(in.take(0, view));
  EXPECT_FALSE(in.read(byte));
}

}  // namespace
