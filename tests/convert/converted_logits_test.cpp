// What converted models of every size compute: containers from both kinds of source, in every kind
// of storage, run by the engine, against an independent account in double precision. That runs on
// values that went through no importer where the storage keeps them, otherwise on those of the
// container.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "container/zym2_writer.h"
#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"
#include "tests/engine/engine_models.h"
#include "tests/support/family_shapes.h"
#include "tests/support/reference_model.h"

namespace {

using namespace kel::test;
using kel::QuantType;

struct Size {
  const char* name;
  TinyShape shape;
};

void PrintTo(const Size& size, std::ostream* out) {
  *out << size.name;
}

// Rows of 256 and more values, which super-blocks can hold, are those behind the feed-forward
// block and both kinds of attention.
TinyShape sized(uint64_t hidden, uint64_t layers, uint64_t queryHeads, uint64_t kvHeads,
                uint64_t valueHeads, bool ownOutput) {
  TinyShape shape;
  shape.layers = layers;
  shape.queryHeads = queryHeads;
  shape.kvHeads = kvHeads;
  shape.valueHeads = valueHeads;
  shape.hidden = hidden;
  shape.feedForward = 256;
  shape.ownOutput = ownOutput;
  return shape;
}

const std::vector<int32_t> kPrompt = {1, 17, 4, 39};
const std::vector<int32_t> kGenerated = {0, 4};

// Of the prompt's last token and of each generated one.
Vectors referenceLogits(const kel::ZYMLoader& loader, const TinyShape& tiny) {
  std::vector<size_t> tokens(kPrompt.begin(), kPrompt.end());
  tokens.insert(tokens.end(), kGenerated.begin(), kGenerated.end());
  const kel::ModelShape shape = familyShape(static_cast<uint32_t>(tiny.layers), tiny.queryHeads,
                                            tiny.kvHeads, tiny.valueHeads, tiny.ownOutput);
  const Vectors all = runReference(loader, tokens, shape).logits;
  return {all.begin() + static_cast<std::ptrdiff_t>(kPrompt.size()) - 1, all.end()};
}

class ConvertedLogits : public testing::TestWithParam<Size> {
 protected:
  void SetUp() override {
    tinyGguf(model, 30, GetParam().shape).write(folder.file("model.gguf"));
    tinyDirectory(model, "BF16", GetParam().shape).write(folder.file("checkpoint"));
  }

  // The model's values as the runtime uses them, without the importer.
  Vectors sourceLogits() const {
    const std::string path = folder.file("values.zym");
    kel::ZYM2Writer writer;
    EXPECT_TRUE(writer.create(path).ok());
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
    return referenceLogits(loader, GetParam().shape);
  }

  static void expectSameTensors(const Converted& one, const Converted& other) {
    ASSERT_EQ(one.loader.tensorCount, other.loader.tensorCount);
    for (const kel::TensorView& view : one.loader.tensors) {
      EXPECT_EQ(view.type, other.tensor(view.name).type) << view.name;
      EXPECT_TRUE(one.bytes(view.name) == other.bytes(view.name)) << view.name;
    }
  }

  static void expectLogits(const Vectors& expected, const Converted& converted) {
    std::shared_ptr<const engine::Model> opened;
    ASSERT_EQ("", engine::Model::open(converted.path, opened).message);
    std::unique_ptr<engine::Context> context;
    ASSERT_TRUE(engine::Context::create(opened, {.positions = 16}, context).ok());
    engine::testing_support::feed(*context, kPrompt);
    for (size_t step = 0; step < expected.size(); ++step) {
      if (step > 0) {
        ASSERT_TRUE(context->feedToken(kGenerated[step - 1]).ok());
      }
      ASSERT_EQ(expected[step].size(), context->logits().size());
      double difference = 0;
      double size = 0;
      for (size_t i = 0; i < expected[step].size(); ++i) {
        difference += std::pow(context->logits()[i] - expected[step][i], 2);
        size += std::pow(expected[step][i], 2);
      }
      EXPECT_LE(std::sqrt(difference / size), 1e-5) << "step " << step;
    }
  }

  // Converts both sources and compares the containers. expected: of storage that keeps the source's
  // values; otherwise empty, for the logits of what is stored.
  void expectModel(QuantType type, const Vectors& expected) {
    SCOPED_TRACE(kel::quantTypeName(type));
    kel::convert::StorageChoice storage;
    storage.type = type;
    const Converted gguf(folder.file("model.gguf"), storage);
    const Converted checkpoint(folder.file("checkpoint"), storage);
    EXPECT_EQ(type, gguf.tensor("blk.0.ssm_out.weight").type);
    expectSameTensors(gguf, checkpoint);
    expectLogits(expected.empty() ? referenceLogits(gguf.loader, GetParam().shape) : expected,
                 gguf);
    // Of equal tensors the metadata alone can differ, and not with the type.
    if (type == QuantType::F32) {
      expectLogits(expected, checkpoint);
    }
  }

  std::vector<TinyTensor> model = tinyModel(true, GetParam().shape);
  TempDir folder;
};

TEST_P(ConvertedLogits, AreTheModelsWhateverItIsStoredAs) {
  const Vectors source = sourceLogits();
  expectModel(QuantType::F32, source);
  expectModel(QuantType::BF16, source);
  expectModel(QuantType::Q8_0, {});
  expectModel(QuantType::Q4_K, {});
}

INSTANTIATE_TEST_SUITE_P(Family, ConvertedLogits,
                         testing::Values(Size{"of08B", sized(2, 24, 8, 2, 16, false)},
                                         Size{"of2B", sized(4, 24, 8, 2, 16, false)},
                                         Size{"of4B", sized(5, 32, 16, 4, 32, false)},
                                         Size{"of9B", sized(8, 32, 16, 4, 32, true)},
                                         Size{"of27B", sized(10, 64, 24, 4, 48, true)}),
                         [](const auto& test) { return test.param.name; });

}  // namespace
