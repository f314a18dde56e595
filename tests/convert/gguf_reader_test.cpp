#include "convert/gguf_reader.h"

#include <gtest/gtest.h>

#include "tests/convert/gguf_builder.h"

namespace {

using kel::convert::GgufFile;
using kel::convert::GgufType;
using kel::test::Bytes;
using kel::test::GgufBuilder;

// The parser's message for the file; empty on success.
std::string message(const Bytes& bytes) {
  GgufFile file;
  return file.parse(bytes.data(), bytes.size()).message;
}
std::string message(const GgufBuilder& builder) {
  return message(builder.bytes());
}

GgufBuilder sample() {
  GgufBuilder file;
  file.text("general.architecture", "qwen35");
  file.scalar<int8_t>("i8", 1, -3);
  file.scalar<uint16_t>("u16", 2, 65535);
  file.scalar<int16_t>("i16", 3, -300);
  file.u32("u32", 4'000'000'000U);
  file.scalar<int32_t>("i32", 5, -70000);
  file.f32("f32", 0.5F);
  file.boolean("yes", true);
  file.scalar<uint64_t>("u64", 10, 1ULL << 40);
  file.scalar<uint64_t>("huge", 10, 1ULL << 63);
  file.scalar<int64_t>("i64", 11, -1);
  file.scalar<double>("f64", 12, 0.25);
  file.texts("words", {"a", "", "bc"});
  file.array<int32_t>("numbers", 5, {1, -2});
  file.array<uint8_t>("bools", 7, {0, 1});
  file.tensors = {{"one", {2, 3}, 0, Bytes(24, 1)}, {"two", {32}, 8, Bytes(34, 2)}};
  return file;
}

TEST(GgufReader, ReadsEveryValueType) {
  const Bytes bytes = sample().bytes();
  GgufFile file;
  ASSERT_EQ("", file.parse(bytes.data(), bytes.size()).message);
  EXPECT_EQ(3U, file.version());
  EXPECT_EQ("qwen35", file.find("general.architecture")->text);
  for (const auto& [key, value] :
       {std::pair{"i8", -3LL}, std::pair{"u16", 65535LL}, std::pair{"i16", -300LL},
        std::pair{"u32", 4'000'000'000LL}, std::pair{"i32", -70000LL}, std::pair{"u64", 1LL << 40},
        std::pair{"i64", -1LL}}) {
    EXPECT_EQ(value, file.find(key)->asInteger()) << key;
    EXPECT_EQ(static_cast<double>(value), file.find(key)->asNumber()) << key;
  }
  EXPECT_EQ(std::nullopt, file.find("huge")->asInteger());
  EXPECT_EQ(std::nullopt, file.find("f32")->asInteger());
  EXPECT_EQ(0.5, file.find("f32")->asNumber());
  EXPECT_EQ(0.25, file.find("f64")->asNumber());
  EXPECT_EQ(std::nullopt, file.find("yes")->asInteger());
  EXPECT_EQ(true, file.find("yes")->asBool());
  EXPECT_EQ(std::nullopt, file.find("i8")->asBool());
  EXPECT_EQ((std::vector<std::string_view>{"a", "", "bc"}), file.find("words")->strings);
  EXPECT_EQ(GgufType::I32, file.find("numbers")->elementType);
  EXPECT_EQ(-2, file.find("numbers")->integerAt(1));
  EXPECT_EQ(std::nullopt, file.find("numbers")->integerAt(2));
  EXPECT_EQ(std::nullopt, file.find("words")->integerAt(0));
  EXPECT_EQ(1, file.find("bools")->integerAt(1));
  EXPECT_EQ(nullptr, file.find("none"));
}

TEST(GgufReader, PointsTensorsAtTheirBytes) {
  for (const uint64_t alignment : {32U, 8U, 4096U}) {
    GgufBuilder builder = sample();
    builder.alignment = alignment;
    builder.u32("general.alignment", static_cast<uint32_t>(alignment));
    const Bytes bytes = builder.bytes();
    GgufFile file;
    ASSERT_EQ("", file.parse(bytes.data(), bytes.size()).message);
    ASSERT_EQ(2U, file.tensors().size());
    EXPECT_EQ("one", file.tensors()[0].name);
    EXPECT_EQ((std::vector<uint64_t>{2, 3}), file.tensors()[0].dims);
    EXPECT_EQ(Bytes(24, 1), Bytes(file.tensors()[0].data, file.tensors()[0].data + 24));
    EXPECT_EQ("Q8_0", file.tensors()[1].typeName);
    EXPECT_EQ(Bytes(34, 2), Bytes(file.tensors()[1].data, file.tensors()[1].data + 34));
  }
}

TEST(GgufReader, VersionTwoIsReadOthersAreNot) {
  GgufBuilder file = sample();
  file.version = 2;
  EXPECT_EQ("", message(file));
  file.version = 1;
  EXPECT_EQ("GGUF: the format version is 1; versions 2 and 3 are supported", message(file));
  file.version = 4;
  EXPECT_EQ("GGUF: the format version is 4; versions 2 and 3 are supported", message(file));
  for (const uint32_t swapped : {0x03000000U, 0x02000000U}) {
    file.version = swapped;
    EXPECT_EQ("GGUF: big-endian files are not supported", message(file));
  }
  file.magic = 0x47475546;
  EXPECT_EQ("GGUF: not a GGUF file", message(file));
}

TEST(GgufReader, EveryTruncationIsRefused) {
  const Bytes whole = sample().bytes();
  for (size_t n = 0; n < whole.size(); ++n) {
    // A copy of its own, so that a read past the end is seen by the sanitizers.
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_NE("", message(cut)) << n << " of " << whole.size();
  }
  EXPECT_EQ("", message(whole));
}

TEST(GgufReader, WildCountsAreRefusedBeforeAnythingIsReserved) {
  for (const int64_t count : {int64_t{65537}, int64_t{1} << 40, INT64_MAX}) {
    GgufBuilder file = sample();
    file.pairCount = count;
    EXPECT_EQ("GGUF: " + std::to_string(count) + " metadata pairs are more than this file can hold",
              message(file));
    file = sample();
    file.tensorCount = count;
    EXPECT_EQ("GGUF: " + std::to_string(count) + " tensors are more than this file can hold",
              message(file));
  }
}

TEST(GgufReader, WildLengthsAreRefused) {
  for (const uint64_t length : {uint64_t{1} << 20, UINT64_MAX, UINT64_MAX - 7}) {
    GgufBuilder file;
    Bytes text;
    kel::test::appendNumber(text, length);
    file.pair("text", 8, text);
    EXPECT_EQ("GGUF: the value of text runs past the end of the file", message(file));
    for (const uint32_t elementType : {0U, 4U, 8U, 10U}) {
      GgufBuilder other;
      other.pair("list", 9, GgufBuilder::arrayHead(elementType, length));
      EXPECT_EQ("GGUF: the value of list runs past the end of the file", message(other));
    }
  }
}

TEST(GgufReader, UnknownTypesAndNestedArraysAreRefused) {
  GgufBuilder file;
  file.pair("odd", 13, {1});
  EXPECT_EQ("GGUF: odd has the unknown value type 13", message(file));
  GgufBuilder nested;
  nested.pair("list", 9, GgufBuilder::arrayHead(9, 1));
  EXPECT_EQ("GGUF: list is an array of element type 9, which is not supported", message(nested));
  GgufBuilder truth;
  truth.scalar<uint8_t>("truth", 7, 2);
  EXPECT_EQ("GGUF: truth is a bool of value 2", message(truth));
}

TEST(GgufReader, DuplicatesAreRefused) {
  GgufBuilder file = sample();
  file.u32("u32", 1);
  EXPECT_EQ("GGUF: the metadata key u32 occurs twice", message(file));
  file = sample();
  file.tensors[1].name = "one";
  EXPECT_EQ("GGUF: the tensor name one occurs twice", message(file));
}

TEST(GgufReader, KeysAndNamesHaveALargestLength) {
  GgufBuilder file;
  file.u32(std::string(65535, 'k'), 1);
  EXPECT_EQ("", message(file));
  file.u32(std::string(65536, 'l'), 1);
  EXPECT_EQ("GGUF: a metadata key is over 65535 bytes", message(file));
  file = sample();
  file.tensors[0].name = std::string(64, 'n');
  EXPECT_EQ("", message(file));
  file.tensors[0].name += 'n';
  EXPECT_NE(std::string::npos, message(file).find("has 65 bytes, more than 64"));
}

TEST(GgufReader, ShapesThatCannotBeAreRefused) {
  GgufBuilder file = sample();
  file.tensors[0].ne = {};
  EXPECT_EQ("GGUF: one has rank 0", message(file));
  file.tensors[0].ne = {1, 1, 1, 1, 1};
  EXPECT_EQ("GGUF: one has rank 5", message(file));
  file = sample();
  file.tensors[1].ne = {33};
  EXPECT_EQ("GGUF: the shape of two is not possible with type Q8_0", message(file));
  for (const std::vector<uint64_t>& wraps :
       {std::vector<uint64_t>{1ULL << 62, 4}, {1ULL << 32, 1ULL << 32}, {UINT64_MAX, UINT64_MAX}}) {
    file = sample();
    file.tensors[0].ne = wraps;
    EXPECT_EQ("GGUF: the shape of one is not possible with type F32", message(file));
  }
}

TEST(GgufReader, DataMustLieInTheFileAtTheAlignment) {
  GgufBuilder file = sample();
  Bytes bytes = file.bytes();
  bytes.pop_back();
  EXPECT_EQ("GGUF: the data of two runs past the end of the file: is it complete?", message(bytes));
  file.tensors[0].afterEarlier = false;
  file.tensors[1].atOffset = 33;
  EXPECT_EQ("GGUF: the offset 33 of two is not a multiple of the alignment 32", message(file));
  // Whole files of which one offset is far outside.
  bytes = sample().bytes();
  const std::string name = "two";
  const auto at = std::search(bytes.begin(), bytes.end(), name.begin(), name.end());
  const uint64_t offset = UINT64_MAX - 31;
  std::memcpy(&*(at + 3 + 4 + 8 + 4), &offset, sizeof(offset));
  EXPECT_EQ("GGUF: the data of two runs past the end of the file: is it complete?", message(bytes));
}

TEST(GgufReader, OverlappingDataAreRefused) {
  GgufBuilder file = sample();
  file.tensors[0] = {"one", {32}, 0, Bytes(128)};
  file.tensors[1].atOffset = 96;
  EXPECT_EQ("GGUF: the data of one and two overlap", message(file));
  file.tensors[1].atOffset = 128;
  EXPECT_EQ("", message(file));
}

TEST(GgufReader, AlignmentMustBeAPowerOfTwoInRange) {
  for (const uint32_t alignment : {0U, 1U, 4U, 24U, 2'097'152U}) {
    GgufBuilder file = sample();
    file.u32("general.alignment", alignment);
    EXPECT_EQ("GGUF: general.alignment is not a power of two from 8 to 1048576", message(file));
  }
  GgufBuilder file = sample();
  file.text("general.alignment", "32");
  EXPECT_EQ("GGUF: general.alignment is not a power of two from 8 to 1048576", message(file));
}

// Whatever is read lies inside the file's bytes, which have nothing behind them.
TEST(GgufReader, DamagedBytesLeaveTensorsInsideTheFile) {
  const Bytes whole = sample().bytes();
  for (size_t at = 0; at < whole.size(); ++at) {
    for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
      Bytes damaged = whole;
      damaged[at] = static_cast<uint8_t>(value);
      kel::convert::GgufFile file;
      if (!file.parse(damaged.data(), damaged.size()).ok()) {
        continue;
      }
      for (const kel::convert::GgufTensor& tensor : file.tensors()) {
        EXPECT_LE(damaged.data(), tensor.data);
        EXPECT_LE(tensor.data + tensor.nBytes, damaged.data() + damaged.size());
      }
    }
  }
}

}  // namespace
