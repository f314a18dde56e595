// The converter's bytes for fixed sources. Containers that are kept for later are known to be out
// of date by kConverterVersion alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "container/checksum.h"
#include "tests/convert/converted.h"
#include "tests/convert/reference_blocks.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;

// A version and what the converter of that version makes.
constexpr int kVersion = 1;
constexpr const char* kOfGguf = "06f847ff786a4a16964f61eb6cb8482c";
constexpr const char* kOfCheckpoint = "21864391b175af13e15ef30ed52750ec";

constexpr const char* kAdvice =
    "the converter gives other bytes than its version 1 did. If that is meant, raise "
    "kConverterVersion: containers in people's caches differ; then write the new version and the "
    "new checksums here";

// Rows of 256 values, so that every format can hold them.
TinyShape shape() {
  TinyShape shape;
  shape.layers = 8;
  shape.queryHeads = 4;
  shape.kvHeads = 2;
  shape.headDim = 64;
  shape.ropeDim = 16;
  shape.keyHeads = 2;
  shape.valueHeads = 4;
  shape.keyDim = 32;
  shape.valueDim = 64;
  shape.hidden = 256;
  shape.feedForward = 256;
  shape.ownOutput = true;
  shape.prediction = true;
  return shape;
}

// The checksum of the metadata, which hold those of all other sections.
std::string checksum(const std::string& source) {
  std::string text;
  EXPECT_TRUE(Converted(source).loader.reader.getMetaStr(kel::kMetadataChecksumKey, text));
  return text;
}

TEST(ConverterVersion, IsThatOfTheBytesOfAGguf) {
  const TempDir folder;
  const std::vector<TinyTensor> model = tinyModel(true, shape());
  GgufBuilder file = tinyGguf(model, 30, shape());
  std::mt19937 random(7);
  size_t next = 0;
  for (const TinyTensor& tensor : model) {
    if (tensor.matrix) {  // every format in turn
      const ReferenceFormat& format = referenceFormats()[next++ % referenceFormats().size()];
      GgufBuilder::Tensor& stored = tensorNamed(file, tensor.name);
      stored.type = format.ggufType;
      stored.data = randomBlocks(format, tensor.runtime.size(), random);
    }
  }
  EXPECT_GT(next, referenceFormats().size());
  file.write(folder.file("model.gguf"));
  EXPECT_EQ(kVersion, kel::convert::kConverterVersion);
  EXPECT_EQ(kOfGguf, checksum(folder.file("model.gguf"))) << kAdvice;
}

TEST(ConverterVersion, IsThatOfTheBytesOfACheckpoint) {
  const TempDir folder;
  tinyDirectory(tinyModel(true, shape()), "F16", shape()).write(folder.file("checkpoint"));
  EXPECT_EQ(kVersion, kel::convert::kConverterVersion);
  EXPECT_EQ(kOfCheckpoint, checksum(folder.file("checkpoint"))) << kAdvice;
}

}  // namespace
