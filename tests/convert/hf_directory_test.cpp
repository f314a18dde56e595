// What a checkpoint directory must say and hold to be a model of this family. Weights are holes:
// every refusal comes before they are read.
#include "convert/hf_directory.h"

#include <gtest/gtest.h>

#include "convert/hf_config.h"
#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;
using nlohmann::json;

json config() {
  return json::parse(tinyDirectory({}, "BF16").config);
}

std::string message(const json& file) {
  kel::convert::HfConfig out;
  return readHfConfig(file, out).message;
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

TEST(HfConfig, EachFixedValueIsHeldAgainstTheRuntimes) {
  for (const auto& [field, needed] :
       {std::pair{"num_hidden_layers", "32"}, std::pair{"num_attention_heads", "16"},
        std::pair{"num_key_value_heads", "4"}, std::pair{"head_dim", "256"},
        std::pair{"linear_num_key_heads", "16"}, std::pair{"linear_num_value_heads", "32"},
        std::pair{"linear_key_head_dim", "128"}, std::pair{"linear_value_head_dim", "128"},
        std::pair{"linear_conv_kernel_dim", "4"}, std::pair{"full_attention_interval", "4"},
        std::pair{"rms_norm_eps", "1e-06"}, std::pair{"rope_theta", "10000000"},
        std::pair{"partial_rotary_factor", "0.25"}}) {
    const std::string is = "config.json: " + std::string(field) + " is ";
    const std::string needs = "; the runtime needs " + std::string(needed);
    EXPECT_EQ(is + "24" + needs, with(field, 24));
    EXPECT_EQ(is + "\"32\"" + needs, with(field, "32"));
  }
  EXPECT_EQ("config.json: hidden_act is \"gelu\"; the runtime needs \"silu\"",
            with("hidden_act", "gelu"));
  EXPECT_EQ("config.json: attn_output_gate is false; the runtime needs true",
            with("attn_output_gate", false));
  EXPECT_EQ("config.json: rope_parameters.rope_theta is 10000.0; the runtime needs 10000000",
            with("rope_parameters", {{"rope_theta", 10000.0}}));
  EXPECT_EQ("config.json: output_gate_type is \"swish\"; the runtime needs \"sigmoid\"",
            with("output_gate_type", "swish"));
  EXPECT_EQ("", with("output_gate_type", "sigmoid"));
}

TEST(HfConfig, ScaledRotationIsRefused) {
  EXPECT_EQ("config.json: rope_parameters.rope_type is \"yarn\"; the runtime needs \"default\"",
            with("rope_parameters", {{"rope_type", "yarn"}, {"factor", 4.0}}));
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

TEST(HfConfig, LayerTypesMustFollowThePattern) {
  json types = json::array();
  for (int layer = 0; layer < 32; ++layer) {
    types.push_back(layer % 4 == 3 ? "full_attention" : "linear_attention");
  }
  EXPECT_EQ("", with("layer_types", types));
  types[2] = "full_attention";
  EXPECT_EQ(
      "config.json: layer_types[2] is \"full_attention\"; the runtime needs \"linear_attention\"",
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
        "config.json: num_hidden_layers is 1; the runtime needs 32",
        message({{"model_type", "qwen3_5"}, {"num_hidden_layers", 1}, {"text_config", text}}));
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

TEST_F(HfDirectory, OtherOutputHeadIsRefused) {
  directory.weights.tensors.push_back({"lm_head.weight", "BF16", {40, 32}, Bytes(40 * 64, 1)});
  EXPECT_EQ(
      "lm_head.weight (BF16 [32, 40]) differs from model.embed_tokens.weight (BF16 [32, 40]); the "
      "runtime needs an output head that is the embedding",
      refused());
}

TEST_F(HfDirectory, UntiedWithoutAHeadIsRefused) {
  json file = config();
  file["tie_word_embeddings"] = false;
  directory.config = file.dump();
  EXPECT_EQ(
      "config.json: tie_word_embeddings is false, but there is no lm_head.weight; the runtime "
      "needs an output head that is the embedding",
      refused());
  // Either level may say that they are tied.
  directory.config = json{{"tie_word_embeddings", true}, {"text_config", file}}.dump();
  directory.write(folder.file("model"));
  kel::convert::SourceModel model;
  EXPECT_EQ("", readHfDirectory(folder.file("model"), model).message);
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
  EXPECT_EQ("model.layers.0.mlp.router.weight has no place in a model of 32 blocks of this family",
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
    directory.weights.tensors.push_back({"model.mtp.norm.weight", "F32", {8}, Bytes(32)});
    directory.weights.tensors.push_back({"mtp.norm.weight", "F32", {8}, Bytes(32)});
    directory.weights.tensors.push_back({"visual.patch.weight", "F32", {8}, Bytes(32)});
    directory.weights.tensors.push_back({"model.visual.patch.weight", "I8", {8}, Bytes(8)});
    directory.write(folder.file("model"));
    kel::convert::SourceModel model;
    EXPECT_EQ("", readHfDirectory(folder.file("model"), model).message);
    EXPECT_EQ(426U, model.tensors.size());
    EXPECT_TRUE(model.tensors.contains("blk.31.attn_k_norm.weight"));
    EXPECT_EQ((std::map<std::string, uint64_t>{
                  {"multi-token prediction", 2}, {"rotation", 1}, {"vision", 2}}),
              model.skipped);
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
