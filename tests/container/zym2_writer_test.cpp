#include "container/zym2_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <cstdio>
#include <filesystem>
#include <functional>

#include "container/zym_loader.h"
#include "tests/support/container_samples.h"
#include "tests/support/file_size_limit.h"

namespace {

using kel::QuantType;
using kel::Status;
using kel::StatusCode;
using kel::TensorView;
using kel::TokenizerData;
using kel::ZYM2Reader;
using kel::ZYM2Writer;
using kel::ZYMLoader;
using kel::test::Bytes;
using kel::test::ContainerImage;
using kel::test::FileSizeLimit;
using kel::zym2::SectionType;
namespace test = kel::test;

constexpr SectionType kSectionTypes[] = {SectionType::Meta,       SectionType::Tokenizer,
                                         SectionType::Text,       SectionType::TensorIndex,
                                         SectionType::WeightData, SectionType::QuantInfo};

class WriterTest : public testing::Test {
 protected:
  size_t filesInFolder() const {
    const std::filesystem::directory_iterator entries(dir.path());
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
  }

  Status addSmallTensor(const std::string& name) {
    return writer.addTensor(name, QuantType::F32, {1}, "\0\0\0\0", 4);
  }

  // The failure names this message, sticks, and leaves the folder empty.
  void expectRefused(const Status& status, const std::string& message) {
    EXPECT_EQ(StatusCode::InvalidFormat, status.code);
    EXPECT_EQ(message, status.message);
    EXPECT_EQ(message, addSmallTensor("later").message);
    EXPECT_EQ(message, writer.finish().message);
    EXPECT_EQ(message, writer.create(path).message);
    EXPECT_EQ(0U, filesInFolder());
  }

  const test::TempDir dir;
  const std::string path = dir.file("model.zym");
  ZYM2Writer writer;
};

TEST_F(WriterTest, WhatIsWrittenIsRead) {
  const ContainerImage image = test::sampleImage();
  test::writeFile(path, image.bytes);
  ZYMLoader loader;
  ASSERT_EQ("", loader.open(path.c_str()).message);
  EXPECT_EQ(0xAU, loader.wordA);
  EXPECT_EQ(0xBU, loader.wordB);
  EXPECT_EQ(0xCU, loader.wordC);
  EXPECT_EQ("some text", loader.text);
  EXPECT_EQ(test::sampleTokenizer().tokens, loader.tokenizer.tokens);
  EXPECT_EQ(test::sampleTokenizer().merges, loader.tokenizer.merges);
  const TensorView* record = loader.findTensor("b");
  ASSERT_NE(nullptr, record);
  EXPECT_EQ(2.0F, *static_cast<const float*>(record->data));
  ZYM2Reader::MetaEntryView entry;
  ASSERT_TRUE(loader.reader.metaAt(5, entry));
  EXPECT_EQ((std::vector<uint32_t>{7, 8, 9}), entry.array);
}

TEST_F(WriterTest, AFileWithNothingInItOpensInTheReader) {
  ASSERT_TRUE(writer.create(path).ok());
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_EQ("", reader.open(path.c_str()).message);
  EXPECT_EQ(nullptr, reader.section(SectionType::Tokenizer));
  EXPECT_EQ(nullptr, reader.section(SectionType::Text));
  EXPECT_NE(nullptr, reader.section(SectionType::QuantInfo));
  EXPECT_EQ(0U, reader.header().tensorCount);
}

TEST_F(WriterTest, QuantInfoCanBeLeftOut) {
  ASSERT_TRUE(writer.create(path).ok());
  writer.setQuantInfo(false);
  ASSERT_TRUE(addSmallTensor("t").ok());
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_EQ("", reader.open(path.c_str()).message);
  EXPECT_EQ(nullptr, reader.section(SectionType::QuantInfo));
}

TEST_F(WriterTest, AnEmptyTextIsASectionOfNoBytes) {
  ASSERT_TRUE(writer.create(path).ok());
  writer.setText("");
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  EXPECT_NE(nullptr, reader.section(SectionType::Text));
  EXPECT_EQ(0U, reader.sectionSize(SectionType::Text));
}

TEST_F(WriterTest, SectionsAreAlignedAndTheSpaceBetweenThemIsZero) {
  ContainerImage image = test::sampleImage();
  Bytes rest = image.bytes;
  std::fill_n(rest.begin(), 64 + 24 * image.sectionCount(), uint8_t{0});
  for (const SectionType type : kSectionTypes) {
    EXPECT_EQ(0U, image.offsetOf(type) % 64);
    std::fill_n(rest.begin() + static_cast<ptrdiff_t>(image.offsetOf(type)), image.sizeOf(type),
                uint8_t{0});
  }
  EXPECT_EQ(Bytes(rest.size(), 0), rest);
}

TEST_F(WriterTest, TheChecksumIsThatOfTheFormat) {
  const ContainerImage image = test::sampleImage();
  ContainerImage fixed = image;
  EXPECT_EQ(fixed.fixCrc().bytes, image.bytes);
}

TEST_F(WriterTest, TensorDataIsAlignedAndItsPaddingZero) {
  ASSERT_TRUE(writer.create(path).ok());
  const Bytes data(100, 0xAB);
  for (const char* name : {"x", "y", "z"}) {
    ASSERT_TRUE(writer.addTensor(name, QuantType::Q4_0, {32}, data.data(), 65).ok());
  }
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  for (size_t i = 0; i < 3; ++i) {
    const ZYM2Reader::TensorEntryView view = reader.tensorView(i);
    EXPECT_EQ(reader.sectionData(SectionType::WeightData) + 128 * i, view.data);
    EXPECT_EQ(65U, view.byteSize);
    EXPECT_EQ(0xABU, view.data[64]);
  }
  const uint8_t* weights = reader.sectionData(SectionType::WeightData);
  EXPECT_EQ(Bytes(63, 0), Bytes(weights + 65, weights + 128));
  EXPECT_EQ(2 * 128 + 65U, reader.sectionSize(SectionType::WeightData));
}

TEST_F(WriterTest, TheIndexIsSortedByUnsignedBytes) {
  ASSERT_TRUE(writer.create(path).ok());
  const std::vector<std::string> names = {"b", "\xC3\xA9", "ab", "a", std::string(64, 'n'), "B"};
  for (const std::string& name : names) {
    ASSERT_TRUE(addSmallTensor(name).ok());
  }
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  const std::vector<std::string> sorted = {"B", "a", "ab", "b", std::string(64, 'n'), "\xC3\xA9"};
  for (size_t i = 0; i < sorted.size(); ++i) {
    EXPECT_EQ(sorted[i], reader.tensorEntry(i)->nameText());
    EXPECT_EQ(static_cast<const void*>(reader.tensorEntry(i)), reader.findTensor(sorted[i].c_str()))
        << sorted[i];
  }
}

// Keys and stored values of a file's checksums, in the order of its metadata.
std::vector<std::pair<std::string, std::string>> storedChecksums(const ZYM2Reader& reader) {
  std::vector<std::pair<std::string, std::string>> stored;
  ZYM2Reader::MetaEntryView entry;
  for (size_t i = 0; reader.metaAt(i, entry); ++i) {
    if (entry.key.starts_with("zym.xxh3_128.")) {
      stored.emplace_back(entry.key, entry.str);
    }
  }
  return stored;
}

std::string checksumText(const uint8_t* data, size_t nBytes) {
  const XXH128_hash_t sum = XXH3_128bits(data, nBytes);
  char text[33];
  std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(sum.high64),
                static_cast<unsigned long long>(sum.low64));
  return text;
}

std::string checksumOf(const ZYM2Reader& reader, SectionType section) {
  return checksumText(reader.sectionData(section), reader.sectionSize(section));
}

// Of all but the digits at the end.
std::string metadataChecksum(const ZYM2Reader& reader) {
  return checksumText(reader.sectionData(SectionType::Meta),
                      reader.sectionSize(SectionType::Meta) - 32);
}

// Odd sizes put padding between the tensors, and names in falling order have the index sorted.
TEST_F(WriterTest, ChecksumsAreThoseOfTheSectionsAsWritten) {
  const std::vector<char> data(1000, 'w');
  ASSERT_TRUE(writer.create(path).ok());
  writer.storeChecksums();
  writer.setTokenizer(test::sampleTokenizer());
  writer.setText("text");
  ASSERT_TRUE(writer.addTensor("b", QuantType::F32, {1, 1}, data.data(), 5).ok());
  ASSERT_TRUE(writer.addTensor("a", QuantType::Q8_0, {32, 7}, data.data(), 999).ok());
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"zym.xxh3_128.tokenizer", checksumOf(reader, SectionType::Tokenizer)},
      {"zym.xxh3_128.text", checksumOf(reader, SectionType::Text)},
      {"zym.xxh3_128.tensor_index", checksumOf(reader, SectionType::TensorIndex)},
      {"zym.xxh3_128.weight_data", checksumOf(reader, SectionType::WeightData)},
      {"zym.xxh3_128.quant_info", checksumOf(reader, SectionType::QuantInfo)},
      {"zym.xxh3_128.metadata", metadataChecksum(reader)}};
  EXPECT_EQ(expected, storedChecksums(reader));
}

TEST_F(WriterTest, DigitsOfTheMetadatasChecksumEndItsSection) {
  ASSERT_TRUE(writer.create(path).ok());
  writer.addMetaU32("key", 7);
  writer.storeChecksums();
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  const auto* bytes = reinterpret_cast<const char*>(reader.sectionData(SectionType::Meta));
  const std::string section(bytes, reader.sectionSize(SectionType::Meta));
  EXPECT_TRUE(section.ends_with(metadataChecksum(reader)));
}

TEST_F(WriterTest, SectionsThatAreLeftOutHaveNoChecksum) {
  ASSERT_TRUE(writer.create(path).ok());
  writer.storeChecksums();
  writer.setQuantInfo(false);
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"zym.xxh3_128.tensor_index", "99aa06d3014798d86001c324468d497f"},  // of no bytes
      {"zym.xxh3_128.weight_data", "99aa06d3014798d86001c324468d497f"},
      {"zym.xxh3_128.metadata", metadataChecksum(reader)}};
  EXPECT_EQ(expected, storedChecksums(reader));
}

TEST_F(WriterTest, ChecksumsAreStoredOnRequestAloneAndForOneFile) {
  ASSERT_TRUE(writer.create(path).ok());
  writer.storeChecksums();
  ASSERT_TRUE(writer.finish().ok());
  ASSERT_TRUE(writer.create(path).ok());
  ASSERT_TRUE(addSmallTensor("a").ok());
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  EXPECT_TRUE(storedChecksums(reader).empty());
}

TEST_F(WriterTest, ChecksumsCannotBeginAfterTheFirstTensor) {
  ASSERT_TRUE(writer.create(path).ok());
  ASSERT_TRUE(addSmallTensor("a").ok());
  writer.storeChecksums();
  expectRefused(writer.endTensor(), "ZYM2Writer: checksums asked for after the first tensor");
}

TEST_F(WriterTest, ATensorMayHaveNoBytesAndNoDimensions) {
  ASSERT_TRUE(writer.create(path).ok());
  ASSERT_TRUE(writer.addTensor("none", QuantType::F32, {}, nullptr, 0).ok());
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  EXPECT_EQ(0U, reader.tensorView("none").rank);
  EXPECT_EQ(0U, reader.tensorView("none").byteSize);
}

// More than the writer's buffer, in pieces smaller, equal and larger than it.
TEST_F(WriterTest, ABigTensorIsStreamedInPiecesOfAnySize) {
  Bytes data(6 << 20);
  for (size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<uint8_t>(i * 2654435761U >> 13);
  }
  ASSERT_TRUE(writer.create(path).ok());
  ASSERT_TRUE(writer.beginTensor("big", QuantType::F32, {1024, 1536}).ok());
  const size_t pieces[] = {1, 4095, 0, 1 << 20, (1 << 20) - 1, (2 << 20) + 7, 100};
  size_t at = 0;
  for (size_t i = 0; at < data.size(); ++i) {
    const size_t piece = std::min(pieces[i % std::size(pieces)], data.size() - at);
    ASSERT_TRUE(writer.writeTensorData(data.data() + at, piece).ok());
    at += piece;
  }
  ASSERT_TRUE(writer.endTensor().ok());
  ASSERT_TRUE(addSmallTensor("small").ok());
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  const ZYM2Reader::TensorEntryView view = reader.tensorView("big");
  ASSERT_EQ(data.size(), view.byteSize);
  EXPECT_EQ(0, std::memcmp(data.data(), view.data, data.size()));
}

TEST_F(WriterTest, MetadataMayBeAddedUntilTheEndAndBeforeTheStart) {
  writer.addMetaU32("first", 1);
  ASSERT_TRUE(writer.create(path).ok());
  ASSERT_TRUE(addSmallTensor("t").ok());
  writer.addMetaU64("second", 2);
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  ZYM2Reader::MetaEntryView entry;
  ASSERT_TRUE(reader.metaAt(0, entry));
  EXPECT_EQ("first", entry.key);
  ASSERT_TRUE(reader.metaAt(1, entry));
  EXPECT_EQ("second", entry.key);
  EXPECT_FALSE(reader.metaAt(2, entry));
}

TEST_F(WriterTest, TheSameCallsGiveTheSameBytes) {
  EXPECT_EQ(test::sampleImage().bytes, test::sampleImage().bytes);
}

TEST_F(WriterTest, OneWriterWritesSeveralFiles) {
  ASSERT_TRUE(writer.create(path).ok());
  writer.addMetaU32("key", 1);
  writer.setText("text");
  ASSERT_TRUE(addSmallTensor("t").ok());
  ASSERT_TRUE(writer.finish().ok());
  ASSERT_TRUE(writer.create(dir.file("second.zym")).ok());
  ASSERT_TRUE(addSmallTensor("t").ok());
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(dir.file("second.zym").c_str()).ok());
  EXPECT_EQ(nullptr, reader.section(SectionType::Text));
  ZYM2Reader::MetaEntryView entry;
  EXPECT_FALSE(reader.metaAt(0, entry));
}

TEST_F(WriterTest, CallsWithoutAFileAreRefused) {
  expectRefused(addSmallTensor("t"), "ZYM2Writer: no file is being written");
  writer.abandon();
  expectRefused(writer.finish(), "ZYM2Writer: no file is being written");
  writer.abandon();
  expectRefused(writer.writeTensorData("x", 1), "ZYM2Writer: tensor data outside a tensor");
  writer.abandon();
  expectRefused(writer.endTensor(), "ZYM2Writer: end of a tensor outside a tensor");
  writer.abandon();
  EXPECT_TRUE(writer.create(path).ok());
}

struct Mistake {
  const char* name;
  std::function<Status(ZYM2Writer&)> call;
  std::string message;
};

TEST_F(WriterTest, MistakesAreNamedAndDropTheFile) {
  const auto begin = [](ZYM2Writer& w, const std::string& name) {
    return w.beginTensor(name, QuantType::F32, {1});
  };
  const std::string longName(65, 'n');
  const std::vector<Mistake> mistakes = {
      {"second create", [&](ZYM2Writer& w) { return w.create(path); },
       "create called while a file is being written"},
      {"data outside", [](ZYM2Writer& w) { return w.writeTensorData("x", 1); },
       "tensor data outside a tensor"},
      {"end outside", [](ZYM2Writer& w) { return w.endTensor(); },
       "end of a tensor outside a tensor"},
      {"tensor in a tensor",
       [&](ZYM2Writer& w) {
         test::require(begin(w, "a"));
         return begin(w, "b");
       },
       "the previous tensor is not ended"},
      {"finish in a tensor",
       [&](ZYM2Writer& w) {
         test::require(begin(w, "a"));
         return w.finish();
       },
       "the last tensor is not ended"},
      {"duplicate name",
       [](ZYM2Writer& w) {
         test::require(w.addTensor("twice", QuantType::F32, {1}, "abcd", 4));
         return w.addTensor("twice", QuantType::F16, {2}, "abcd", 4);
       },
       "duplicate tensor name: twice"},
      {"empty name", [&](ZYM2Writer& w) { return begin(w, ""); }, "empty tensor name"},
      {"long name", [&](ZYM2Writer& w) { return begin(w, longName); },
       "tensor name over 64 bytes: " + longName},
      {"zero byte", [&](ZYM2Writer& w) { return begin(w, std::string("a\0b", 3)); },
       "tensor name holds a zero byte"},
      {"rank 5",
       [](ZYM2Writer& w) {
         return w.beginTensor("t", QuantType::F32, {1, 1, 1, 1, 1});
       },
       "tensor rank above 4: t"},
      {"long key",
       [](ZYM2Writer& w) {
         w.addMetaU32(std::string(65536, 'k'), 1);
         return w.finish();
       },
       "metadata key over 65535 bytes"},
      {"long value",
       [](ZYM2Writer& w) {
         w.addMetaStr("k", std::string_view("never read", size_t{1} << 32));
         return w.finish();
       },
       "metadata value too long"},
      {"long list",
       [](ZYM2Writer& w) {
         TokenizerData tables;
         tables.auxValues.resize(67108865);
         w.setTokenizer(std::move(tables));
         return w.finish();
       },
       "tokenizer list too long"},
  };
  for (const Mistake& mistake : mistakes) {
    SCOPED_TRACE(mistake.name);
    ASSERT_TRUE(writer.create(path).ok());
    expectRefused(mistake.call(writer), "ZYM2Writer: " + mistake.message);
    writer.abandon();
  }
}

TEST_F(WriterTest, TheLongestNameAndKeyAreWritten) {
  const std::string name(64, 'n');
  const std::string key(65535, 'k');
  ASSERT_TRUE(writer.create(path).ok());
  writer.addMetaU32(key, 5);
  ASSERT_TRUE(writer.addTensor(name, QuantType::F32, {1, 2, 3, 4}, "abcd", 4).ok());
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  uint32_t value = 0;
  EXPECT_TRUE(reader.getMetaU32(key.c_str(), value));
  EXPECT_EQ(4U, reader.tensorView(name.c_str()).dims[3]);
}

TEST_F(WriterTest, NothingAppearsUnderTheTargetsNameBeforeTheEnd) {
  test::writeFile(path, {'o', 'l', 'd'});
  ASSERT_TRUE(writer.create(path).ok());
  ASSERT_TRUE(addSmallTensor("t").ok());
  EXPECT_EQ((Bytes{'o', 'l', 'd'}), test::readFile(path));
  ASSERT_TRUE(writer.finish().ok());
  ZYM2Reader reader;
  EXPECT_TRUE(reader.open(path.c_str()).ok());
  EXPECT_EQ(1U, filesInFolder());
}

TEST_F(WriterTest, AMistakeAnAbandonAndADestructionLeaveTheTargetAlone) {
  test::writeFile(path, {'o', 'l', 'd'});
  ASSERT_TRUE(writer.create(path).ok());
  EXPECT_FALSE(addSmallTensor("").ok());
  writer.abandon();
  ASSERT_TRUE(writer.create(path).ok());
  writer.abandon();
  {
    ZYM2Writer shortLived;
    ASSERT_TRUE(shortLived.create(path).ok());
  }
  EXPECT_EQ(1U, filesInFolder());
  EXPECT_EQ((Bytes{'o', 'l', 'd'}), test::readFile(path));
}

TEST_F(WriterTest, AFullDiskWhileStreamingIsReportedAndLeavesTheTargetAlone) {
  test::writeFile(path, {'o', 'l', 'd'});
  const Bytes data(3 << 20);
  ASSERT_TRUE(writer.create(path).ok());
  Status status;
  {
    const FileSizeLimit limit(100000);
    status = writer.addTensor("t", QuantType::F32, {768, 1024}, data.data(), data.size());
  }
  EXPECT_EQ(StatusCode::IoError, status.code);
  EXPECT_EQ("ZYM2Writer: cannot write " + path + ": File too large", status.message);
  EXPECT_EQ(status.message, writer.finish().message);
  EXPECT_EQ((Bytes{'o', 'l', 'd'}), test::readFile(path));
  EXPECT_EQ(1U, filesInFolder());
}

TEST_F(WriterTest, AFullDiskAtTheEndIsReportedAndLeavesTheTargetAlone) {
  test::writeFile(path, {'o', 'l', 'd'});
  ASSERT_TRUE(writer.create(path).ok());
  ASSERT_TRUE(addSmallTensor("t").ok());
  Status status;
  {
    const FileSizeLimit limit(300);
    status = writer.finish();
  }
  EXPECT_EQ(StatusCode::IoError, status.code);
  EXPECT_EQ("ZYM2Writer: cannot write " + path + ": File too large", status.message);
  EXPECT_EQ((Bytes{'o', 'l', 'd'}), test::readFile(path));
  EXPECT_EQ(1U, filesInFolder());
}

}  // namespace
