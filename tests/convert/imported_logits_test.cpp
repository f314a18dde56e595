// What an imported model computes, against a reference in double precision that runs on the
// source's values: decoded here, and written as a container without the importer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>

#include "container/zym2_writer.h"
#include "tests/convert/converted.h"
#include "tests/convert/reference_blocks.h"
#include "tests/convert/tiny_model.h"
#include "tests/support/opened_model.h"
#include "tests/support/reference_model.h"

namespace {

using namespace kel::test;
using kel::QuantType;
using kel::convert::StorageChoice;

const std::vector<size_t> kTokens = {1, 17, 4, 39, 0, 4};

// A model of which some matrices have values of their own, from blocks of a source format.
class Source {
 public:
  Source() : file(tinyGguf(model, 30)) {}

  void encode(TinyTensor& tensor, const ReferenceFormat& format) {
    GgufBuilder::Tensor& stored = tensorNamed(file, tensor.name);
    stored.type = format.ggufType;
    stored.data = randomBlocks(format, tensor.runtime.size(), random);
    const std::vector<double> values = format.decodeAll(stored.data);
    std::transform(values.begin(), values.end(), tensor.runtime.begin(),
                   [](double value) { return static_cast<float>(value); });
  }

  // Takes the formats in turn, among those that the rows of a matrix can hold.
  template <typename Accepts>
  void encodeMatrices(Accepts accepts) {
    size_t next = 0;
    for (TinyTensor& tensor : model) {
      if (!tensor.matrix) {
        continue;
      }
      const ReferenceFormat* format = nullptr;
      while (format == nullptr || !accepts(*format) || tensor.dims[0] % format->blockLen != 0) {
        format = &referenceFormats()[next++ % referenceFormats().size()];
      }
      encode(tensor, *format);
    }
  }

  Vectors referenceLogits() const {
    const TempDir folder;
    const std::string path = folder.file("values.zym");
    kel::ZYM2Writer writer;
    EXPECT_TRUE(writer.create(path).ok());
    writer.addMetaStr("general.architecture", "qwen35");
    kel::TokenizerData tables;  // a container must have one
    tables.tokens.resize(kTinyVocab);
    tables.tokenTypes.resize(kTinyVocab);
    writer.setTokenizer(std::move(tables));
    for (const TinyTensor& tensor : model) {
      EXPECT_TRUE(writer
                      .addTensor(tensor.name, QuantType::F32, tensor.dims, tensor.runtime.data(),
                                 tensor.runtime.size() * sizeof(float))
                      .ok());
    }
    EXPECT_TRUE(writer.finish().ok());
    kel::ZYMLoader loader;
    EXPECT_EQ("", loader.open(path.c_str()).message);
    return runReference(loader, kTokens).logits;
  }

  std::vector<TinyTensor> model = tinyModel(true);
  GgufBuilder file;

 private:
  std::mt19937 random{7};
};

// |got - expected| / |expected| of all logits, as one vector.
double relativeError(const Vectors& expected, const std::string& container) {
  Handle handle(container);
  double difference = 0;
  double size = 0;
  for (size_t t = 0; t < kTokens.size(); ++t) {
    const std::vector<float> logits = handle.logits(kTokens[t]);
    for (size_t i = 0; i < logits.size(); ++i) {
      difference += (logits[i] - expected[t][i]) * (logits[i] - expected[t][i]);
      size += expected[t][i] * expected[t][i];
    }
  }
  return std::sqrt(difference / size);
}

StorageChoice asFloats() {
  StorageChoice storage;
  storage.type = QuantType::F32;
  return storage;
}

class ImportedLogits : public testing::Test {
 protected:
  double errorOf(const GgufBuilder& file, const Vectors& expected,
                 const StorageChoice& storage = {}) const {
    const std::string path = folder.file("model.gguf");
    file.write(path);
    return relativeError(expected, Converted(path, storage).path);
  }

  TempDir folder;
  Source source;
};

TEST_F(ImportedLogits, OfKeptTypesAreTheSources) {
  source.encodeMatrices([](const ReferenceFormat& format) { return format.kept; });
  const Vectors expected = source.referenceLogits();
  EXPECT_LE(errorOf(source.file, expected), 1e-4);
  EXPECT_LE(errorOf(bundledGguf(source.file), expected), 1e-4);
}

TEST_F(ImportedLogits, OfEveryTypeAsFloatsAreTheSources) {
  source.encodeMatrices([](const ReferenceFormat&) { return true; });
  const Vectors expected = source.referenceLogits();
  EXPECT_LE(errorOf(source.file, expected, asFloats()), 1e-4);
  EXPECT_LE(errorOf(bundledGguf(source.file), expected, asFloats()), 1e-4);
}

TEST_F(ImportedLogits, OfReencodedTypesStayClose) {
  source.encodeMatrices([](const ReferenceFormat& format) { return !format.kept; });
  // Small steps, and larger ones where the source's are larger still, through 32 layers of random
  // weights that amplify them. What is wrong altogether gives more than 1.
  const Vectors expected = source.referenceLogits();
  EXPECT_LE(errorOf(source.file, expected), 0.4);
  StorageChoice best;
  best.preset = kel::convert::Preset::Best;
  EXPECT_LE(errorOf(source.file, expected, best), 0.4);
}

TEST_F(ImportedLogits, OfACheckpointAreTheSources) {
  const std::string path = folder.file("checkpoint");
  tinyDirectory(source.model, "BF16").write(path);
  EXPECT_LE(relativeError(source.referenceLogits(), Converted(path).path), 1e-4);
}

}  // namespace
