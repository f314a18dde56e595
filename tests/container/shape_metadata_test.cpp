#include "container/shape_metadata.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "container/zym2_writer.h"
#include "tests/support/container_samples.h"
#include "tests/support/temp_dir.h"

namespace kel {
namespace {

using test::require;
using test::TempDir;

ModelShape oddShape() {
  ModelShape shape = kFixedShape;
  shape.layers = 6;
  shape.fullLayers = LayerSet::every(3, 6);
  shape.queryHeads = 24;
  shape.kvHeads = 3;
  shape.headDim = 20;
  shape.ropeDim = 6;
  shape.ropeBase = 5e5;
  shape.linearKeyHeads = 5;
  shape.linearValueHeads = 15;
  shape.linearKeyDim = 7;
  shape.linearValueDim = 9;
  shape.convTaps = 3;
  shape.normEps = 0.5;
  shape.contextLength = 777;
  return shape;
}

constexpr ModelSizes kSizes{.hidden = 11, .feedForward = 13, .vocab = 4};

// A container with the metadata and tensors that a test wants, opened.
class Described {
 public:
  explicit Described(const std::function<void(ZYM2Writer&)>& fill) {
    ZYM2Writer writer;
    require(writer.create(path));
    writer.setTokenizer(test::sampleTokenizer());
    fill(writer);
    require(writer.finish());
    require(loader.open(path.c_str()));
  }

  StatedShape shape() const {
    StatedShape stated;
    require(readShape(loader.reader, stated));
    return stated;
  }
  std::string fault() const {
    StatedShape stated;
    return readShape(loader.reader, stated).message;
  }
  std::vector<std::string> contradictions() const { return findContradictions(loader, shape()); }

 private:
  TempDir dir;
  std::string path = dir.file("described.zym");
  ZYMLoader loader;
};

void addTensor(ZYM2Writer& writer, const std::string& name, std::vector<uint64_t> dims) {
  uint64_t count = 1;
  for (const uint64_t dim : dims) {
    count *= dim;
  }
  const std::vector<float> data(count, 1.0F);
  require(writer.addTensor(name, QuantType::F32, dims, data.data(), count * sizeof(float)));
}

// The keys of oddShape() by hand, but for those that `change` names.
struct Entries {
  std::vector<std::pair<std::string, uint32_t>> words = {{"qwen35.block_count", 6},
                                                         {"qwen35.context_length", 777},
                                                         {"qwen35.embedding_length", 11},
                                                         {"qwen35.feed_forward_length", 13},
                                                         {"qwen35.attention.head_count", 24},
                                                         {"qwen35.attention.head_count_kv", 3},
                                                         {"qwen35.attention.key_length", 20},
                                                         {"qwen35.attention.value_length", 20},
                                                         {"qwen35.rope.dimension_count", 6},
                                                         {"qwen35.ssm.conv_kernel", 3},
                                                         {"qwen35.ssm.state_size", 7},
                                                         {"qwen35.ssm.group_count", 5},
                                                         {"qwen35.ssm.time_step_rank", 15},
                                                         {"qwen35.ssm.inner_size", 135},
                                                         {"qwen35.full_attention_interval", 3}};
  float eps = 0.5F;
  float base = 5e5F;
  std::vector<uint32_t> recurrent{};

  Entries& set(const std::string& key, uint32_t value) {
    for (auto& [name, number] : words) {
      if (name == key) {
        number = value;
        return *this;
      }
    }
    words.emplace_back(key, value);
    return *this;
  }
  Entries& drop(const std::string& key) {
    std::erase_if(words, [&](const auto& entry) { return entry.first == key; });
    return *this;
  }

  void write(ZYM2Writer& writer) const {
    for (const auto& [key, value] : words) {
      writer.addMetaU32(key, value);
    }
    writer.addMetaF32("qwen35.attention.layer_norm_rms_epsilon", eps);
    writer.addMetaF32("qwen35.rope.freq_base", base);
    if (!recurrent.empty()) {
      writer.addMetaU32Array("qwen35.attention.recurrent_layers", recurrent);
    }
  }

  StatedShape shape() const {
    return Described([this](ZYM2Writer& writer) { write(writer); }).shape();
  }
  std::string fault() const {
    return Described([this](ZYM2Writer& writer) { write(writer); }).fault();
  }
};

TEST(ShapeMetadata, WithoutAnyKeyTheShapeIsTheFixedOne) {
  const Described file([](ZYM2Writer& writer) {
    writer.addMetaStr("general.architecture", "qwen35");
    addTensor(writer, "output.weight", {1, 1});
  });
  const StatedShape stated = file.shape();
  EXPECT_FALSE(stated.isStated);
  EXPECT_EQ(kFixedShape, stated.shape);
  EXPECT_TRUE(file.contradictions().empty());
}

TEST(ShapeMetadata, EveryKeyIsReadIntoItsField) {
  const StatedShape stated = Entries().shape();
  EXPECT_TRUE(stated.isStated);
  EXPECT_EQ(oddShape(), stated.shape);
  EXPECT_EQ(11U, stated.sizes.hidden);
  EXPECT_EQ(13U, stated.sizes.feedForward);
  EXPECT_EQ(0U, stated.predictionLayers);
}

TEST(ShapeMetadata, WhatIsWrittenIsReadBack) {
  ModelShape uneven = oddShape();
  uneven.fullLayers = {};
  uneven.fullLayers.add(0);
  uneven.fullLayers.add(4);
  for (const ModelShape& shape : {oddShape(), uneven}) {
    for (const uint32_t predictionLayers : {0U, 1U}) {
      const StatedShape stated = Described([&](ZYM2Writer& writer) {
                                   writeShape(writer, shape, kSizes, predictionLayers);
                                 }).shape();
      EXPECT_EQ(shape, stated.shape);
      EXPECT_EQ(predictionLayers, stated.predictionLayers);
      EXPECT_EQ(kSizes.hidden, stated.sizes.hidden);
      EXPECT_EQ(kSizes.feedForward, stated.sizes.feedForward);
    }
  }
}

TEST(ShapeMetadata, PredictionLayersAreCountedButAreNoLayers) {
  const StatedShape stated =
      Entries().set("qwen35.block_count", 7).set("qwen35.nextn_predict_layers", 1).shape();
  EXPECT_EQ(6U, stated.shape.layers);
  EXPECT_EQ(1U, stated.predictionLayers);
}

TEST(ShapeMetadata, TheListOfRecurrentLayersTellsTheirKinds) {
  Entries entries;
  entries.drop("qwen35.full_attention_interval").recurrent = {0, 1, 1, 1, 0, 1};
  const ModelShape shape = entries.shape().shape;
  for (uint32_t layer = 0; layer < 6; ++layer) {
    EXPECT_EQ(layer == 0 || layer == 4, shape.isFull(layer)) << layer;
  }
  entries.set("qwen35.full_attention_interval", 3);
  EXPECT_EQ(
      "qwen35.full_attention_interval is 3, but qwen35.attention.recurrent_layers says "
      "otherwise",
      entries.fault());
  entries.recurrent = {1, 1, 0};
  EXPECT_EQ("qwen35.attention.recurrent_layers has 3 entries, but there are 6 layers",
            entries.fault());
}

TEST(ShapeMetadata, TheOutputHeadIsItsOwnWhereItIsThere) {
  EXPECT_FALSE(Entries().shape().shape.ownOutput);
  EXPECT_TRUE(Described([](ZYM2Writer& writer) {
                Entries().write(writer);
                addTensor(writer, "output.weight", {11, 4});
              })
                  .shape()
                  .shape.ownOutput);
}

TEST(ShapeMetadata, EveryRequiredKeyIsAskedForByName) {
  for (const auto& [key, value] : Entries().words) {
    if (key != "qwen35.full_attention_interval") {
      EXPECT_EQ(key + " is missing from the metadata, or is no u32", Entries().drop(key).fault());
    }
  }
  EXPECT_EQ(
      "qwen35.full_attention_interval is 0, and there is no "
      "qwen35.attention.recurrent_layers",
      Entries().drop("qwen35.full_attention_interval").fault());
  EXPECT_EQ("qwen35.attention.layer_norm_rms_epsilon is missing from the metadata, or is no f32",
            Described([](ZYM2Writer& writer) {
              for (const auto& [key, value] : Entries().words) {
                writer.addMetaU32(key, value);
              }
            }).fault());
}

TEST(ShapeMetadata, NumbersThatCannotBeAreNamed) {
  const auto faultOf = [](const char* key, uint32_t value) {
    return Entries().set(key, value).fault();
  };
  EXPECT_EQ("24 query heads cannot share 5 key/value heads evenly",
            faultOf("qwen35.attention.head_count_kv", 5));
  EXPECT_EQ("15 value heads cannot share 4 key heads evenly", faultOf("qwen35.ssm.group_count", 4));
  EXPECT_EQ("7 rotated dimensions; an even number up to the 20 of a head can be",
            faultOf("qwen35.rope.dimension_count", 7));
  EXPECT_EQ("22 rotated dimensions; an even number up to the 20 of a head can be",
            faultOf("qwen35.rope.dimension_count", 22));
  EXPECT_EQ("0 query heads; 1 to 16384 can be", faultOf("qwen35.attention.head_count", 0));
  EXPECT_EQ("16385 taps of the convolution; 1 to 16384 can be",
            faultOf("qwen35.ssm.conv_kernel", 16385));
  EXPECT_EQ("qwen35.ssm.inner_size is 136, which is no multiple of the 15 value heads",
            faultOf("qwen35.ssm.inner_size", 136));
  EXPECT_EQ("qwen35.ssm.inner_size is 135, which is no multiple of the 0 value heads",
            faultOf("qwen35.ssm.time_step_rank", 0));
  EXPECT_EQ("qwen35.attention.value_length is 21, but the length of keys is 20",
            faultOf("qwen35.attention.value_length", 21));
  EXPECT_EQ(
      "qwen35.block_count is 0 with 0 prediction layers; 1 to 1024 layers besides those can be",
      faultOf("qwen35.block_count", 0));
  EXPECT_EQ(
      "qwen35.block_count is 1025 with 0 prediction layers; 1 to 1024 layers besides those can be",
      faultOf("qwen35.block_count", 1025));
  EXPECT_EQ("a context of 0 positions; 1 to 2147483648 can be",
            faultOf("qwen35.context_length", 0));
  Entries base;
  base.base = -1.0F;
  EXPECT_EQ("the rotary base is -1.000000; a positive number can be", base.fault());
  Entries eps;
  eps.eps = -0.25F;
  EXPECT_EQ("the epsilon of norms is -0.250000; zero or a positive number can be", eps.fault());
}

TEST(ShapeMetadata, TensorsThatContradictItAreNamed) {
  const Described file([](ZYM2Writer& writer) {
    Entries().write(writer);
    addTensor(writer, "token_embd.weight", {12, 4});
    addTensor(writer, "blk.0.ffn_gate.weight", {12, 13});
    addTensor(writer, "blk.1.ffn_gate.weight", {12, 14});
    for (const char* layer : {"0", "1", "2", "3", "4"}) {
      addTensor(writer, std::string("blk.") + layer + ".ssm_out.weight", {1, 1});
    }
    addTensor(writer, "blk.6.attn_norm.weight", {12});
  });
  const std::vector<std::string> expected = {
      "qwen35.embedding_length is 11, but token_embd.weight has rows of 12",
      "qwen35.feed_forward_length is 13, but blk.1.ffn_gate.weight has a row count of 14",
      "layer 2 is of linear attention by its tensors, but not by the metadata",
      "qwen35.block_count is 6, but there is a blk.6"};
  EXPECT_EQ(expected, file.contradictions());
}

TEST(LayerSet, EveryFourthOfEightIsTheFourthAndTheEighth) {
  const LayerSet set = LayerSet::every(4, 8);
  for (uint32_t layer = 0; layer < 12; ++layer) {
    EXPECT_EQ(layer == 3 || layer == 7, set.contains(layer)) << layer;
  }
  EXPECT_FALSE(set.contains(LayerSet::kCapacity + 3));
}

TEST(ModelShape, TheIntervalIsThatOfEvenlySpacedLayersOnly) {
  ModelShape shape = kFixedShape;
  EXPECT_EQ(4U, shape.fullInterval());
  shape.fullLayers.add(0);
  EXPECT_EQ(0U, shape.fullInterval());
  shape.fullLayers = LayerSet::every(1, shape.layers);
  EXPECT_EQ(1U, shape.fullInterval());
}

}  // namespace
}  // namespace kel
