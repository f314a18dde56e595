#include "convert/safetensors_reader.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/convert/gguf_builder.h"

namespace {

using kel::convert::SafetensorsEntry;
using kel::test::Bytes;

Bytes fileOf(const std::string& header, size_t dataBytes) {
  const uint64_t headerBytes = header.size();
  Bytes bytes(sizeof(headerBytes) + header.size() + dataBytes);
  std::memcpy(bytes.data(), &headerBytes, sizeof(headerBytes));
  std::memcpy(bytes.data() + sizeof(headerBytes), header.data(), header.size());
  return bytes;
}

std::string message(const Bytes& bytes) {
  std::vector<SafetensorsEntry> entries;
  return parseSafetensors(bytes.data(), bytes.size(), "f", entries).message;
}
std::string message(const std::string& header, size_t dataBytes) {
  return message(fileOf(header, dataBytes));
}

std::string entry(const std::string& name, const std::string& dtype, const std::string& shape,
                  const std::string& offsets) {
  return "\"" + name + R"(":{"dtype":")" + dtype + R"(","shape":)" + shape + R"(,"data_offsets":)" +
         offsets + "}";
}

TEST(SafetensorsReader, ReadsEntriesInFileOrder) {
  const std::string header =
      R"({"__metadata__":{"format":"pt"},)" + entry("b", "BF16", "[2,3]", "[0,12]") + "," +
      entry("a", "F32", "[]", "[12,16]") + "," + entry("none", "F16", "[0,4]", "[16,16]") + "}   ";
  Bytes bytes = fileOf(header, 16);
  bytes.back() = 9;
  std::vector<SafetensorsEntry> entries;
  ASSERT_EQ("", parseSafetensors(bytes.data(), bytes.size(), "f", entries).message);
  ASSERT_EQ(3U, entries.size());
  EXPECT_EQ("b", entries[0].name);
  EXPECT_EQ("BF16", entries[0].dtype);
  EXPECT_EQ((std::vector<uint64_t>{2, 3}), entries[0].shape);
  EXPECT_EQ(12U, entries[0].nBytes);
  EXPECT_EQ("a", entries[1].name);
  EXPECT_EQ(9, entries[1].data[3]);
  EXPECT_EQ(0U, entries[2].nBytes);
}

TEST(SafetensorsReader, EveryTruncationIsRefused) {
  const Bytes whole = fileOf("{" + entry("a", "F32", "[2]", "[0,8]") + "}", 8);
  for (size_t n = 0; n < whole.size(); ++n) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_NE("", message(cut)) << n;
  }
  EXPECT_EQ("", message(whole));
}

// Whatever is read lies inside the buffer, which has nothing behind it.
TEST(SafetensorsReader, DamagedBytesLeaveEntriesInsideTheFile) {
  const Bytes whole = fileOf("{" + entry("a", "F32", "[2]", "[0,8]") + "}", 8);
  for (size_t at = 0; at < whole.size(); ++at) {
    for (int value = 0; value < 256; ++value) {
      Bytes damaged = whole;
      damaged[at] = static_cast<uint8_t>(value);
      std::vector<SafetensorsEntry> entries;
      if (!parseSafetensors(damaged.data(), damaged.size(), "f", entries).ok()) {
        continue;
      }
      for (const SafetensorsEntry& found : entries) {
        EXPECT_LE(damaged.data(), found.data);
        EXPECT_LE(found.data + found.nBytes, damaged.data() + damaged.size());
      }
    }
  }
}

TEST(SafetensorsReader, HeaderLengthIsBounded) {
  Bytes bytes = fileOf("{}", 0);
  EXPECT_EQ("", message(bytes));
  for (const uint64_t length : {uint64_t{3}, uint64_t{100'000'001}, UINT64_MAX}) {
    std::memcpy(bytes.data(), &length, sizeof(length));
    EXPECT_EQ("f: no safetensors file, or cut off within its header", message(bytes));
  }
  EXPECT_EQ("f: no safetensors header", message("", 0));
  EXPECT_EQ("f: no safetensors header", message(" {}", 0));
}

TEST(SafetensorsReader, HeaderMustBeSoundJson) {
  EXPECT_EQ("f: the header is not valid JSON (near byte 2)", message("{]", 0));
  EXPECT_EQ("f: the header holds the key \"a\" twice",
            message("{" + entry("a", "F32", "[1]", "[0,4]") + "," +
                        entry("a", "F32", "[1]", "[4,8]") + "}",
                    8));
}

TEST(SafetensorsReader, EntriesMustBeComplete) {
  const std::string lacks = "safetensors: the entry of a lacks dtype, shape or data_offsets";
  EXPECT_EQ(lacks, message(R"({"a":{"dtype":"F32","shape":[1]}})", 4));
  EXPECT_EQ(lacks, message(R"({"a":{"dtype":"F32","data_offsets":[0,4]}})", 4));
  EXPECT_EQ(lacks, message(R"({"a":{"shape":[1],"data_offsets":[0,4]}})", 4));
  EXPECT_EQ(lacks, message("{" + entry("a", "F32", "[1]", "[0]") + "}", 4));
  EXPECT_EQ(lacks, message(R"({"a":7})", 4));
  EXPECT_EQ("safetensors: the shape of a holds no valid length",
            message("{" + entry("a", "F32", "[-1]", "[0,4]") + "}", 4));
  EXPECT_EQ("safetensors: the shape of a holds no valid length",
            message("{" + entry("a", "F32", "[1.5]", "[0,4]") + "}", 4));
  EXPECT_EQ("safetensors: a has the unknown element type F33",
            message("{" + entry("a", "F33", "[1]", "[0,4]") + "}", 4));
}

TEST(SafetensorsReader, OffsetsMustLieInTheFile) {
  const std::string outside = "safetensors: the data of a lies outside the file: is it complete?";
  EXPECT_EQ(outside, message("{" + entry("a", "F32", "[1]", "[0,4]") + "}", 3));
  EXPECT_EQ(outside, message("{" + entry("a", "F32", "[1]", "[4,0]") + "}", 4));
  EXPECT_EQ(outside, message("{" + entry("a", "F32", "[1]", "[-4,0]") + "}", 4));
  EXPECT_EQ(
      outside,
      message("{" + entry("a", "F32", "[1]", "[18446744073709551612,18446744073709551615]") + "}",
              4));
}

TEST(SafetensorsReader, SizeMustFitShapeAndType) {
  EXPECT_EQ("safetensors: a has 4 bytes, which do not fit its shape and type F16",
            message("{" + entry("a", "F16", "[1]", "[0,4]") + "}", 4));
  // Products that wrap to 4 bytes.
  EXPECT_EQ("safetensors: a has 4 bytes, which do not fit its shape and type F32",
            message("{" + entry("a", "F32", "[4294967296,4294967296,1]", "[0,4]") + "}", 4));
}

TEST(SafetensorsReader, RangesCoverTheBufferOnce) {
  EXPECT_EQ("safetensors: the data of b overlap another tensor's",
            message("{" + entry("a", "F32", "[2]", "[0,8]") + "," +
                        entry("b", "F32", "[1]", "[4,8]") + "}",
                    8));
  EXPECT_EQ("safetensors: the data of b follow a gap",
            message("{" + entry("a", "F32", "[1]", "[0,4]") + "," +
                        entry("b", "F32", "[1]", "[8,12]") + "}",
                    12));
  EXPECT_EQ("safetensors: 3 bytes follow the last tensor",
            message("{" + entry("a", "F32", "[1]", "[0,4]") + "}", 7));
}

}  // namespace
