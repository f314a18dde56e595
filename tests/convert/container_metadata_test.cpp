// What a container says of its model, from both kinds of source.
#include "convert/container_metadata.h"

#include <gtest/gtest.h>

#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;

class ContainerMetadata : public testing::Test {
 protected:
  static TinyShape fewLayers() {
    TinyShape shape;
    shape.layers = 4;
    return shape;
  }

  static std::string text(const Converted& converted, const char* key) {
    std::string value = "(none)";
    converted.loader.reader.getMetaStr(key, value);
    return value;
  }
  static int64_t id(const Converted& converted, const char* key) {
    uint32_t value = 0;
    return converted.loader.reader.getMetaU32(key, value) ? int64_t{value} : -1;
  }
  static float number(const Converted& converted, const char* key) {
    float value = -1;
    converted.loader.reader.getMetaF32(key, value);
    return value;
  }

  void put(const std::string& name, const std::string& content) const {
    writeFile(folder.file("checkpoint") + "/" + name, Bytes(content.begin(), content.end()));
  }

  TempDir folder;
  std::vector<TinyTensor> model = tinyModel(true, fewLayers());
};

TEST_F(ContainerMetadata, OfAGgufFileIsTheFiles) {
  GgufBuilder file = tinyGguf(model, 30, fewLayers());
  file.u32("tokenizer.ggml.padding_token_id", 6);
  file.text("general.license", "apache-2.0");
  file.f32("general.sampling.temp", 0.5F);
  file.scalar<int32_t>("general.sampling.top_k", 5, 20);
  file.write(folder.file("model.gguf"));
  const Converted converted(folder.file("model.gguf"));
  EXPECT_EQ("Tiny", text(converted, "general.name"));
  EXPECT_EQ("Tiny", text(converted, "zym.source.name"));
  EXPECT_EQ("apache-2.0", text(converted, "general.license"));
  EXPECT_EQ("x", text(converted, "tokenizer.chat_template"));
  EXPECT_EQ("(none)", text(converted, "tokenizer.normalizer"));
  EXPECT_EQ(7, id(converted, "tokenizer.ggml.eos_token_id"));
  EXPECT_EQ(-1, id(converted, "tokenizer.ggml.bos_token_id"));
  EXPECT_EQ(6, id(converted, "tokenizer.ggml.padding_token_id"));
  EXPECT_EQ(6, id(converted, "zym.token.im_start"));
  EXPECT_EQ(7, id(converted, "zym.token.im_end"));
  EXPECT_EQ(8, id(converted, "zym.token.think"));
  EXPECT_EQ(-1, id(converted, "zym.token.think_end"));
  EXPECT_EQ(0.5F, number(converted, "general.sampling.temp"));
  EXPECT_EQ(20.0F, number(converted, "general.sampling.top_k"));
  EXPECT_EQ(-1.0F, number(converted, "general.sampling.top_p"));
  EXPECT_EQ("(none)", text(converted, "zym.convert.reencoded"));
}

TEST_F(ContainerMetadata, OfACheckpointComesFromItsFiles) {
  TinyDirectory directory = tinyDirectory(model, "F16", fewLayers());
  directory.tokenizerConfig =
      R"({"pad_token": "<|im_start|>", "chat_template": [{"name": "other", "template": "y"},
          {"name": "default", "template": "x"}]})";
  directory.write(folder.file("checkpoint"));
  put("generation_config.json",
      R"({"temperature": 0.5, "top_k": 20, "top_p": 0.75, "eos_token_id": [7, 6]})");
  put("README.md", "---\nlanguage: de\nlicense: \"mit\"\n---\nlicense: other\n");
  const Converted converted(folder.file("checkpoint"));
  EXPECT_EQ("checkpoint", text(converted, "general.name"));
  EXPECT_EQ("mit", text(converted, "general.license"));
  EXPECT_EQ("x", text(converted, "tokenizer.chat_template"));
  EXPECT_EQ(7, id(converted, "tokenizer.ggml.eos_token_id"));
  EXPECT_EQ(6, id(converted, "tokenizer.ggml.padding_token_id"));
  EXPECT_EQ(8, id(converted, "zym.token.think"));
  EXPECT_EQ(0.5F, number(converted, "general.sampling.temp"));
  EXPECT_EQ(20.0F, number(converted, "general.sampling.top_k"));
  EXPECT_EQ(0.75F, number(converted, "general.sampling.top_p"));
  const std::string reencoded = text(converted, "zym.convert.reencoded");
  EXPECT_NE(std::string::npos, reencoded.find("4 ffn_down.weight: F16 to Q8_0")) << reencoded;

  EXPECT_EQ("", text(converted, "tokenizer.normalizer"));
  std::string composing = directory.tokenizer;
  composing.insert(1, R"("normalizer": {"type": "NFC"}, )");
  put("tokenizer.json", composing);
  EXPECT_EQ("nfc", text(Converted(folder.file("checkpoint")), "tokenizer.normalizer"));

  put("chat_template.jinja", "from a file");
  EXPECT_EQ("from a file", text(Converted(folder.file("checkpoint")), "tokenizer.chat_template"));
  put("README.md", "license: other\n");
  EXPECT_EQ("(none)", text(Converted(folder.file("checkpoint")), "general.license"));
}

TEST_F(ContainerMetadata, AnotherNameKeepsTheSources) {
  tinyGguf(model, 30, fewLayers()).write(folder.file("model.gguf"));
  kel::convert::ConvertOptions options;
  options.source = folder.file("model.gguf");
  options.target = folder.file("model.zym");
  options.name = "Other";
  kel::convert::ProgressSink quiet;
  ASSERT_TRUE(kel::convert::convertModel(options, quiet).status.ok());
  kel::ZYMLoader loader;
  ASSERT_TRUE(loader.open(options.target.c_str()).ok());
  std::string name;
  EXPECT_TRUE(loader.reader.getMetaStr("general.name", name));
  EXPECT_EQ("Other", name);
  EXPECT_TRUE(loader.reader.getMetaStr("zym.source.name", name));
  EXPECT_EQ("Tiny", name);
}

}  // namespace
