// Damaged containers of every kind: whatever the bytes, opening and asking neither crashes nor
// reads outside the file. The sanitizer builds give these tests their teeth.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "container/zym_loader.h"
#include "tests/support/container_samples.h"
#include "tests/support/container_walk.h"

namespace {

using kel::Status;
using kel::ZYMLoader;
using kel::test::ContainerImage;
using kel::zym2::SectionType;
namespace test = kel::test;

constexpr SectionType kSectionTypes[] = {SectionType::Meta,       SectionType::Tokenizer,
                                         SectionType::Text,       SectionType::TensorIndex,
                                         SectionType::WeightData, SectionType::QuantInfo};

class RobustnessTest : public testing::Test {
 protected:
  // Opens the bytes and, where they open, walks them. A status that fails carries a message.
  bool survives(const test::Bytes& bytes) {
    file.write(bytes);
    const Status status = loader.open(path.c_str());
    if (status.ok()) {
      EXPECT_GT(test::walk(loader), 0U);
    } else {
      EXPECT_EQ(nullptr, loader.findTensor("a"));
      EXPECT_FALSE(status.message.empty());
    }
    loader.close();
    return status.ok();
  }

  // The bytes from one offset to another, each set to 0, to 255 and to its complement, under the
  // old checksum and under a right one.
  void damageEach(size_t from, size_t to) {
    for (size_t at = from; at < to; ++at) {
      const uint8_t old = whole.bytes[at];
      for (const uint8_t value : {uint8_t{0}, uint8_t{0xFF}, static_cast<uint8_t>(~old)}) {
        SCOPED_TRACE(std::to_string(at) + " = " + std::to_string(value));
        ContainerImage image = whole;
        image.bytes[at] = value;
        survives(image.bytes);
        if (image.sectionCount() > 16) {
          continue;  // no table to make a checksum of
        }
        survives(image.fixCrc().bytes);
      }
    }
  }

  void damageSection(SectionType type) {
    damageEach(whole.offsetOf(type), whole.offsetOf(type) + whole.sizeOf(type));
  }

  const ContainerImage whole = test::sampleImage();
  const test::MemoryFile file;
  const std::string path = file.path();
  ZYMLoader loader;
};

TEST_F(RobustnessTest, TheUndamagedFileOpens) {
  EXPECT_TRUE(survives(whole.bytes));
}

TEST_F(RobustnessTest, TruncationAtEveryByte) {
  test::Bytes bytes = whole.bytes;
  while (!bytes.empty()) {
    bytes.pop_back();
    EXPECT_FALSE(survives(bytes)) << bytes.size();
  }
}

// The table follows the end of the file, so that the checks behind it are reached.
TEST_F(RobustnessTest, TruncationAtEveryByteWithATableToMatch) {
  const size_t headBytes = test::kTableAt + whole.sectionCount() * test::kTableEntryBytes;
  ContainerImage image = whole;
  while (image.bytes.size() > headBytes) {
    image.bytes.pop_back();
    const uint64_t end = image.bytes.size();
    for (const SectionType type : kSectionTypes) {
      const uint64_t offset = std::min(image.offsetOf(type), end / 64 * 64);
      image.setOffset(type, offset).setSize(type, std::min(image.sizeOf(type), end - offset));
    }
    survives(image.fixCrc().bytes);
  }
}

TEST_F(RobustnessTest, EveryByteOfTheHeader) {
  damageEach(0, test::kTableAt);
}

TEST_F(RobustnessTest, EveryByteOfTheSectionTable) {
  damageEach(test::kTableAt, test::kTableAt + whole.sectionCount() * test::kTableEntryBytes);
}

TEST_F(RobustnessTest, EveryByteOfTheMetadata) {
  damageSection(SectionType::Meta);
}

TEST_F(RobustnessTest, EveryByteOfTheTensorIndex) {
  damageSection(SectionType::TensorIndex);
}

TEST_F(RobustnessTest, EveryByteOfTheQuantInfo) {
  damageSection(SectionType::QuantInfo);
}

TEST_F(RobustnessTest, EveryByteOfTheTokenizer) {
  damageSection(SectionType::Tokenizer);
}

TEST_F(RobustnessTest, EverySectionShrunkToEverySize) {
  for (const SectionType type : kSectionTypes) {
    for (uint64_t size = 0; size < whole.sizeOf(type); ++size) {
      ContainerImage image = whole;
      survives(image.setSize(type, size).fixCrc().bytes);
    }
  }
}

TEST_F(RobustnessTest, EverySectionMovedToEveryPlace) {
  const uint64_t end = whole.bytes.size();
  for (const SectionType type : kSectionTypes) {
    for (uint64_t offset = 0; offset <= end; offset += 64) {
      ContainerImage image = whole;
      image.setOffset(type, offset);
      survives(image.fixCrc().bytes);
      image.setSize(type, end - offset);
      survives(image.fixCrc().bytes);
    }
  }
}

}  // namespace
