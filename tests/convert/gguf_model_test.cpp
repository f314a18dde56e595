// What a GGUF file must say and hold to be a model of this family. Tensor data are holes: every
// refusal comes before the weights are read.
#include "convert/gguf_model.h"

#include <gtest/gtest.h>

#include "convert/gguf_metadata.h"
#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;

std::string metadataMessage(const GgufBuilder& builder) {
  const Bytes bytes = builder.bytes();
  kel::convert::GgufFile file;
  kel::Status status = file.parse(bytes.data(), bytes.size());
  if (!status.ok()) {
    return status.message;
  }
  kel::convert::SourceModel model;
  return readGgufModel(file, model).message;
}

TEST(GgufMetadata, OfARealFileFits) {
  GgufBuilder file;
  addTinyMetadata(file);
  EXPECT_EQ("", metadataMessage(file));
}

TEST(GgufMetadata, IntegersOfAnyWidthAreRead) {
  GgufBuilder file;
  addTinyMetadata(file, "qwen35.attention.head_count");
  file.scalar<uint64_t>("qwen35.attention.head_count", 10, 16);
  EXPECT_EQ("", metadataMessage(file));
  GgufBuilder other;
  addTinyMetadata(other, "qwen35.attention.head_count");
  other.scalar<int32_t>("qwen35.attention.head_count", 5, 16);
  EXPECT_EQ("", metadataMessage(other));
}

TEST(GgufMetadata, OtherArchitecturesAreNamed) {
  for (const auto& [name, text] :
       {std::pair{"qwen35moe",
                  "general.architecture is \"qwen35moe\" (mixture of experts); the runtime needs "
                  "\"qwen35\""},
        std::pair{"other", "general.architecture is \"other\"; the runtime needs \"qwen35\""}}) {
    GgufBuilder file;
    addTinyMetadata(file, "general.architecture");
    EXPECT_EQ("GGUF: general.architecture is missing: is this a language model?",
              metadataMessage(file));
    file.text("general.architecture", name);
    EXPECT_EQ(text, metadataMessage(file));
  }
}

TEST(GgufMetadata, ScaledRotationIsRefused) {
  const auto with = [](const auto& add) {
    GgufBuilder file;
    addTinyMetadata(file);
    add(file);
    return metadataMessage(file);
  };
  for (const char* type : {"yarn", "linear"}) {
    EXPECT_EQ(
        "qwen35.rope.scaling.type is \"" + std::string(type) + "\"; the runtime needs \"none\"",
        with([&](GgufBuilder& f) { f.text("qwen35.rope.scaling.type", type); }));
  }
  // The factor of a scaling that is turned off counts for nothing.
  EXPECT_EQ("", with([](GgufBuilder& f) {
              f.text("qwen35.rope.scaling.type", "none");
              f.f32("qwen35.rope.scaling.factor", 4.0F);
            }));
  EXPECT_EQ("qwen35.rope.scaling.factor is 4; the runtime needs 1, or none",
            with([](GgufBuilder& f) { f.f32("qwen35.rope.scaling.factor", 4.0F); }));
  EXPECT_EQ("", with([](GgufBuilder& f) { f.f32("qwen35.rope.scaling.factor", 1.0F); }));
}

TEST(GgufTokenizer, TextIsCutAsForThisFamily) {
  const auto with = [](const std::string& name, std::vector<std::string>& remarks) {
    GgufBuilder builder;
    addTinyMetadata(builder, "tokenizer.ggml.pre");
    builder.text("tokenizer.ggml.pre", name);
    const Bytes bytes = builder.bytes();
    kel::convert::GgufFile file;
    EXPECT_TRUE(file.parse(bytes.data(), bytes.size()).ok());
    kel::convert::SourceModel model;
    const kel::Status status = readGgufModel(file, model);
    remarks = model.remarks;
    return status.message;
  };
  std::vector<std::string> remarks;
  EXPECT_EQ("", with("qwen35", remarks));
  EXPECT_TRUE(remarks.empty());
  EXPECT_EQ("", with("qwen2", remarks));
  EXPECT_EQ(std::vector<std::string>{"tokenizer.ggml.pre is \"qwen2\"; text is cut as for "
                                     "\"qwen35\", which differs at combining marks"},
            remarks);
  EXPECT_EQ("tokenizer.ggml.pre is \"other-bpe\"; the runtime needs \"qwen35\"",
            with("other-bpe", remarks));
}

TEST(GgufTokenizer, TablesAreChecked) {
  const auto messageWithout = [](const std::string& key, const auto& replace) {
    GgufBuilder file;
    addTinyMetadata(file, key);
    replace(file);
    return metadataMessage(file);
  };
  const auto nothing = [](GgufBuilder&) {};
  EXPECT_EQ("GGUF: tokenizer.ggml.model is missing",
            messageWithout("tokenizer.ggml.model", nothing));
  EXPECT_EQ("tokenizer.ggml.model is \"unigram\"; the runtime needs \"gpt2\"",
            messageWithout("tokenizer.ggml.model",
                           [](GgufBuilder& f) { f.text("tokenizer.ggml.model", "unigram"); }));
  EXPECT_EQ("GGUF: tokenizer.ggml.tokens is missing",
            messageWithout("tokenizer.ggml.tokens", nothing));
  EXPECT_EQ("GGUF: tokenizer.ggml.merges is missing",
            messageWithout("tokenizer.ggml.merges", nothing));
  const std::string types = "GGUF: tokenizer.ggml.token_type is not a list of 10 32-bit integers";
  EXPECT_EQ(types, messageWithout("tokenizer.ggml.token_type", nothing));
  EXPECT_EQ(types, messageWithout("tokenizer.ggml.token_type", [](GgufBuilder& f) {
              f.array<uint8_t>("tokenizer.ggml.token_type", 0, std::vector<uint8_t>(10, 1));
            }));
  EXPECT_EQ(types, messageWithout("tokenizer.ggml.token_type", [](GgufBuilder& f) {
              f.array<int32_t>("tokenizer.ggml.token_type", 5, {1, 1});
            }));
  EXPECT_EQ("GGUF: merge rule 1 is not a pair",
            messageWithout("tokenizer.ggml.merges", [](GgufBuilder& f) {
              f.texts("tokenizer.ggml.merges", {"a b", "ab"});
            }));
  EXPECT_EQ("GGUF: tokenizer.ggml.eos_token_id is not a token id",
            messageWithout("tokenizer.ggml.eos_token_id",
                           [](GgufBuilder& f) { f.text("tokenizer.ggml.eos_token_id", "7"); }));
}

class GgufTensors : public testing::Test {
 protected:
  std::string refusalOf(const GgufBuilder& builder) const {
    const std::string path = folder.file("model.gguf");
    builder.write(path);
    return refusal(path);
  }

  TempDir folder;
  GgufBuilder file = tinyGguf(tinyModel(false), 30);
};

TEST_F(GgufTensors, AMissingOneIsNamed) {
  tensorNamed(file, "blk.7.attn_k.weight").name = "mm.unused";
  EXPECT_EQ("blk.7.attn_k.weight is missing; the runtime needs it", refusalOf(file));
}

TEST_F(GgufTensors, AMissingEmbeddingIsNamed) {
  tensorNamed(file, "token_embd.weight").name = "v.unused";
  EXPECT_EQ("token_embd.weight is missing; the runtime needs it", refusalOf(file));
}

TEST_F(GgufTensors, AnUnknownOneIsNamed) {
  file.tensors.push_back({"blk.0.ffn_gate_inp.weight", {32, 4}, 0, Bytes(512)});
  EXPECT_EQ("blk.0.ffn_gate_inp.weight has no place in a model of 32 layers of this family",
            refusalOf(file));
}

TEST_F(GgufTensors, ControlBytesOfANameDoNotReachTheTerminal) {
  file.tensors.push_back({"\x1b[2Jx\n", {1}, 0, Bytes(4)});
  EXPECT_EQ("?[2Jx? has no place in a model of 32 layers of this family", refusalOf(file));
}

TEST_F(GgufTensors, AWrongShapeIsNamedWithBoth) {
  tensorNamed(file, "blk.0.ssm_alpha.weight").ne = {32, 16};
  EXPECT_EQ("the shape of blk.0.ssm_alpha.weight is [32, 16]; the runtime needs [32, 32]",
            refusalOf(file));
}

TEST_F(GgufTensors, StatedSizesMustBeTheTensors) {
  GgufBuilder other;
  addTinyMetadata(other, "qwen35.embedding_length");
  other.u32("qwen35.embedding_length", 2560);
  other.tensors = file.tensors;
  EXPECT_EQ("qwen35.embedding_length is 2560, but a row of the embedding has 32", refusalOf(other));
}

TEST_F(GgufTensors, DecayWithAndWithoutBiasEndingIsRefused) {
  file.tensors.push_back({"blk.0.ssm_dt", {32}, 0, Bytes(128)});
  EXPECT_EQ("GGUF: blk.0.ssm_dt occurs with and without \".bias\"", refusalOf(file));
}

// Holes are zeros: norms that lack the 1.
TEST_F(GgufTensors, NormsWithoutTheOneAreRefused) {
  EXPECT_EQ(
      "the mean of attn_norm.weight is 0.000; the runtime needs norms with the 1 added, above 0.5",
      refusalOf(file));
}

void setNorms(GgufBuilder& file) {
  for (GgufBuilder::Tensor& tensor : file.tensors) {
    if (tensor.name.ends_with("attn_norm.weight")) {
      tensor.data = floatBytes(std::vector<float>(32, 1.0F), "F32");
    }
  }
}

TEST_F(GgufTensors, DecaysMustBeNegative) {
  setNorms(file);
  EXPECT_EQ(
      "blk.0.ssm_a holds a value that is not finite or gives no negative decay, with which no "
      "reply "
      "succeeds; fetch the source anew, or choose another",
      refusalOf(file));
}

TEST_F(GgufTensors, ValuesMustBeFinite) {
  setNorms(file);
  std::vector<float> values(32, 1.0F);
  values[31] = std::numeric_limits<float>::infinity();
  tensorNamed(file, "output_norm.weight").data = floatBytes(values, "F32");
  EXPECT_EQ(
      "output_norm.weight holds a value that is not finite, with which no reply succeeds; fetch "
      "the "
      "source anew, or choose another",
      refusalOf(file));
}

TEST_F(GgufTensors, MoreTokensThanRowsAreRefused) {
  setNorms(file);
  GgufBuilder::Tensor& embedding = tensorNamed(file, "token_embd.weight");
  embedding.ne = {32, 8};
  EXPECT_EQ("tokenizer: 10 tokens, but token_embd.weight has 8 rows", refusalOf(file));
}

TEST_F(GgufTensors, ATruncatedFileSaysSo) {
  const std::string path = folder.file("cut.gguf");
  file.write(path);
  std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
  EXPECT_NE(std::string::npos, refusal(path).find("past the end of the file: is it complete?"));
}

}  // namespace
