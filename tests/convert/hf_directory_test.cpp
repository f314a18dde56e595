// What a checkpoint directory must say and hold to be a model of this family. Weights are holes:
// every refusal comes before they are read.
#include "convert/hf_directory.h"

#include <gtest/gtest.h>

#include "convert/hf_config.h"
#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"
#include "tests/support/json_text.h"

namespace {

using namespace kel::test;
using nlohmann::json;

json config() {
  return parseJson(tinyDirectory({}, "BF16").config);
}

// As read from a file, where numbers have no sign they do not need.
std::string message(const json& file) {
  kel::convert::HfConfig out;
  return readHfConfig(parseJson(file.dump()), out).message;
}

std::string with(const std::string& field, const json& value) {
  json file = config();
  file[field] = value;
  return message(file);
}

TEST(HfConfig, OfARealDirectoryFits) {
  EXPECT_EQ("", message(config()));
  EXPECT_EQ("", message({{"model_type", "qwen3_5"}, {"text_config", config()}}));
}

TEST(HfConfig, ShapeIsWhatTheFileStates) {
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
  json file = parseJson(tinyDirectory({}, "BF16", stated).config);
  kel::ModelShape expected{.layers = 10,
                           .fullLayers = kel::LayerSet::every(5, 10),
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
                           .normEps = 1e-6,
                           .contextLength = 262144};
  kel::convert::HfConfig out;
  ASSERT_EQ("", readHfConfig(file, out).message);
  EXPECT_EQ(expected, out.shape);
  file["max_position_embeddings"] = 4096U;
  ASSERT_EQ("", readHfConfig(file, out).message);
  EXPECT_EQ(4096U, out.shape.contextLength);
}

TEST(HfConfig, EveryNumberMustBeThereAndANumber) {
  for (const char* name :
       {"num_hidden_layers", "num_attention_heads", "num_key_value_heads", "head_dim",
        "linear_num_key_heads", "linear_num_value_heads", "linear_key_head_dim",
        "linear_value_head_dim", "linear_conv_kernel_dim", "rms_norm_eps"}) {
    json file = config();
    file.erase(name);
    const std::string field = "config.json: " + std::string(name);
    EXPECT_EQ(field + " is missing; the importer needs it", message(file));
    EXPECT_TRUE(with(name, "32").starts_with(field + " is \"32\"; the importer needs a number"));
  }
  json file = config();
  file.erase("rope_parameters");
  EXPECT_EQ("config.json: rope_theta is missing; the importer needs it", message(file));
  file["rope_theta"] = 1e6;
  EXPECT_EQ("config.json: partial_rotary_factor is missing; the importer needs it", message(file));
  file["partial_rotary_factor"] = 0.5;
  EXPECT_EQ("", message(file));
}

TEST(HfConfig, NumbersThatNoModelCanHaveAreNamed) {
  EXPECT_EQ("config.json: num_hidden_layers is 1025; the runtime needs 1 to 1024",
            with("num_hidden_layers", 1025));
  EXPECT_EQ("config.json: full_attention_interval is 0; the runtime needs 1 to 1024",
            with("full_attention_interval", 0));
  EXPECT_EQ("config.json states 15 query heads cannot share 4 key/value heads evenly",
            with("num_attention_heads", 15));
  EXPECT_EQ("config.json states 32 value heads cannot share 12 key heads evenly",
            with("linear_num_key_heads", 12));
  EXPECT_EQ(
      "config.json: partial_rotary_factor is 0.3, which gives no whole number of the 256 "
      "dimensions of a head",
      with("rope_parameters", {{"rope_theta", 1e7}, {"partial_rotary_factor", 0.3}}));
  EXPECT_EQ(
      "config.json: rope_parameters.rope_theta is 10000000; the runtime needs 1000000 as in "
      "rope_theta",
      with("rope_theta", 1e6));
}

TEST(HfConfig, OtherKindsOfLayersAreNamed) {
  EXPECT_EQ("config.json: hidden_act is \"gelu\"; the runtime needs \"silu\"",
            with("hidden_act", "gelu"));
  EXPECT_EQ("config.json: attn_output_gate is false; the runtime needs true",
            with("attn_output_gate", false));
  EXPECT_EQ("config.json: output_gate_type is \"swish\"; the runtime needs \"sigmoid\"",
            with("output_gate_type", "swish"));
  EXPECT_EQ("", with("output_gate_type", "sigmoid"));
}

TEST(HfConfig, ScaledRotationIsRefused) {
  EXPECT_EQ("config.json: rope_parameters.rope_type is \"yarn\"; the runtime needs \"default\"",
            with("rope_parameters", {{"rope_type", "yarn"}, {"factor", 4.0}}));
  EXPECT_EQ(
      "config.json: rope_parameters.full_attention.rope_type is \"yarn\"; the runtime needs "
      "\"default\"",
      with("rope_parameters", {{"full_attention", {{"rope_type", "yarn"}}}}));
  EXPECT_EQ("config.json: rope_scaling.type is \"linear\"; the runtime needs \"default\"",
            with("rope_scaling", {{"type", "linear"}}));
  EXPECT_EQ("config.json: rope_scaling.factor is 2.0; the runtime needs 1, or none",
            with("rope_scaling", {{"factor", 2.0}}));
  for (const char* type : {"default", "mrope"}) {
    EXPECT_EQ("", with("rope_scaling", {{"type", type}, {"rope_type", "default"}}));
  }
  EXPECT_EQ("", with("rope_scaling", nullptr));
}

TEST(HfConfig, AFileThatNamesNoModelIsRefused) {
  EXPECT_EQ(
      "config.json: model_type is missing; the importer needs \"qwen3_5\" or \"qwen3_5_text\"",
      message(json::object()));
}

TEST(HfConfig, OtherModelsAreNamed) {
  EXPECT_EQ(
      "config.json: model_type is \"qwen3_5_moe\"; the runtime needs \"qwen3_5\" or "
      "\"qwen3_5_text\"",
      with("model_type", "qwen3_5_moe"));
  EXPECT_EQ("config.json: num_experts is 8 (mixture of experts); the runtime needs a dense model",
            with("num_experts", 8));
  for (const char* field : {"quantization_config", "quantization"}) {
    EXPECT_EQ("config.json: " + std::string(field) +
                  " is present: this checkpoint is quantised; the importer needs the original in "
                  "BF16, F16 or F32",
              with(field, {{"bits", 4}}));
  }
  EXPECT_EQ("config.json is not an object", message(json::array()));
}

TEST(HfConfig, LayerTypesTellTheKindOfEach) {
  json types = json::array();
  for (int layer = 0; layer < 32; ++layer) {
    types.push_back(layer % 4 == 3 ? "full_attention" : "linear_attention");
  }
  EXPECT_EQ("", with("layer_types", types));
  types[2] = "full_attention";
  EXPECT_EQ(
      "layer 2 is of linear attention by config.json: full_attention_interval, but not by "
      "config.json: layer_types",
      with("layer_types", types));
  json file = config();
  file.erase("full_attention_interval");
  EXPECT_EQ("config.json: layer_types is missing; the importer needs it", message(file));
  file["layer_types"] = types;
  kel::convert::HfConfig out;
  ASSERT_EQ("", readHfConfig(file, out).message);
  EXPECT_TRUE(out.shape.isFull(2));
  EXPECT_FALSE(out.shape.isFull(4));
  types[2] = "sliding_attention";
  EXPECT_EQ(
      "config.json: layer_types[2] is \"sliding_attention\"; the runtime needs \"full_attention\" "
      "or \"linear_attention\"",
      with("layer_types", types));
  types.erase(31);
  EXPECT_EQ("config.json: the length of layer_types is 31; the runtime needs 32",
            with("layer_types", types));
}

// No text may do more than fail: fields of any kind stand where others are expected.
TEST(HfConfig, FieldsOfAnyKindAreAnsweredWithAStatus) {
  const json odd[] = {nullptr, true,          -1,         1e300,
                      "",      json::array(), {{"a", 1}}, json::array({nullptr})};
  const json sound = config();
  for (const auto& [field, value] : sound.items()) {
    for (const json& replacement : odd) {
      json file = sound;
      file[field] = replacement;
      kel::convert::HfConfig out;
      const kel::Status status = readHfConfig(file, out);
      EXPECT_EQ(status.ok(), status.message.empty()) << field << " " << replacement;
    }
  }
  // What is no object holds no fields: those at the top count.
  for (const json& text : odd) {
    if (text.is_object()) {
      continue;
    }
    EXPECT_EQ(
        "config.json: num_hidden_layers is 2000; the runtime needs 1 to 1024",
        message({{"model_type", "qwen3_5"}, {"num_hidden_layers", 2000}, {"text_config", text}}));
  }
}

class HfDirectory : public testing::Test {
 protected:
  std::string refused() const {
    directory.write(folder.file("model"));
    return refusal(folder.file("model"));
  }
  void put(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories(folder.file("model"));
    writeFile(folder.file("model") + "/" + name, Bytes(text.begin(), text.end()));
  }

  TempDir folder;
  TinyDirectory directory = tinyDirectory(tinyModel(false), "BF16");
};

TEST_F(HfDirectory, UntiedWithoutAHeadIsRefused) {
  json file = config();
  file["tie_word_embeddings"] = false;
  directory.config = file.dump();
  EXPECT_EQ("config.json: tie_word_embeddings is false, but there is no lm_head.weight", refused());
  // Either level may say that they are tied.
  directory.config = json{{"tie_word_embeddings", true}, {"text_config", file}}.dump();
  directory.write(folder.file("model"));
  kel::convert::SourceModel model;
  EXPECT_EQ("", readHfDirectory(folder.file("model"), model).message);
  EXPECT_FALSE(model.statesOwnOutput);
}

TEST_F(HfDirectory, ConvolutionOfAnotherFrameworkIsRefused) {
  tensorNamed(directory.weights, "model.layers.0.linear_attn.conv1d.weight").shape = {8192, 4, 1};
  EXPECT_EQ(
      "the shape of model.layers.0.linear_attn.conv1d.weight is [8192, 4, 1]; the importer needs "
      "[8192, 1, 4]: a directory converted for another framework, where norms are already shifted "
      "by 1, does not fit",
      refused());
}

TEST_F(HfDirectory, NamesOfAnotherFrameworkAreRefused) {
  for (auto& tensor : directory.weights.tensors) {
    tensor.name = "language_model." + tensor.name;
  }
  EXPECT_NE(std::string::npos,
            refused().find("is a name of a directory converted for another framework"));
}

TEST_F(HfDirectory, ShiftedNormsAreRefused) {
  for (auto& tensor : directory.weights.tensors) {
    if (tensor.name.ends_with("input_layernorm.weight")) {
      tensor.data = floatBytes(std::vector<float>(32, 1.0F), "F32");
    }
  }
  EXPECT_EQ(
      "the mean of the stored input_layernorm.weight is 1.000 and hardly one is negative; the "
      "importer needs weights stored less 1: this directory was converted for another framework",
      refused());
}

TEST_F(HfDirectory, QuantisedWeightsAreRefused) {
  for (const char* ending : {"weight_scale_inv", "qweight", "scales"}) {
    directory.weights.tensors.push_back(
        {std::string("model.layers.0.mlp.up_proj.") + ending, "F32", {1}, Bytes(4)});
    EXPECT_NE(std::string::npos, refused().find("belongs to a quantised checkpoint")) << ending;
    directory.weights.tensors.pop_back();
  }
  auto& tensor = tensorNamed(directory.weights, "model.layers.0.mlp.up_proj.weight");
  tensor.dtype = "F8_E4M3";
  tensor.holeBytes = 32 * 256;
  EXPECT_EQ(
      "model.layers.0.mlp.up_proj.weight has the element type F8_E4M3: this checkpoint is "
      "quantised; the importer needs the original in BF16, F16 or F32",
      refused());
  for (const char* dtype : {"I8", "U8"}) {
    tensor.dtype = dtype;
    tensor.holeBytes = 32 * 256;
    EXPECT_EQ("model.layers.0.mlp.up_proj.weight has the element type " + std::string(dtype) +
                  "; the importer needs BF16, F16 or F32",
              refused());
  }
}

TEST_F(HfDirectory, UnknownAndMissingTensorsAreNamed) {
  directory.weights.tensors.push_back({"model.layers.0.mlp.router.weight", "F32", {1}, Bytes(4)});
  EXPECT_EQ("model.layers.0.mlp.router.weight has no place in a model of 32 layers of this family",
            refused());
  directory.weights.tensors.back().name = "model.visual.patch.weight";
  tensorNamed(directory.weights, "model.layers.3.self_attn.q_proj.weight").name = "mtp.fc.weight";
  EXPECT_EQ("blk.3.attn_q.weight is missing; the runtime needs it", refused());
}

// Whatever the prefix, a model saved by itself or in its wrapper gives the same container, and what
// text needs not is left out.
TEST_F(HfDirectory, NamesMayHaveAnyPrefixOfTheFamily) {
  const TinyDirectory plain = directory;
  for (const std::string prefix : {"model.language_model.", "language_model.", ""}) {
    directory = plain;
    for (auto& tensor : directory.weights.tensors) {
      tensor.name = prefix + tensor.name.substr(std::string("model.").size());
    }
    directory.weights.tensors.push_back(
        {prefix + "layers.3.self_attn.rotary_emb.inv_freq", "F32", {32}, Bytes(128)});
    directory.weights.tensors.push_back({prefix + "mtp.norm.weight", "F32", {8}, Bytes(32)});
    directory.weights.tensors.push_back({"visual.patch.weight", "F32", {8}, Bytes(32)});
    directory.weights.tensors.push_back({"model.visual.patch.weight", "I8", {8}, Bytes(8)});
    directory.write(folder.file("model"));
    kel::convert::SourceModel model;
    EXPECT_EQ("", readHfDirectory(folder.file("model"), model).message);
    EXPECT_EQ(426U, model.tensors.size());
    EXPECT_TRUE(model.tensors.contains("blk.31.attn_k_norm.weight"));
    EXPECT_EQ((std::map<std::string, uint64_t>{{"rotation", 1}, {"vision", 2}}), model.skipped);
    EXPECT_EQ(1U, model.predictionTensors.count("blk.32.nextn.shared_head_norm.weight"));
  }
}

TEST_F(HfDirectory, StatedSizesMustBeTheTensors) {
  json file = config();
  file["vocab_size"] = 248320;
  directory.config = file.dump();
  EXPECT_EQ("config.json: vocab_size is 248320, but the embedding has 40", refused());
}

TEST_F(HfDirectory, MissingAndDamagedFilesAreNamed) {
  put("config.json", "{");
  EXPECT_NE(std::string::npos, refusal(folder.file("model")).find("config.json is not valid JSON"));
  put("config.json", directory.config);
  EXPECT_NE(std::string::npos,
            refusal(folder.file("model")).find("model.safetensors: No such file or directory"));
  directory.write(folder.file("model"));
  std::filesystem::remove(folder.file("model") + "/tokenizer.json");
  EXPECT_NE(std::string::npos,
            refusal(folder.file("model")).find("tokenizer.json: No such file or directory"));
}

TEST_F(HfDirectory, IndexMustNameFilesOfTheDirectory) {
  put("config.json", directory.config);
  for (const char* name :
       {"../weights", "/etc/passwd", "..", "", "a\\\\b", "a\\u0000", "a\\u001b"}) {
    put("model.safetensors.index.json", std::string(R"({"weight_map": {"a": ")") + name + "\"}}");
    EXPECT_NE(std::string::npos,
              refusal(folder.file("model")).find("is not the name of a file in this directory"))
        << name;
  }
  put("model.safetensors.index.json", R"({"weight_map": {"a": 7}})");
  EXPECT_EQ("model.safetensors.index.json: a file name is no text", refusal(folder.file("model")));
  put("model.safetensors.index.json", R"({"weight_map": []})");
  EXPECT_EQ("model.safetensors.index.json: no weight_map", refusal(folder.file("model")));
  put("model.safetensors.index.json", R"({"weight_map": {"lost": "w.safetensors"}})");
  SafetensorsBuilder weights;
  weights.tensors.push_back({"found", "F32", {1}, Bytes(4)});
  weights.write(folder.file("model") + "/w.safetensors");
  EXPECT_EQ("model.safetensors.index.json: lost is not in w.safetensors",
            refusal(folder.file("model")));
}

TEST_F(HfDirectory, EndTokenComesFromTheGenerationSettingsFirst) {
  const auto endToken = [&] {
    kel::convert::SourceModel model;
    const kel::Status status = readHfDirectory(folder.file("model"), model);
    EXPECT_TRUE(status.ok()) << status.message;
    return model.vocabulary.eosId;
  };
  directory.tokenizerConfig = "{}";
  directory.write(folder.file("model"));
  EXPECT_EQ(6, endToken());
  directory.tokenizerConfig = R"({"eos_token": {"content": "<|im_end|>"}})";
  directory.write(folder.file("model"));
  EXPECT_EQ(7, endToken());
  put("generation_config.json", R"({"eos_token_id": [8, 6]})");
  EXPECT_EQ(8, endToken());
}

}  // namespace
