// The shape of a model as GGUF metadata state it, and what cannot be one.
#include "convert/gguf_shape.h"

#include <gtest/gtest.h>

#include <limits>

#include "convert/gguf_model.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;
using kel::LayerSet;
using kel::ModelShape;

std::string messageOf(const GgufBuilder& builder, ModelShape& shape) {
  const Bytes bytes = builder.bytes();
  kel::convert::GgufFile file;
  kel::Status status = file.parse(bytes.data(), bytes.size());
  return status.ok() ? readGgufShape(file, shape).message : status.message;
}
std::string messageOf(const GgufBuilder& builder) {
  ModelShape shape{};
  return messageOf(builder, shape);
}

// The metadata of a real file but for one key.
template <typename Add>
std::string with(const std::string& key, Add add) {
  GgufBuilder file;
  addTinyMetadata(file, key);
  add(file);
  return messageOf(file);
}
std::string withInteger(const std::string& key, uint32_t value) {
  return with(key, [&](GgufBuilder& file) { file.u32(key, value); });
}

TEST(GgufShape, IsWhatTheMetadataState) {
  TinyShape stated;
  stated.layers = 10;
  stated.interval = 5;
  stated.queryHeads = 6;
  stated.kvHeads = 2;
  stated.headDim = 32;
  stated.ropeDim = 8;
  stated.keyHeads = 3;
  stated.valueHeads = 12;
  stated.keyDim = 40;
  stated.valueDim = 48;
  GgufBuilder file;
  addTinyMetadata(file, "", stated);
  ModelShape shape{};
  ASSERT_EQ("", messageOf(file, shape));
  EXPECT_EQ((ModelShape{.layers = 10,
                        .fullLayers = LayerSet::every(5, 10),
                        .queryHeads = 6,
                        .kvHeads = 2,
                        .headDim = 32,
                        .ropeDim = 8,
                        .ropeBase = 1e7,
                        .linearKeyHeads = 3,
                        .linearValueHeads = 12,
                        .linearKeyDim = 40,
                        .linearValueDim = 48,
                        .convTaps = 4,
                        .normEps = 1e-6F,
                        .contextLength = 262144}),
            shape);
}

TEST(GgufShape, EveryNumberMustBeThereAndANumber) {
  for (const char* key :
       {"qwen35.block_count", "qwen35.context_length", "qwen35.attention.head_count",
        "qwen35.attention.head_count_kv", "qwen35.attention.key_length",
        "qwen35.attention.value_length", "qwen35.full_attention_interval",
        "qwen35.rope.dimension_count", "qwen35.ssm.conv_kernel", "qwen35.ssm.state_size",
        "qwen35.ssm.group_count", "qwen35.ssm.time_step_rank", "qwen35.ssm.inner_size"}) {
    EXPECT_EQ(std::string(key) + " is missing; the importer needs it",
              with(key, [](GgufBuilder&) {}));
    EXPECT_EQ("GGUF: " + std::string(key) + " is not an integer",
              with(key, [&](GgufBuilder& file) { file.text(key, "16"); }));
    EXPECT_EQ("GGUF: " + std::string(key) + " is -1",
              with(key, [&](GgufBuilder& file) { file.scalar<int32_t>(key, 5, -1); }));
  }
  for (const char* key : {"qwen35.rope.freq_base", "qwen35.attention.layer_norm_rms_epsilon"}) {
    EXPECT_EQ(std::string(key) + " is missing; the importer needs it",
              with(key, [](GgufBuilder&) {}));
    EXPECT_EQ("GGUF: " + std::string(key) + " is not a number",
              with(key, [&](GgufBuilder& file) { file.text(key, "1"); }));
    EXPECT_NE("", with(key, [&](GgufBuilder& file) {
                file.f32(key, std::numeric_limits<float>::quiet_NaN());
              }));
  }
}

TEST(GgufShape, NumbersThatNoModelCanHaveAreNamed) {
  EXPECT_EQ("qwen35.block_count is 1025; the runtime needs 1 to 1024",
            withInteger("qwen35.block_count", 1025));
  EXPECT_EQ("qwen35.block_count is 0; the runtime needs 1 to 1024",
            withInteger("qwen35.block_count", 0));
  EXPECT_EQ("qwen35.full_attention_interval is 0; the runtime needs 1 to 1024",
            withInteger("qwen35.full_attention_interval", 0));
  EXPECT_EQ("the metadata state 15 query heads cannot share 4 key/value heads evenly",
            withInteger("qwen35.attention.head_count", 15));
  EXPECT_EQ("the metadata state 32 value heads cannot share 12 key heads evenly",
            withInteger("qwen35.ssm.group_count", 12));
  EXPECT_EQ("the metadata state 0 key heads of linear attention; 1 to 16384 can be",
            withInteger("qwen35.ssm.group_count", 0));
  EXPECT_EQ("qwen35.attention.value_length is 128; the runtime needs the key's, 256",
            withInteger("qwen35.attention.value_length", 128));
  EXPECT_EQ("qwen35.ssm.inner_size is 4097; the runtime needs a multiple of the 32 value heads",
            withInteger("qwen35.ssm.inner_size", 4097));
  EXPECT_EQ("qwen35.ssm.inner_size is 4096; the runtime needs a multiple of the 0 value heads",
            withInteger("qwen35.ssm.time_step_rank", 0));
}

// The number of layers that a file with these counts and tensors has; its message for none.
std::string layersOf(uint32_t blocks, uint32_t predictions,
                     const std::vector<std::string>& tensors) {
  GgufBuilder file;
  addTinyMetadata(file, "qwen35.block_count");
  file.u32("qwen35.block_count", blocks);
  if (predictions != 0) {
    file.u32("qwen35.nextn_predict_layers", predictions);
  }
  for (const std::string& name : tensors) {
    file.tensors.push_back({name, {8}, 0, Bytes(32)});
  }
  ModelShape shape{};
  const std::string message = messageOf(file, shape);
  return message.empty() ? std::to_string(shape.layers) : message;
}

TEST(GgufShape, OfThePredictionLayerTheTensorsDecide) {
  const std::string prediction = "blk.32.nextn.enorm.weight";
  EXPECT_EQ("33", layersOf(33, 0, {}));
  EXPECT_EQ("32", layersOf(33, 1, {}));
  EXPECT_EQ("32", layersOf(33, 1, {prediction, "blk.32.attn_norm.weight"}));
  EXPECT_EQ("32", layersOf(33, 0, {prediction}));
  // A count that leaves the prediction layer out.
  EXPECT_EQ("32", layersOf(32, 1, {prediction}));
  EXPECT_EQ("32", layersOf(32, 1, {"blk.31.attn_norm.weight"}));
  EXPECT_EQ("qwen35.block_count is 40, but blk.32 is a prediction layer",
            layersOf(40, 1, {prediction}));
  EXPECT_EQ("qwen35.nextn_predict_layers is 2; the runtime needs 0 or 1", layersOf(34, 2, {}));
}

std::vector<uint32_t> everyFourth(uint32_t full, uint32_t other) {
  std::vector<uint32_t> values(32, other);
  for (size_t layer = 3; layer < values.size(); layer += 4) {
    values[layer] = full;
  }
  return values;
}

TEST(GgufShape, HeadsPerLayerTellItsKind) {
  const auto withHeads = [](const std::vector<uint32_t>& values) {
    return with("qwen35.attention.head_count_kv", [&](GgufBuilder& file) {
      file.array("qwen35.attention.head_count_kv", 4, values);
    });
  };
  std::vector<uint32_t> heads = everyFourth(4, 0);
  EXPECT_EQ("", withHeads(heads));
  heads[4] = 4;
  EXPECT_EQ(
      "layer 4 is of full attention by qwen35.attention.head_count_kv, but not by "
      "qwen35.full_attention_interval",
      withHeads(heads));
  heads = everyFourth(4, 0);
  heads[31] = 2;
  EXPECT_EQ("qwen35.attention.head_count_kv[31] is 2; the runtime needs the 4 of the layers before",
            withHeads(heads));
  heads.resize(24);
  EXPECT_EQ("the length of qwen35.attention.head_count_kv is 24; the runtime needs 32",
            withHeads(heads));
}

TEST(GgufShape, ListedLayersNeedNoInterval) {
  std::vector<uint8_t> recurrent(32, 1);
  recurrent[5] = recurrent[6] = 0;
  GgufBuilder file;
  addTinyMetadata(file, "qwen35.full_attention_interval");
  file.array("qwen35.attention.recurrent_layers", 7, recurrent);
  ModelShape shape{};
  ASSERT_EQ("", messageOf(file, shape));
  LayerSet expected;
  expected.add(5);
  expected.add(6);
  EXPECT_EQ(expected, shape.fullLayers);

  const auto beside = [&] {
    return with(
        "", [&](GgufBuilder& f) { f.array("qwen35.attention.recurrent_layers", 7, recurrent); });
  };
  EXPECT_EQ(
      "layer 3 is of linear attention by qwen35.attention.recurrent_layers, but not by "
      "qwen35.full_attention_interval",
      beside());
  recurrent.resize(3);
  EXPECT_EQ("GGUF: qwen35.attention.recurrent_layers is not a list of 32 bools", beside());
}

}  // namespace
