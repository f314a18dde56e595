#include <gtest/gtest.h>
#include <unistd.h>

#include "container/zym2_reader.h"
#include "tests/support/container_samples.h"

namespace {

using kel::TokenizerData;
using kel::ZYM2Reader;
using kel::test::ContainerImage;
using kel::test::Packer;
using kel::zym2::SectionType;
namespace test = kel::test;

constexpr uint32_t kMaxCount = 67108864;

// Everything behind the label: empty lists, ids 1 to 4, flag.
Packer& emptyTail(Packer& section) {
  return section.u32(0).u32(0).u32(0).u32(0).u32(1).u32(2).u32(3).u32(4).u8(0);
}

class TokenizerSectionTest : public testing::Test {
 protected:
  bool parse(const Packer& section) {
    out = TokenizerData();
    return parseOver(section);
  }

  // The same over what out holds.
  bool parseOver(const Packer& section) {
    ContainerImage image = sample;
    image.replace(SectionType::Tokenizer, section.bytes).fixCrc();
    test::require(reader.open(file.write(image)));
    return reader.readTokenizer(out);
  }

  // Parses a section of nBytes bytes that starts as given and goes on with zeros, which cost no
  // disk space.
  bool parseSparse(const Packer& start, uint64_t nBytes) {
    ContainerImage image = sample;
    image.replace(SectionType::Tokenizer, start.bytes);
    const uint64_t fileBytes = image.offsetOf(SectionType::Tokenizer) + nBytes;
    const char* path = file.write(image.setSize(SectionType::Tokenizer, nBytes).fixCrc());
    EXPECT_EQ(0, ::truncate(path, static_cast<off_t>(fileBytes)));
    test::require(reader.open(path));
    out = TokenizerData();
    return reader.readTokenizer(out);
  }

  const ContainerImage sample = test::sampleImage();
  test::ImageFile file;
  ZYM2Reader reader;
  TokenizerData out;
};

TEST_F(TokenizerSectionTest, EveryFieldIsRead) {
  test::require(reader.open(file.write(sample)));
  ASSERT_TRUE(reader.readTokenizer(out));
  const TokenizerData expected = test::sampleTokenizer();
  EXPECT_EQ(expected.label, out.label);
  EXPECT_EQ(expected.tokens, out.tokens);
  EXPECT_EQ(expected.auxValues, out.auxValues);
  EXPECT_EQ(expected.tokenTypes, out.tokenTypes);
  EXPECT_EQ(expected.merges, out.merges);
  EXPECT_EQ(-1, out.bosId);
  EXPECT_EQ(3, out.eosId);
  EXPECT_EQ(-2, out.unkId);
  EXPECT_EQ(5, out.extraId);
  EXPECT_TRUE(out.flag);
}

TEST_F(TokenizerSectionTest, ListsOfAnEarlierParseAreReplaced) {
  test::require(reader.open(file.write(sample)));
  out.tokens.assign(9, "old");
  out.merges.clear();
  ASSERT_TRUE(reader.readTokenizer(out));
  EXPECT_EQ(test::sampleTokenizer().tokens, out.tokens);
  EXPECT_EQ(test::sampleTokenizer().merges, out.merges);
}

// Callers throw the tables away; what stands in them shows how far a damaged section could be read.
TEST_F(TokenizerSectionTest, AFailureInsideAListLeavesTheListResizedAndWhatCameBeforeRead) {
  out.label = "old";
  out.tokens = {"old"};
  out.auxValues = {7, 8, 9};
  out.bosId = 77;
  Packer section;
  section.text("TKNZ").string32("new").u32(3).string32("ab").u32(100).text("cdefghij");
  EXPECT_FALSE(parseOver(section));
  EXPECT_EQ("new", out.label);
  EXPECT_EQ((std::vector<std::string>{"ab", "", ""}), out.tokens);
  EXPECT_EQ((std::vector<int32_t>{7, 8, 9}), out.auxValues);
  EXPECT_EQ(77, out.bosId);
}

TEST_F(TokenizerSectionTest, AFailureAmongTheIdsLeavesThoseBeforeItRead) {
  out.eosId = out.unkId = out.extraId = 77;
  out.flag = true;
  Packer section;
  section.text("TKNZ").u32(0).u32(0).u32(0).u32(0).u32(0).i32(5).i32(6).u16(0);
  EXPECT_FALSE(parseOver(section));
  EXPECT_EQ(5, out.bosId);
  EXPECT_EQ(6, out.eosId);
  EXPECT_EQ(77, out.unkId);
  EXPECT_EQ(77, out.extraId);
  EXPECT_TRUE(out.flag);
}

TEST_F(TokenizerSectionTest, AClosedReaderAndAnAbsentSectionFail) {
  EXPECT_FALSE(reader.readTokenizer(out));
  ContainerImage image = sample;
  test::require(reader.open(file.write(image.hide(SectionType::Tokenizer).fixCrc())));
  EXPECT_FALSE(reader.readTokenizer(out));
}

TEST_F(TokenizerSectionTest, AWrongMagicFails) {
  Packer section;
  EXPECT_FALSE(parse(emptyTail(section.text("TKNX").u32(0))));
  EXPECT_FALSE(parse(Packer().text("TKN")));
}

TEST_F(TokenizerSectionTest, FourBytesHoldingTheMagicFail) {
  EXPECT_FALSE(parse(Packer().text("TKNZ")));
}

TEST_F(TokenizerSectionTest, ALabelThatRunsPastTheEndFails) {
  for (const uint32_t length : {4U, UINT32_MAX, UINT32_MAX - 7}) {
    EXPECT_FALSE(parse(Packer().text("TKNZ").u32(length).text("abc")));
  }
}

TEST_F(TokenizerSectionTest, ZeroTokensParse) {
  Packer section;
  EXPECT_TRUE(parse(emptyTail(section.text("TKNZ").string32("label"))));
  EXPECT_EQ("label", out.label);
  EXPECT_TRUE(out.tokens.empty());
  EXPECT_EQ(1, out.bosId);
  EXPECT_EQ(4, out.extraId);
  EXPECT_FALSE(out.flag);
}

TEST_F(TokenizerSectionTest, AFlagOf2IsTrue) {
  Packer section;
  emptyTail(section.text("TKNZ").u32(0)).bytes.back() = 2;
  EXPECT_TRUE(parse(section));
  EXPECT_TRUE(out.flag);
}

TEST_F(TokenizerSectionTest, ASectionWithoutItsFlagFails) {
  Packer section;
  emptyTail(section.text("TKNZ").u32(0)).bytes.pop_back();
  EXPECT_FALSE(parse(section));
}

TEST_F(TokenizerSectionTest, BytesAfterTheFlagAreIgnored) {
  Packer section;
  EXPECT_TRUE(parse(emptyTail(section.text("TKNZ").u32(0)).text("whatever")));
}

TEST_F(TokenizerSectionTest, TheTypeListMayHaveAnyLength) {
  Packer section;
  section.text("TKNZ").u32(0).u32(0).u32(0).u32(2).i32(-5).i32(3);
  EXPECT_TRUE(parse(section.u32(0).u32(1).u32(2).u32(3).u32(4).u8(0)));
  EXPECT_EQ((std::vector<int32_t>{-5, 3}), out.tokenTypes);
}

// The token list is the last thing in these sections.
TEST_F(TokenizerSectionTest, AStringThatRunsPastTheEndByOneByteFails) {
  Packer tokens;
  tokens.text("TKNZ").u32(0).u32(1);
  EXPECT_FALSE(parse(Packer(tokens).u32(4).text("abc")));
  EXPECT_FALSE(parse(Packer(tokens).u32(UINT32_MAX).text("abc")));
  Packer whole(tokens);
  whole.u32(3).text("abc").u32(0).u32(0).u32(1).u32(3).text("a b").u32(1).u32(2).u32(3).u32(4);
  EXPECT_TRUE(parse(whole.u8(0)));
}

// Whatever follows the section would complete it, were it read.
TEST_F(TokenizerSectionTest, EveryShorterSectionFails) {
  for (uint64_t size = 0; size < sample.sizeOf(SectionType::Tokenizer); ++size) {
    ContainerImage image = sample;
    test::require(reader.open(file.write(image.setSize(SectionType::Tokenizer, size).fixCrc())));
    EXPECT_FALSE(reader.readTokenizer(out)) << size;
  }
}

TEST_F(TokenizerSectionTest, ACountThatCannotFitFailsBeforeTheListGrows) {
  Packer tokens;
  EXPECT_FALSE(parse(tokens.text("TKNZ").u32(0).u32(kMaxCount).u32(0)));
  EXPECT_TRUE(out.tokens.empty());
  Packer values;
  EXPECT_FALSE(parse(values.text("TKNZ").u32(0).u32(0).u32(2).u32(0).u16(0).u8(0)));
  EXPECT_TRUE(out.auxValues.empty());
}

TEST_F(TokenizerSectionTest, ACountOf67108864IsAcceptedWhereTheBytesAreThere) {
  Packer start;
  start.text("TKNZ").u32(0).u32(0).u32(kMaxCount);
  const uint64_t nBytes = start.bytes.size() + uint64_t{4} * kMaxCount + 8 + 16 + 1;
  EXPECT_TRUE(parseSparse(start, nBytes));
  EXPECT_EQ(kMaxCount, out.auxValues.size());
  EXPECT_EQ(0, out.bosId);
}

TEST_F(TokenizerSectionTest, ACountOf67108865FailsBeforeTheListGrows) {
  for (size_t list = 0; list < 4; ++list) {
    Packer start;
    start.text("TKNZ").u32(0);
    for (size_t i = 0; i < list; ++i) {
      start.u32(0);
    }
    start.u32(kMaxCount + 1);
    EXPECT_FALSE(parseSparse(start, start.bytes.size() + uint64_t{4} * kMaxCount + 100));
    EXPECT_EQ(0U, out.tokens.size() + out.auxValues.size());
    EXPECT_EQ(0U, out.tokenTypes.size() + out.merges.size());
  }
}

}  // namespace
