#include <gtest/gtest.h>

#include "container/zym2_reader.h"
#include "tests/support/container_samples.h"

namespace {

using kel::ZYM2Reader;
using kel::test::ContainerImage;
using kel::zym2::SectionType;
namespace test = kel::test;

class TensorsTest : public testing::Test {
 protected:
  void open(const ContainerImage& content) { test::require(reader.open(file.write(content))); }

  // File offset of an index entry of the sample.
  size_t entryAt(size_t i) const { return image.offsetOf(SectionType::TensorIndex) + i * 128; }

  void rename(size_t i, const std::string& name) {
    std::fill_n(image.bytes.begin() + static_cast<ptrdiff_t>(entryAt(i)), 64, uint8_t{0});
    std::copy(name.begin(), name.end(), image.bytes.begin() + static_cast<ptrdiff_t>(entryAt(i)));
  }

  const uint8_t* entry(size_t i) const {
    return reader.sectionData(SectionType::TensorIndex) + i * 128;
  }

  ContainerImage image = test::sampleImage();
  test::ImageFile file;
  ZYM2Reader reader;
};

void expectAllZero(const ZYM2Reader::TensorEntryView& view) {
  EXPECT_EQ(nullptr, view.data);
  EXPECT_EQ(0U, view.byteSize);
  EXPECT_EQ(0U, view.type);
  EXPECT_EQ(0U, view.rank);
  for (const uint64_t dim : view.dims) {
    EXPECT_EQ(0U, dim);
  }
  EXPECT_EQ(0U, view.quantInfo);
}

TEST_F(TensorsTest, FindsEachNameAndNoneBetweenThem) {
  open(image);
  EXPECT_EQ(entry(0), reader.findTensor("a"));
  EXPECT_EQ(entry(1), reader.findTensor("b"));
  EXPECT_EQ(entry(2), reader.findTensor("c"));
  for (const char* absent : {"bb", "", "0", "d"}) {
    EXPECT_EQ(nullptr, reader.findTensor(absent));
  }
  EXPECT_EQ(nullptr, reader.findTensor(nullptr));
}

TEST_F(TensorsTest, NamesCompareAsUnsignedBytes) {
  rename(2, "\xC3\xA9");
  open(image);
  EXPECT_EQ(entry(2), reader.findTensor("\xC3\xA9"));
  EXPECT_EQ(entry(1), reader.findTensor("b"));
}

TEST_F(TensorsTest, OfTwoEqualNamesTheFirstIsFound) {
  rename(1, "w");
  rename(2, "w");
  open(image);
  EXPECT_EQ(entry(1), reader.findTensor("w"));
}

TEST_F(TensorsTest, ANameOf64BytesIsFoundByItselfAndByLongerKeys) {
  const std::string name(64, 'n');
  rename(2, name);
  open(image);
  EXPECT_EQ(entry(2), reader.findTensor(name.c_str()));
  EXPECT_EQ(entry(2), reader.findTensor((name + "more").c_str()));
  EXPECT_EQ(nullptr, reader.findTensor(name.substr(0, 63).c_str()));
}

TEST_F(TensorsTest, AViewPointsIntoTheWeights) {
  open(image);
  for (size_t i = 0; i < 3; ++i) {
    const ZYM2Reader::TensorEntryView view = reader.tensorView(i);
    EXPECT_EQ(reader.sectionData(SectionType::WeightData) + i * 64, view.data);
    EXPECT_EQ(static_cast<float>(i + 1), *reinterpret_cast<const float*>(view.data));
    EXPECT_EQ(16U, view.byteSize);
    EXPECT_EQ(0U, view.type);
    EXPECT_EQ(2U, view.rank);
    EXPECT_EQ(2U, view.dims[0]);
    EXPECT_EQ(2U, view.dims[1]);
    EXPECT_EQ(0U, view.dims[2]);
    EXPECT_EQ(view.data, reader.tensorView(test::sampleTensorNames()[i].c_str()).data);
  }
}

TEST_F(TensorsTest, OnlyDimensionsBelowTheRankAreCopied) {
  for (size_t dim = 0; dim < 4; ++dim) {
    image.set<uint64_t>(entryAt(0) + 72 + 8 * dim, 10 + dim);
  }
  image.set<uint16_t>(entryAt(0) + 68, 3);
  open(image);
  const ZYM2Reader::TensorEntryView view = reader.tensorView(size_t{0});
  EXPECT_EQ(10U, view.dims[0]);
  EXPECT_EQ(12U, view.dims[2]);
  EXPECT_EQ(0U, view.dims[3]);
}

TEST_F(TensorsTest, LookupsThatFindNothingAnswerAllZero) {
  expectAllZero(reader.tensorView(size_t{0}));  // closed
  expectAllZero(reader.tensorView("a"));
  EXPECT_EQ(nullptr, reader.findTensor("a"));
  EXPECT_EQ(nullptr, reader.tensorEntry(0));
  open(image);
  expectAllZero(reader.tensorView(size_t{3}));  // the tensor count
  expectAllZero(reader.tensorView(SIZE_MAX));
  expectAllZero(reader.tensorView("missing"));
  expectAllZero(reader.tensorView(static_cast<const char*>(nullptr)));
  EXPECT_EQ(nullptr, reader.tensorEntry(3));
  reader.close();
  expectAllZero(reader.tensorView("a"));
}

TEST_F(TensorsTest, AnEntryIsTheStoredRecord) {
  image.set<uint16_t>(entryAt(1) + 64, 70).set<uint16_t>(entryAt(1) + 66, 300);
  image.set<uint16_t>(entryAt(1) + 68, 9).set<uint64_t>(entryAt(1) + 72 + 24, 44);
  image.set<uint64_t>(entryAt(1) + 104, 55).set<uint64_t>(entryAt(1) + 112, 66);
  open(image);
  ASSERT_EQ(static_cast<const void*>(entry(1)), reader.tensorEntry(1));
  const kel::zym2::TensorEntry& stored = *reader.tensorEntry(1);
  EXPECT_EQ(70U, stored.nameLength);
  EXPECT_EQ(300U, stored.type);
  EXPECT_EQ(9U, stored.rank);
  EXPECT_EQ(2U, stored.dims[0]);
  EXPECT_EQ(44U, stored.dims[3]);
  EXPECT_EQ(55U, stored.offset);
  EXPECT_EQ(66U, stored.byteSize);
  EXPECT_EQ(std::string("b") + std::string(63, '\0'), stored.nameText());
  EXPECT_EQ("a", reader.tensorEntry(0)->nameText());
}

TEST_F(TensorsTest, ARankAbove4GivesAnAllZeroView) {
  for (const uint16_t rank : std::initializer_list<uint16_t>{5, 255, 256, 65535}) {
    image.set<uint16_t>(entryAt(1) + 68, rank);
    open(image);
    expectAllZero(reader.tensorView(size_t{1}));
    expectAllZero(reader.tensorView("b"));
    EXPECT_EQ(entry(1), reader.findTensor("b"));
  }
}

TEST_F(TensorsTest, TheElementTypeIsNotClamped) {
  image.set<uint16_t>(entryAt(0) + 66, 12);
  open(image);
  EXPECT_EQ(12U, reader.tensorView("a").type);
}

TEST_F(TensorsTest, AnOffsetOutsideTheWeightsIsPassedOn) {
  image.set<uint64_t>(entryAt(0) + 104, UINT64_MAX - 63);
  image.set<uint64_t>(entryAt(0) + 112, UINT64_MAX);
  open(image);
  const ZYM2Reader::TensorEntryView view = reader.tensorView("a");
  EXPECT_EQ(reinterpret_cast<uintptr_t>(reader.sectionData(SectionType::WeightData)) - 64,
            reinterpret_cast<uintptr_t>(view.data));
  EXPECT_EQ(UINT64_MAX, view.byteSize);
}

TEST_F(TensorsTest, AViewCarriesTheFirst8BytesOfItsQuantRecord) {
  image.set<uint64_t>(image.offsetOf(SectionType::QuantInfo) + 32, 0x1122334455667788);
  open(image);
  EXPECT_EQ(0U, reader.tensorView(size_t{0}).quantInfo);
  EXPECT_EQ(0x1122334455667788U, reader.tensorView(size_t{1}).quantInfo);
}

TEST_F(TensorsTest, WithoutQuantInfoAViewCarriesZero) {
  open(image.hide(SectionType::QuantInfo).fixCrc());
  EXPECT_TRUE(reader.quantRecords().empty());
  EXPECT_EQ(0U, reader.tensorView(size_t{1}).quantInfo);
}

TEST_F(TensorsTest, ATrailingPartialQuantRecordIsDropped) {
  test::Bytes records(3 * 32 + 5, 0x5A);
  open(image.replace(SectionType::QuantInfo, records).fixCrc());
  ASSERT_EQ(3U, reader.quantRecords().size());
  EXPECT_EQ(0x5A5AU, reader.quantRecords()[2].word0);
  EXPECT_EQ(0x5A5A5A5AU, reader.quantRecords()[2].words[3]);
}

TEST_F(TensorsTest, QuantRecordsOfAnEarlierFileAreGoneAfterReopening) {
  open(image);
  EXPECT_EQ(3U, reader.quantRecords().size());
  open(image.hide(SectionType::QuantInfo).fixCrc());
  EXPECT_TRUE(reader.quantRecords().empty());
}

}  // namespace
