#include "container/zym_loader.h"

#include <gtest/gtest.h>

#include "tests/support/container_samples.h"

namespace {

using kel::QuantType;
using kel::Status;
using kel::StatusCode;
using kel::TensorView;
using kel::ZYMLoader;
using kel::test::ContainerImage;
using kel::zym2::SectionType;
namespace test = kel::test;

class LoaderTest : public testing::Test {
 protected:
  Status open(const ContainerImage& content) { return loader.open(file.write(content)); }

  size_t entryAt(size_t i) const { return image.offsetOf(SectionType::TensorIndex) + i * 128; }

  void expectClosed() const {
    EXPECT_FALSE(loader.isOpen());
    EXPECT_FALSE(loader.reader.isOpen());
    EXPECT_TRUE(loader.tensors.empty());
    EXPECT_TRUE(loader.tokenizer.tokens.empty());
    EXPECT_TRUE(loader.tokenizer.merges.empty());
    EXPECT_EQ(-1, loader.tokenizer.eosId);
    EXPECT_FALSE(loader.tokenizer.flag);
    EXPECT_EQ("", loader.tokenizer.label);
    EXPECT_EQ("", loader.tokenizerLabel);
    EXPECT_EQ("", loader.text);
    EXPECT_EQ(0U, loader.wordA);
    EXPECT_EQ(0U, loader.wordB);
    EXPECT_EQ(0U, loader.wordC);
    EXPECT_EQ(0U, loader.tensorCount);
    EXPECT_EQ(nullptr, loader.findTensor("a"));
  }

  ContainerImage image = test::sampleImage();
  test::ImageFile file;
  ZYMLoader loader;
};

TEST_F(LoaderTest, AnOpenLoaderHoldsEverythingOfTheFile) {
  const Status status = open(image);
  EXPECT_EQ(StatusCode::Ok, status.code);
  EXPECT_EQ("", status.message);
  EXPECT_TRUE(loader.isOpen());
  EXPECT_EQ(0xAU, loader.wordA);
  EXPECT_EQ(0xBU, loader.wordB);
  EXPECT_EQ(0xCU, loader.wordC);
  EXPECT_EQ(3U, loader.tensorCount);
  EXPECT_EQ(test::sampleTokenizer().tokens, loader.tokenizer.tokens);
  EXPECT_EQ("sample", loader.tokenizerLabel);
  EXPECT_EQ("some text", loader.text);
  std::string architecture;
  EXPECT_TRUE(loader.reader.getMetaStr("general.architecture", architecture));
  EXPECT_EQ("qwen35", architecture);
}

TEST_F(LoaderTest, RecordsStandInIndexOrderAndPointIntoTheMapping) {
  ASSERT_TRUE(open(image).ok());
  ASSERT_EQ(3U, loader.tensors.size());
  for (size_t i = 0; i < 3; ++i) {
    const TensorView& record = loader.tensors[i];
    EXPECT_EQ(test::sampleTensorNames()[i], record.name);
    EXPECT_EQ(loader.reader.sectionData(SectionType::WeightData) + 64 * i, record.data);
    EXPECT_EQ(16U, record.byteSize);
    EXPECT_EQ(QuantType::F32, record.type);
    EXPECT_EQ(2U, record.rank);
    EXPECT_EQ(2U, record.dims[0]);
    EXPECT_EQ(2U, record.dims[1]);
    EXPECT_EQ(0U, record.dims[2]);
    EXPECT_EQ(0U, record.dims[3]);
    EXPECT_EQ(&record, loader.findTensor(record.name));
  }
  for (const char* absent : {"", "0", "bb", "d"}) {
    EXPECT_EQ(nullptr, loader.findTensor(absent));
  }
}

TEST_F(LoaderTest, AStatusOfTheReaderPassesThrough) {
  const Status status = open(image.set<uint32_t>(0, 0));
  EXPECT_EQ(StatusCode::InvalidFormat, status.code);
  EXPECT_EQ("ZYM2: bad magic", status.message);
  expectClosed();
  EXPECT_EQ("ZYM2: null path", loader.open(nullptr).message);
}

TEST_F(LoaderTest, WithoutATokenizerTheFileStaysMappedAndLookupsAnswerNull) {
  const Status status = open(image.hide(SectionType::Tokenizer).fixCrc());
  EXPECT_EQ(StatusCode::InvalidFormat, status.code);
  EXPECT_EQ("ZYMLoader: no tokenizer section", status.message);
  EXPECT_FALSE(loader.isOpen());
  EXPECT_TRUE(loader.reader.isOpen());
  ASSERT_EQ(3U, loader.tensors.size());
  EXPECT_EQ("a", loader.tensors[0].name);
  EXPECT_EQ(nullptr, loader.findTensor("a"));
  loader.close();
  expectClosed();
}

TEST_F(LoaderTest, AMalformedTokenizerReportsTheSame) {
  const uint64_t size = image.sizeOf(SectionType::Tokenizer);
  EXPECT_EQ("ZYMLoader: no tokenizer section",
            open(image.setSize(SectionType::Tokenizer, size - 1).fixCrc()).message);
  EXPECT_TRUE(loader.reader.isOpen());
}

TEST_F(LoaderTest, AHalfOpenLoaderOpensTheNextFile) {
  ContainerImage broken = image;
  ASSERT_FALSE(open(broken.hide(SectionType::Tokenizer).fixCrc()).ok());
  ASSERT_TRUE(open(image).ok());
  EXPECT_EQ(3U, loader.tensors.size());
  EXPECT_NE(nullptr, loader.findTensor("a"));
}

TEST_F(LoaderTest, TensorCount0OpensAndEveryLookupAnswersNull) {
  image.set<uint32_t>(test::kTensorCountAt, 0).fixCrc();
  ASSERT_TRUE(open(image).ok());
  EXPECT_TRUE(loader.isOpen());
  EXPECT_EQ(nullptr, loader.findTensor("a"));
  EXPECT_EQ(nullptr, loader.findTensor(""));
}

TEST_F(LoaderTest, ANameLengthOf70GivesANameOf64Bytes) {
  image.set<uint16_t>(entryAt(1) + 64, 70);
  ASSERT_TRUE(open(image).ok());
  EXPECT_EQ(std::string("b") + std::string(63, '\0'), loader.tensors[1].name);
}

TEST_F(LoaderTest, ANameIsAsLongAsItsLengthSays) {
  image.set<uint16_t>(entryAt(1) + 64, 3);
  ASSERT_TRUE(open(image).ok());
  EXPECT_EQ(std::string("b\0\0", 3), loader.tensors[1].name);
  EXPECT_EQ(nullptr, loader.findTensor("b"));
  EXPECT_EQ(&loader.tensors[1], loader.findTensor(std::string("b\0\0", 3)));
}

TEST_F(LoaderTest, OfTwoEqualNamesTheFirstIsFound) {
  image.set<char>(entryAt(2), 'b');
  ASSERT_TRUE(open(image).ok());
  EXPECT_EQ(&loader.tensors[1], loader.findTensor("b"));
}

// 256 would be F32, were only its low byte looked at.
TEST_F(LoaderTest, ElementTypesAbove8BecomeType8) {
  for (const uint16_t stored : std::initializer_list<uint16_t>{9, 12, 200, 255, 256, 259, 65535}) {
    image.set<uint16_t>(entryAt(0) + 66, stored);
    ASSERT_TRUE(open(image).ok());
    EXPECT_EQ(QuantType::IQ4_XS, loader.tensors[0].type) << stored;
    EXPECT_EQ(8U, loader.tensors[0].quant.type) << stored;
  }
  for (const uint16_t stored : std::initializer_list<uint16_t>{0, 7, 8}) {
    image.set<uint16_t>(entryAt(0) + 66, stored);
    ASSERT_TRUE(open(image).ok());
    EXPECT_EQ(stored, static_cast<uint16_t>(loader.tensors[0].type));
  }
}

TEST_F(LoaderTest, QuantWordsAreCarriedUnchanged) {
  const size_t record = image.offsetOf(SectionType::QuantInfo) + 32;
  image.set<uint16_t>(record, 0xFFFF);  // its type word is not used
  image.set<uint16_t>(record + 2, 0x1234);
  for (uint32_t word = 1; word <= 4; ++word) {
    image.set<uint32_t>(record + 4 * word, 100 + word);
  }
  ASSERT_TRUE(open(image).ok());
  const TensorView& tensor = loader.tensors[1];
  EXPECT_EQ(0U, tensor.quant.type);
  EXPECT_EQ(0x1234U, tensor.quant.word0);
  EXPECT_EQ(101U, tensor.quant.word1);
  EXPECT_EQ(102U, tensor.quantWords[0]);
  EXPECT_EQ(103U, tensor.quantWords[1]);
  EXPECT_EQ(104U, tensor.quantWords[2]);
}

TEST_F(LoaderTest, WithoutQuantInfoTheWordsAreZero) {
  ASSERT_TRUE(open(image.hide(SectionType::QuantInfo).fixCrc()).ok());
  EXPECT_EQ(0U, loader.tensors[1].quant.word0);
  EXPECT_EQ(0U, loader.tensors[1].quant.word1);
  EXPECT_EQ(0U, loader.tensors[1].quantWords[2]);
}

TEST_F(LoaderTest, ARankAbove4LeavesARecordWithANameOnly) {
  image.set<uint16_t>(entryAt(1) + 68, 5).set<uint16_t>(entryAt(1) + 66, 7);
  ASSERT_TRUE(open(image).ok());
  const TensorView* record = loader.findTensor("b");
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(nullptr, record->data);
  EXPECT_EQ(0U, record->byteSize);
  EXPECT_EQ(QuantType::F32, record->type);
  EXPECT_EQ(0U, record->rank);
  EXPECT_EQ(0U, record->dims[0]);
  EXPECT_EQ(0U, record->quant.type);
}

TEST_F(LoaderTest, AnAbsentAndAnEmptyTextAreEmpty) {
  ContainerImage absent = image;
  ASSERT_TRUE(open(image).ok());
  ASSERT_TRUE(open(absent.hide(SectionType::Text).fixCrc()).ok());
  EXPECT_EQ("", loader.text);
  ASSERT_TRUE(open(image.setSize(SectionType::Text, 0).fixCrc()).ok());
  EXPECT_EQ("", loader.text);
}

TEST_F(LoaderTest, ATextWithNulBytesIsKeptWhole) {
  const std::string text("be\0fore\0", 8);
  image.replace(SectionType::Text, test::Bytes(text.begin(), text.end())).fixCrc();
  ASSERT_TRUE(open(image).ok());
  EXPECT_EQ(text, loader.text);
}

TEST_F(LoaderTest, OpeningASecondFileReplacesAllRecords) {
  ASSERT_TRUE(open(image).ok());
  image.set<char>(entryAt(2), 'z').set<uint32_t>(test::kWordAAt, 0xAA).fixCrc();
  ASSERT_TRUE(open(image).ok());
  EXPECT_EQ(3U, loader.tensors.size());
  EXPECT_EQ(nullptr, loader.findTensor("c"));
  EXPECT_NE(nullptr, loader.findTensor("z"));
  EXPECT_EQ(0xAAU, loader.wordA);
}

TEST_F(LoaderTest, ClosingResetsEverythingAndMayBeRepeated) {
  loader.close();
  expectClosed();
  ASSERT_TRUE(open(image).ok());
  loader.close();
  loader.close();
  expectClosed();
}

}  // namespace
