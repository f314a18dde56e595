#include <gtest/gtest.h>

#include "container/zym2_reader.h"
#include "tests/support/container_samples.h"

namespace {

using kel::ZYM2Reader;
using kel::test::ContainerImage;
using kel::test::Packer;
using kel::zym2::MetaType;
using kel::zym2::SectionType;
namespace test = kel::test;

// The start of an entry: key length, key, type.
Packer& entry(Packer& meta, std::string_view key, uint8_t type) {
  return meta.u16(static_cast<uint16_t>(key.size())).text(key).u8(type);
}

class MetaTest : public testing::Test {
 protected:
  // The message of opening the sample with these bytes as its metadata; empty when it opens.
  std::string openMessage(const Packer& meta) {
    ContainerImage image = sample;
    const kel::Status status =
        reader.open(file.write(image.replace(SectionType::Meta, meta.bytes).fixCrc()));
    EXPECT_EQ(status.ok() ? kel::StatusCode::Ok : kel::StatusCode::InvalidFormat, status.code);
    return status.message;
  }

  const ContainerImage sample = test::sampleImage();
  test::ImageFile file;
  ZYM2Reader reader;
  ZYM2Reader::MetaEntryView view;
};

TEST_F(MetaTest, AnAbsentOrShortSectionIsMissing) {
  ContainerImage image = sample;
  image.hide(SectionType::Meta).fixCrc();
  EXPECT_EQ("ZYM2: missing meta section", reader.open(file.write(image)).message);
  EXPECT_EQ("ZYM2: missing meta section", openMessage(Packer().u16(0).u8(0)));
}

TEST_F(MetaTest, FourBytesHoldingCount0ParseToNoEntries) {
  ASSERT_EQ("", openMessage(Packer().u32(0)));
  uint32_t u32 = 77;
  int32_t i32 = 77;
  float f32 = 77;
  uint64_t u64 = 77;
  std::string str = "77";
  const uint32_t* data = &u32;
  size_t count = 77;
  EXPECT_FALSE(reader.metaAt(0, view));
  EXPECT_FALSE(reader.getMetaU32("u32", u32));
  EXPECT_FALSE(reader.getMetaI32("i32", i32));
  EXPECT_FALSE(reader.getMetaF32("f32", f32));
  EXPECT_FALSE(reader.getMetaU64("u64", u64));
  EXPECT_FALSE(reader.getMetaStr("general.architecture", str));
  EXPECT_FALSE(reader.getMetaU32Array("array", data, count));
  EXPECT_EQ(77U, u32);
  EXPECT_EQ(77, i32);
  EXPECT_EQ(77.0F, f32);
  EXPECT_EQ(77U, u64);
  EXPECT_EQ("77", str);
  EXPECT_EQ(&u32, data);
  EXPECT_EQ(77U, count);
}

TEST_F(MetaTest, EveryTypeIsFoundByItsGetter) {
  ASSERT_TRUE(reader.open(file.write(sample)).ok());
  uint32_t u32 = 0;
  int32_t i32 = 0;
  float f32 = 0;
  uint64_t u64 = 0;
  std::string str;
  const uint32_t* data = nullptr;
  size_t count = 0;
  EXPECT_TRUE(reader.getMetaU32("u32", u32));
  EXPECT_TRUE(reader.getMetaI32("i32", i32));
  EXPECT_TRUE(reader.getMetaF32("f32", f32));
  EXPECT_TRUE(reader.getMetaU64("u64", u64));
  EXPECT_TRUE(reader.getMetaStr("general.architecture", str));
  EXPECT_TRUE(reader.getMetaU32Array("array", data, count));
  EXPECT_EQ(1U, u32);
  EXPECT_EQ(-1, i32);
  EXPECT_EQ(1.5F, f32);
  EXPECT_EQ(uint64_t{1} << 40, u64);
  EXPECT_EQ("qwen35", str);
  ASSERT_EQ(3U, count);
  EXPECT_EQ((std::vector<uint32_t>{7, 8, 9}), std::vector<uint32_t>(data, data + count));
}

TEST_F(MetaTest, AnEntryOfAnotherTypeIsNotConverted) {
  ASSERT_TRUE(reader.open(file.write(sample)).ok());
  uint64_t u64 = 77;
  int32_t i32 = 77;
  EXPECT_FALSE(reader.getMetaU64("u32", u64));
  EXPECT_FALSE(reader.getMetaI32("u32", i32));
  EXPECT_EQ(77U, u64);
  EXPECT_EQ(77, i32);
}

TEST_F(MetaTest, KeysAreComparedWhole) {
  ASSERT_TRUE(reader.open(file.write(sample)).ok());
  uint32_t u32 = 0;
  EXPECT_FALSE(reader.getMetaU32("u3", u32));
  EXPECT_FALSE(reader.getMetaU32("u322", u32));
  EXPECT_FALSE(reader.getMetaU32("", u32));
  EXPECT_FALSE(reader.getMetaU32(nullptr, u32));
}

TEST_F(MetaTest, OneKeyMayCarryOneEntryPerType) {
  Packer meta;
  meta.u32(3);
  entry(meta, "a", 0).u32(1);
  entry(meta, "a", 2).f32(2.5F);
  entry(meta, "a", 0).u32(3);
  ASSERT_EQ("", openMessage(meta));
  uint32_t u32 = 0;
  float f32 = 0;
  int32_t i32 = 77;
  EXPECT_TRUE(reader.getMetaU32("a", u32));
  EXPECT_EQ(1U, u32);  // the first of its type
  EXPECT_TRUE(reader.getMetaF32("a", f32));
  EXPECT_EQ(2.5F, f32);
  EXPECT_FALSE(reader.getMetaI32("a", i32));
  EXPECT_EQ(77, i32);
}

TEST_F(MetaTest, EntriesAreEnumeratedInFileOrderWithOneFieldFilled) {
  ASSERT_TRUE(reader.open(file.write(sample)).ok());
  view.array = {1, 2};
  ASSERT_TRUE(reader.metaAt(0, view));
  EXPECT_EQ("general.architecture", view.key);
  EXPECT_EQ(MetaType::Str, view.type);
  EXPECT_EQ("qwen35", view.str);
  EXPECT_TRUE(view.array.empty());
  ASSERT_TRUE(reader.metaAt(4, view));
  EXPECT_EQ(MetaType::U64, view.type);
  EXPECT_EQ(uint64_t{1} << 40, view.u64);
  EXPECT_EQ("", view.str);
  EXPECT_EQ(0U, view.u32);
  EXPECT_EQ(0, view.i32);
  EXPECT_EQ(0.0F, view.f32);
}

TEST_F(MetaTest, MetaAtTheNumberOfEntriesIsFalseAndWritesNothing) {
  ASSERT_TRUE(reader.open(file.write(sample)).ok());
  ASSERT_TRUE(reader.metaAt(5, view));
  EXPECT_FALSE(reader.metaAt(6, view));
  EXPECT_EQ("array", view.key);
}

TEST_F(MetaTest, AnEmptyStringAndAnEmptyArrayAreFound) {
  Packer meta;
  meta.u32(2);
  entry(meta, "s", 4).u32(0);
  entry(meta, "l", 5).u32(0);
  ASSERT_EQ("", openMessage(meta));
  std::string str = "old";
  const uint32_t* data = nullptr;
  size_t count = 77;
  EXPECT_TRUE(reader.getMetaStr("s", str));
  EXPECT_EQ("", str);
  EXPECT_TRUE(reader.getMetaU32Array("l", data, count));
  EXPECT_EQ(0U, count);
}

TEST_F(MetaTest, AKeyOfLength0IsFoundByTheEmptyKey) {
  Packer meta;
  meta.u32(1);
  entry(meta, "", 0).u32(5);
  ASSERT_EQ("", openMessage(meta));
  uint32_t u32 = 0;
  EXPECT_TRUE(reader.getMetaU32("", u32));
  EXPECT_EQ(5U, u32);
}

TEST_F(MetaTest, AKeyWithAZeroByteIsEnumeratedButMatchesNoGetter) {
  const std::string key("a\0b", 3);
  Packer meta;
  meta.u32(1);
  entry(meta, key, 0).u32(5);
  ASSERT_EQ("", openMessage(meta));
  uint32_t u32 = 0;
  EXPECT_FALSE(reader.getMetaU32(key.c_str(), u32));
  ASSERT_TRUE(reader.metaAt(0, view));
  EXPECT_EQ(key, view.key);
}

TEST_F(MetaTest, BytesAfterTheLastEntryAreIgnored) {
  Packer meta;
  meta.u32(1);
  entry(meta, "a", 0).u32(5).text("whatever");
  EXPECT_EQ("", openMessage(meta));
}

TEST_F(MetaTest, ACountAboveTheEntriesPresentFailsOnTheFirstMissingKey) {
  Packer meta;
  meta.u32(2);
  entry(meta, "a", 0).u32(5);
  EXPECT_EQ("ZYM2: bad meta key", openMessage(meta));
  EXPECT_EQ("ZYM2: bad meta key", openMessage(meta.u8(0)));  // half a key length
  EXPECT_FALSE(reader.metaAt(0, view));
}

TEST_F(MetaTest, AWildCountInASmallFileClaimsNoMemory) {
  EXPECT_EQ("ZYM2: bad meta key", openMessage(Packer().u32(UINT32_MAX)));
}

TEST_F(MetaTest, AKeyThatRunsPastTheEnd) {
  EXPECT_EQ("ZYM2: bad meta key", openMessage(Packer().u32(1).u16(2).text("a")));
  EXPECT_EQ("ZYM2: bad meta key", openMessage(Packer().u32(1).u16(0xFFFF).text("abc")));
}

TEST_F(MetaTest, AKeyThatFillsTheSectionLeavesNoType) {
  EXPECT_EQ("ZYM2: bad meta type", openMessage(Packer().u32(1).u16(3).text("abc")));
}

TEST_F(MetaTest, TypeByte6IsUnknownEvenAsTheLastByte) {
  Packer meta;
  meta.u32(1);
  EXPECT_EQ("ZYM2: unknown meta type", openMessage(entry(meta, "a", 6)));
  EXPECT_EQ("ZYM2: unknown meta type", openMessage(meta.u64(0)));
  Packer highest;
  highest.u32(1);
  EXPECT_EQ("ZYM2: unknown meta type", openMessage(entry(highest, "a", 255).u64(0)));
}

TEST_F(MetaTest, AValueOneByteShortNamesItsType) {
  const char* const messages[] = {"ZYM2: bad meta u32", "ZYM2: bad meta i32",
                                  "ZYM2: bad meta f32", "ZYM2: bad meta u64",
                                  "ZYM2: bad meta str", "ZYM2: bad meta array"};
  for (uint8_t type = 0; type < 6; ++type) {
    Packer meta;
    meta.u32(1);
    entry(meta, "a", type).u16(0).u8(0);
    if (type == 3) {
      meta.u32(0);
    }
    EXPECT_EQ(messages[type], openMessage(meta));
    EXPECT_EQ("", openMessage(meta.u8(0)));
  }
}

TEST_F(MetaTest, AStringThatRunsPastTheEnd) {
  for (const uint32_t length : {4U, 0x7FFFFFFFU, UINT32_MAX}) {
    Packer meta;
    meta.u32(1);
    EXPECT_EQ("ZYM2: bad meta str", openMessage(entry(meta, "a", 4).u32(length).text("abc")));
  }
}

// 4 times the second count is 4 modulo 2^32.
TEST_F(MetaTest, AnArrayThatRunsPastTheEnd) {
  for (const uint32_t count : {2U, 0x40000001U, UINT32_MAX}) {
    Packer meta;
    meta.u32(1);
    EXPECT_EQ("ZYM2: bad meta array", openMessage(entry(meta, "a", 5).u32(count).u32(0).u16(0)));
  }
}

TEST_F(MetaTest, EveryShorterSectionFails) {
  for (uint64_t size = 0; size < sample.sizeOf(SectionType::Meta); ++size) {
    ContainerImage image = sample;
    image.setSize(SectionType::Meta, size).fixCrc();
    EXPECT_FALSE(reader.open(file.write(image)).ok()) << size;
  }
}

}  // namespace
