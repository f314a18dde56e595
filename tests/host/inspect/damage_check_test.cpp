#include "host/inspect/damage_check.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "host/inspect/checksums.h"
#include "tests/host/model_file.h"
#include "tests/support/temp_dir.h"
#include "tests/support/zym2_patch.h"

namespace zym {
namespace {

using kel::QuantType;
using kel::ZYM2Reader;
using kel::ZYM2Writer;
using kel::test::Bytes;
using kel::test::ContainerImage;
using kel::test::Packer;
using kel::zym2::SectionType;

class DamageCheckTest : public testing::Test {
 protected:
  // A container with every section, padding between all of them and between its tensors.
  Bytes sample(bool checksums) const {
    ZYM2Writer writer;
    EXPECT_TRUE(writer.create(path).ok());
    if (checksums) {
      writer.storeChecksums();
    }
    writer.addMetaStr("general.architecture", "qwen35");
    writer.addMetaU64("a number", 7);
    writer.addMetaU32Array("numbers", {1, 2, 3});
    writer.setTokenizer(testing_support::smallVocabulary(3));
    writer.setText("some text");
    EXPECT_TRUE(writer.addTensor("a", QuantType::F32, {1}, "abcd", 4).ok());
    EXPECT_TRUE(writer.addTensor("b", QuantType::F32, {2}, "abcdefgh", 8).ok());
    EXPECT_TRUE(writer.finish().ok());
    return kel::test::readFile(path);
  }

  // "refused" where the reader opens no such file.
  static std::string faultsOfFile(const std::string& file) {
    return inspect(file, [](const ZYM2Reader& reader) {
      std::vector<Fault> faults;
      Reading reading(nullptr);
      checkUnusedBytes(reader, faults);
      checkChecksums(reader, reading, faults);
      std::string text;
      for (const Fault& fault : faults) {
        text += fault.where + ": " + fault.what + "\n";
      }
      return text;
    });
  }
  std::string faultsOf(const Bytes& bytes) const { return faultsOfFile(copyOf(bytes)); }
  std::string unguarded(const Bytes& bytes) const {
    return inspect(copyOf(bytes), [](const ZYM2Reader& reader) {
      const std::vector<std::string> names = sectionsWithoutChecksum(reader);
      return std::accumulate(
          names.begin(), names.end(), std::string(),
          [](std::string all, const std::string& name) { return std::move(all) + name + "\n"; });
    });
  }

  kel::test::TempDir folder;
  std::string path = folder.file("sample.zym");

 private:
  std::string copyOf(const Bytes& bytes) const {
    const std::string copy = folder.file("copy.zym");
    kel::test::writeFile(copy, bytes);
    return copy;
  }
  static std::string inspect(const std::string& file,
                             const std::function<std::string(const ZYM2Reader&)>& what) {
    ZYM2Reader reader;
    return reader.open(file.c_str()).ok() ? what(reader) : "refused";
  }
};

TEST_F(DamageCheckTest, WrittenContainersHaveNoFault) {
  EXPECT_EQ(faultsOf(sample(true)), "");
  EXPECT_EQ(faultsOf(sample(false)), "");
}

// One bit of each byte, every position of a bit in turn; in place, since a file for each is slow.
TEST_F(DamageCheckTest, FlippedBitsAreFoundInEveryByte) {
  const Bytes whole = sample(true);
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  const auto put = [&](size_t at, int byte) {
    file.seekp(static_cast<std::streamoff>(at));
    file.put(static_cast<char>(byte)).flush();
  };
  for (size_t at = 0; at < whole.size(); ++at) {
    put(at, whole[at] ^ (1 << at % 8));
    EXPECT_NE(faultsOfFile(path), "") << at;
    put(at, whole[at]);
  }
  EXPECT_EQ(faultsOfFile(path), "");
}

TEST_F(DamageCheckTest, EveryLengthButTheRightOneIsFound) {
  const Bytes whole = sample(true);
  for (size_t length = whole.size() - 1; length > 0; --length) {
    std::filesystem::resize_file(path, length);
    EXPECT_NE(faultsOfFile(path), "") << length;
  }
  Bytes longer = whole;
  longer.resize(whole.size() + 100);
  EXPECT_EQ(faultsOf(longer), "file: has 100 bytes behind its last section, which ends at " +
                                  std::to_string(whole.size()) + "\n");
}

TEST_F(DamageCheckTest, SectionsAreNamed) {
  const ContainerImage whole(sample(true));
  for (const auto& [type, name] : {std::pair{SectionType::Meta, "metadata"},
                                   {SectionType::Tokenizer, "tokenizer"},
                                   {SectionType::Text, "text"},
                                   {SectionType::TensorIndex, "tensor index"},
                                   {SectionType::WeightData, "weights"},
                                   {SectionType::QuantInfo, "quant info"}}) {
    ContainerImage image = whole;
    const size_t at = image.offsetOf(type) + 8;  // in the metadata: the architecture's key
    image.set<uint8_t>(at, image.get<uint8_t>(at) ^ 1);
    EXPECT_EQ(faultsOf(image.bytes), std::string("section ") + name +
                                         ": differs from its checksum: the file is damaged\n");
  }
}

TEST_F(DamageCheckTest, PaddingIsZero) {
  ContainerImage image(sample(false));
  const size_t at = image.offsetOf(SectionType::Text) + image.sizeOf(SectionType::Text);
  image.set<uint8_t>(at, 1);
  EXPECT_EQ(faultsOf(image.bytes), "file: byte " + std::to_string(at) +
                                       ", outside of all sections, is not zero: the file is "
                                       "damaged\n");
}

TEST_F(DamageCheckTest, MetadataEndsWithItsLastEntry) {
  ContainerImage image(sample(false));
  const size_t at = image.offsetOf(SectionType::Meta);
  image.set<uint32_t>(at, image.get<uint32_t>(at) - 1);
  // The array: its key of seven letters, its type, and four words.
  EXPECT_EQ(faultsOf(image.bytes),
            "section metadata: has 26 bytes behind its last entry: the file is damaged\n");
}

// As written before the metadata had a checksum.
TEST_F(DamageCheckTest, OlderFilesAreSoundAndSayWhatIsNotCovered) {
  const Bytes text = {'s', 'o', 'm', 'e', ' ', 't', 'e', 'x', 't'};
  const std::string sum = checksumText(text.data(), text.size(), nullptr);
  ContainerImage older(sample(false));
  older.replace(SectionType::Meta,
                Packer().u32(1).u16(17).text("zym.xxh3_128.text").u8(4).string32(sum).bytes);
  older.fixCrc();
  const size_t begin = ContainerImage(sample(false)).offsetOf(SectionType::Meta);
  // What the replaced metadata leaves behind is cleared, as if it had never been there.
  std::fill(older.bytes.begin() + static_cast<ptrdiff_t>(begin),
            older.bytes.begin() + static_cast<ptrdiff_t>(older.offsetOf(SectionType::Meta)),
            uint8_t{0});
  EXPECT_EQ(faultsOf(older.bytes), "");
  EXPECT_EQ(unguarded(older.bytes), "weights\ntokenizer\ntensor index\nquant info\nmetadata\n");
}

TEST_F(DamageCheckTest, WhatNoChecksumCoversIsNamed) {
  EXPECT_EQ(unguarded(sample(true)), "");
  EXPECT_EQ(unguarded(sample(false)),
            "weights\ntokenizer\ntext\ntensor index\nquant info\nmetadata\n");
}

TEST_F(DamageCheckTest, ProgressCanEndTheReading) {
  sample(true);
  ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  std::vector<Fault> faults;
  int calls = 0;
  const CheckProgress stop = [&](uint64_t, uint64_t) { return ++calls < 2; };
  Reading reading(stop);
  checkChecksums(reader, reading, faults);
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(reading.isEnded());
  EXPECT_TRUE(faults.empty());
}

}  // namespace
}  // namespace zym
