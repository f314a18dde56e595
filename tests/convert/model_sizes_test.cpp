// Every size of the family, and one that is none of them, from both kinds of source: the containers
// hold the runtime's values, say the model's shape, and are the same tensor by tensor. Hidden size,
// feed-forward width and vocabulary are small; heads, widths of heads and layers are the real ones.
#include <gtest/gtest.h>

#include <ostream>

#include "container/shape_metadata.h"
#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"

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

constexpr uint64_t kLess = 512;  // of which the widths are a part, so that the widest stay small

TinyShape sized(uint64_t hidden, uint64_t layers, uint64_t queryHeads, uint64_t kvHeads,
                uint64_t valueHeads, uint64_t feedForward, bool ownOutput) {
  TinyShape shape;
  shape.layers = layers;
  shape.queryHeads = queryHeads;
  shape.kvHeads = kvHeads;
  shape.valueHeads = valueHeads;
  shape.hidden = hidden / kLess;
  shape.feedForward = feedForward / kLess;
  shape.ownOutput = ownOutput;
  shape.prediction = true;
  return shape;
}

// Of nobody's size: three value heads a key head, keys and values of different widths, other
// layers.
TinyShape odd() {
  TinyShape shape = sized(16 * kLess, 5, 6, 3, 9, 40 * kLess, true);
  shape.interval = 2;
  shape.headDim = 32;
  shape.ropeDim = 8;
  shape.keyHeads = 3;
  shape.keyDim = 16;
  shape.valueDim = 24;
  return shape;
}

class ModelSizes : public testing::TestWithParam<Size> {
 protected:
  static kel::convert::StorageChoice asFloats() {
    kel::convert::StorageChoice storage;
    storage.type = QuantType::F32;
    return storage;
  }

  void expectModel(const Converted& converted) const {
    size_t kept = 0;
    for (const TinyTensor& tensor : model) {
      if (tensor.name.starts_with("blk." + std::to_string(shape.layers))) {
        continue;
      }
      ++kept;
      const kel::TensorView& view = converted.tensor(tensor.name);
      EXPECT_EQ(tensor.dims, std::vector<uint64_t>(view.dims, view.dims + view.rank));
      EXPECT_TRUE(floatBytes(tensor.runtime, "F32") == converted.bytes(tensor.name)) << tensor.name;
    }
    EXPECT_EQ(kept, converted.loader.tensorCount);
    EXPECT_EQ((std::map<std::string, uint64_t>{{"multi-token prediction", 15}}),
              converted.result.summary.skipped);
    expectShape(converted, 0);
  }

  void expectShape(const Converted& converted, uint32_t predictionLayers) const {
    kel::StatedShape stated;
    ASSERT_EQ("", readShape(converted.loader.reader, stated).message);
    EXPECT_TRUE(stated.isStated);
    EXPECT_EQ(predictionLayers, stated.predictionLayers);
    EXPECT_EQ(shape.hidden, stated.sizes.hidden);
    EXPECT_EQ(shape.feedForward, stated.sizes.feedForward);
    EXPECT_EQ(
        (kel::ModelShape{.layers = static_cast<uint32_t>(shape.layers),
                         .fullLayers = kel::LayerSet::every(static_cast<uint32_t>(shape.interval),
                                                            static_cast<uint32_t>(shape.layers)),
                         .queryHeads = shape.queryHeads,
                         .kvHeads = shape.kvHeads,
                         .headDim = shape.headDim,
                         .ropeDim = shape.ropeDim,
                         .ropeBase = 1e7,
                         .linearKeyHeads = shape.keyHeads,
                         .linearValueHeads = shape.valueHeads,
                         .linearKeyDim = shape.keyDim,
                         .linearValueDim = shape.valueDim,
                         .convTaps = 4,
                         .normEps = 1e-6F,
                         .contextLength = 262144,
                         .ownOutput = shape.ownOutput}),
        stated.shape);
  }

  TinyShape shape = GetParam().shape;
  std::vector<TinyTensor> model = tinyModel(true, shape);
  TempDir folder;
};

TEST_P(ModelSizes, BothSourcesGiveTheRuntimesValues) {
  tinyGguf(model, 30, shape).write(folder.file("model.gguf"));
  expectModel(Converted(folder.file("model.gguf"), asFloats()));
  std::filesystem::remove(folder.file("model.gguf"));
  tinyDirectory(model, "BF16", shape).write(folder.file("checkpoint"));
  expectModel(Converted(folder.file("checkpoint"), asFloats()));
}

TEST_P(ModelSizes, TheBundledDialectGivesTheSame) {
  const GgufBuilder plain = tinyGguf(model, 30, shape);
  plain.write(folder.file("plain.gguf"));
  bundledGguf(plain, shape).write(folder.file("bundled.gguf"));
  const Converted one(folder.file("plain.gguf"));
  const Converted other(folder.file("bundled.gguf"));
  expectShape(other, 0);
  ASSERT_EQ(one.loader.tensorCount, other.loader.tensorCount);
  for (const kel::TensorView& view : one.loader.tensors) {
    EXPECT_TRUE(one.bytes(view.name) == other.bytes(view.name)) << view.name;
  }
}

// Columns that change places, in a type whose blocks stay whole.
TEST_P(ModelSizes, KeptTypesAreTheSameFromBothSources) {
  tinyGguf(model, 30, shape).write(folder.file("model.gguf"));
  tinyDirectory(model, "BF16", shape).write(folder.file("checkpoint"));
  const Converted one(folder.file("model.gguf"));
  const Converted other(folder.file("checkpoint"));
  ASSERT_EQ(one.loader.tensorCount, other.loader.tensorCount);
  for (const kel::TensorView& view : one.loader.tensors) {
    EXPECT_EQ(view.type, other.tensor(view.name).type) << view.name;
    EXPECT_TRUE(one.bytes(view.name) == other.bytes(view.name)) << view.name;
  }
}

INSTANTIATE_TEST_SUITE_P(Family, ModelSizes,
                         testing::Values(Size{"of08B", sized(1024, 24, 8, 2, 16, 3584, false)},
                                         Size{"of2B", sized(2048, 24, 8, 2, 16, 6144, false)},
                                         Size{"of4B", sized(2560, 32, 16, 4, 32, 9216, false)},
                                         Size{"of9B", sized(4096, 32, 16, 4, 32, 12288, true)},
                                         Size{"of27B", sized(5120, 64, 24, 4, 48, 17408, true)},
                                         Size{"ofNobody", odd()}),
                         [](const auto& test) { return test.param.name; });

// The layer of multi-token prediction, from both sources.
TEST(PredictionLayer, IsKeptOnRequest) {
  TinyShape shape = odd();
  const std::vector<TinyTensor> model = tinyModel(true, shape);
  const TempDir folder;
  tinyGguf(model, 30, shape).write(folder.file("model.gguf"));
  tinyDirectory(model, "BF16", shape).write(folder.file("checkpoint"));
  for (const char* source : {"model.gguf", "checkpoint"}) {
    kel::convert::ConvertOptions options;
    options.source = folder.file(source);
    options.target = folder.file(std::string(source) + ".zym");
    options.keepPrediction = true;
    options.storage.type = QuantType::F32;
    kel::convert::ProgressSink quiet;
    const kel::convert::ConvertResult result = kel::convert::convertModel(options, quiet);
    ASSERT_EQ("", result.status.message);
    EXPECT_TRUE(result.summary.skipped.empty());
    kel::ZYMLoader loader;
    ASSERT_TRUE(loader.open(options.target.c_str()).ok());
    EXPECT_EQ(model.size(), loader.tensorCount);
    for (const TinyTensor& tensor : model) {
      const kel::TensorView* view = loader.findTensor(tensor.name);
      ASSERT_NE(nullptr, view) << tensor.name;
      const auto* data = static_cast<const uint8_t*>(view->data);
      EXPECT_TRUE(floatBytes(tensor.runtime, "F32") == Bytes(data, data + view->byteSize))
          << tensor.name;
    }
    kel::StatedShape stated;
    ASSERT_TRUE(readShape(loader.reader, stated).ok());
    EXPECT_EQ(1U, stated.predictionLayers);
    EXPECT_EQ(5U, stated.shape.layers);
  }
}

TEST(PredictionLayer, ThatIsNotThereIsRemarked) {
  TinyShape shape = odd();
  shape.prediction = false;
  const TempDir folder;
  tinyGguf(tinyModel(true, shape), 30, shape).write(folder.file("model.gguf"));
  kel::convert::ConvertOptions options;
  options.source = folder.file("model.gguf");
  options.dryRun = true;
  options.keepPrediction = true;
  kel::convert::ProgressSink quiet;
  const kel::convert::ConvertResult result = kel::convert::convertModel(options, quiet);
  ASSERT_EQ("", result.status.message);
  EXPECT_EQ("the source has no layer of multi-token prediction to keep",
            result.summary.remarks.front());
}

}  // namespace
