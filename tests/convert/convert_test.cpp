// Whole conversions of a small model whose every value is known: tests/convert/tiny_model.h.
#include "convert/convert.h"

#include <gtest/gtest.h>
#include <xxhash.h>

#include <cmath>

#include "quant/blocks.h"
#include "quant/least_squares_k.h"
#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;
using kel::QuantType;
using kel::convert::ConvertOptions;
using kel::convert::ConvertResult;
using kel::convert::StorageChoice;

StorageChoice ofType(QuantType type) {
  StorageChoice storage;
  storage.type = type;
  return storage;
}

// The model with values, in files that all tests share.
class Convert : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    model = new std::vector<TinyTensor>(tinyModel(true));
    shared = new TempDir;
    tinyGguf(*model, 30).write(shared->file("bf16.gguf"));
    tinyDirectory(*model, "BF16").write(shared->file("checkpoint"));
  }
  static void TearDownTestSuite() {
    delete model;
    delete shared;
  }

  static void expectRuntimeValues(const Converted& converted) {
    for (const TinyTensor& tensor : *model) {
      const kel::TensorView& view = converted.tensor(tensor.name);
      EXPECT_EQ(QuantType::F32, view.type) << tensor.name;
      EXPECT_TRUE(floatBytes(tensor.runtime, "F32") == converted.bytes(tensor.name)) << tensor.name;
      EXPECT_EQ(tensor.dims, std::vector<uint64_t>(view.dims, view.dims + view.rank));
    }
    EXPECT_EQ(model->size(), converted.loader.tensorCount);
  }

  static std::vector<TinyTensor>* model;
  static TempDir* shared;
};

std::vector<TinyTensor>* Convert::model = nullptr;
TempDir* Convert::shared = nullptr;

TEST_F(Convert, NotesStandInTheMetadata) {
  ConvertOptions options;
  options.source = shared->file("bf16.gguf");
  const TempDir folder;
  options.target = folder.file("noted.zym");
  options.notes = {{"note.first", "one"}, {"note.second", "two\nlines"}};
  kel::convert::ProgressSink quiet;
  ASSERT_TRUE(kel::convert::convertModel(options, quiet).status.ok());
  kel::ZYM2Reader reader;
  ASSERT_TRUE(reader.open(options.target.c_str()).ok());
  std::string value;
  EXPECT_TRUE(reader.getMetaStr("note.first", value));
  EXPECT_EQ("one", value);
  EXPECT_TRUE(reader.getMetaStr("note.second", value));
  EXPECT_EQ("two\nlines", value);
}

TEST_F(Convert, CheckpointGivesTheRuntimesValues) {
  const Converted converted(shared->file("checkpoint"), ofType(QuantType::F32));
  expectRuntimeValues(converted);
  EXPECT_EQ(426U, converted.loader.tensorCount);
}

TEST_F(Convert, GgufGivesTheRuntimesValues) {
  expectRuntimeValues(Converted(shared->file("bf16.gguf"), ofType(QuantType::F32)));
}

TEST_F(Convert, CheckpointInHalfPrecisionGivesTheSameValues) {
  tinyDirectory(*model, "F16").write(shared->file("halves"));
  expectRuntimeValues(Converted(shared->file("halves"), ofType(QuantType::F32)));
}

TEST_F(Convert, GgufInFloatGivesTheSameValues) {
  tinyGguf(*model, 0).write(shared->file("f32.gguf"));
  const Converted converted(shared->file("f32.gguf"));  // kept without asking
  expectRuntimeValues(converted);
}

TEST_F(Convert, WrapperPrefixAndShardsAreRead) {
  TinyDirectory directory = tinyDirectory(*model, "BF16");
  SafetensorsBuilder shards[2];
  std::string map;
  for (size_t i = 0; i < directory.weights.tensors.size(); ++i) {
    SafetensorsBuilder::Tensor& tensor = directory.weights.tensors[i];
    tensor.name = "model.language_model." + tensor.name.substr(6);
    map += (i == 0 ? "\"" : ",\"") + tensor.name + "\":\"part-" + std::to_string(i % 2) + ".st\"";
    shards[i % 2].tensors.push_back(std::move(tensor));
  }
  directory.weights.tensors.clear();
  directory.config = R"({"model_type": "qwen3_5", "tie_word_embeddings": false, "text_config": )" +
                     directory.config + "}";
  const std::string folder = shared->file("sharded");
  directory.write(folder);
  std::filesystem::remove(folder + "/model.safetensors");
  shards[0].write(folder + "/part-0.st");
  shards[1].write(folder + "/part-1.st");
  const std::string index = R"({"weight_map": {)" + map + "}}";
  writeFile(folder + "/model.safetensors.index.json", Bytes(index.begin(), index.end()));
  const Converted converted(folder, ofType(QuantType::F32));
  expectRuntimeValues(converted);
  std::string files;
  EXPECT_TRUE(converted.loader.reader.getMetaStr("zym.source.files", files));
  EXPECT_EQ("part-0.st\npart-1.st", files);
}

TEST_F(Convert, BundledDialectIsRead) {
  bundledGguf(tinyGguf(*model, 30)).write(shared->file("bundled.gguf"));
  const Converted converted(shared->file("bundled.gguf"), ofType(QuantType::F32));
  expectRuntimeValues(converted);
  EXPECT_EQ((std::map<std::string, uint64_t>{{"multi-token prediction", 2}, {"vision", 2}}),
            converted.result.summary.skipped);
}

TEST_F(Convert, GroupedHeadsOfAGgufAreReordered) {
  GgufBuilder file = tinyGguf(*model, 30);
  file.boolean("ssm.v_head_reordered", false);
  for (const TinyTensor& tensor : *model) {
    // The stated order concerns heads alone: norms and decays are as the runtime has them.
    if (tensor.name.find("norm") != std::string::npos) {
      continue;
    }
    std::vector<float> values = tensor.checkpoint;
    if (tensor.name.ends_with("ssm_a")) {
      for (float& value : values) {
        value = -std::exp(value);
      }
    }
    tensorNamed(file, tensor.name).data = floatBytes(values, tensor.matrix ? "BF16" : "F32");
  }
  file.write(shared->file("grouped.gguf"));
  expectRuntimeValues(Converted(shared->file("grouped.gguf"), ofType(QuantType::F32)));
  // Kept types move by bytes.
  const Converted kept(shared->file("grouped.gguf"));
  for (const TinyTensor& tensor : *model) {
    EXPECT_TRUE(floatBytes(tensor.runtime, tensor.matrix ? "BF16" : "F32") ==
                kept.bytes(tensor.name))
        << tensor.name;
  }
}

// The model with an output head of its own that repeats the embedding.
GgufBuilder ggufWithHead(const std::vector<TinyTensor>& model) {
  GgufBuilder file = tinyGguf(model, 30);
  GgufBuilder::Tensor head = tensorNamed(file, "token_embd.weight");
  head.name = "output.weight";
  file.tensors.push_back(head);
  return file;
}

TEST_F(Convert, EqualOutputHeadCountsAsTheEmbedding) {
  ggufWithHead(*model).write(shared->file("tied.gguf"));
  const Converted converted(shared->file("tied.gguf"));
  EXPECT_EQ(426U, converted.loader.tensorCount);
  EXPECT_EQ((std::map<std::string, uint64_t>{{"output head", 1}}),
            converted.result.summary.skipped);
  EXPECT_EQ(
      std::vector<std::string>{
          "output.weight holds the values of token_embd.weight: it is left out, as tied"},
      converted.result.summary.remarks);
}

TEST_F(Convert, AHeadOfOtherValuesIsKept) {
  GgufBuilder file = ggufWithHead(*model);
  file.tensors.back().data.back() ^= 1;
  file.write(shared->file("untied.gguf"));
  const Converted converted(shared->file("untied.gguf"));
  EXPECT_EQ(427U, converted.loader.tensorCount);
  EXPECT_TRUE(file.tensors.back().data == converted.bytes("output.weight"));
  EXPECT_EQ(
      std::vector<std::string>{
          "the output head differs from the embedding, and is kept: the plugin interface, which "
          "computes logits with the embedding, does not run this model; zym itself does"},
      converted.result.summary.remarks);
}

TEST_F(Convert, AnotherShapeThanThePluginInterfacesIsRemarked) {
  TinyShape shape;
  shape.layers = 24;
  shape.hidden = 2;
  tinyGguf(tinyModel(true, shape), 30, shape).write(shared->file("small.gguf"));
  kel::convert::ConvertOptions options;
  options.source = shared->file("small.gguf");
  options.dryRun = true;
  kel::convert::ProgressSink quiet;
  const kel::convert::ConvertResult result = kel::convert::convertModel(options, quiet);
  EXPECT_EQ("", result.status.message);
  EXPECT_EQ(
      std::vector<std::string>{
          "the plugin interface runs models of 32 layers, not of 24; zym itself runs this one"},
      result.summary.remarks);
}

TEST_F(Convert, AHeadOfTheSameValuesInAnotherTypeIsTied) {
  GgufBuilder file = tinyGguf(*model, 30);
  for (const TinyTensor& tensor : *model) {
    if (tensor.name == "token_embd.weight") {
      file.tensors.push_back({"output.weight", tensor.dims, 0, floatBytes(tensor.runtime, "F32")});
    }
  }
  file.write(shared->file("same.gguf"));
  EXPECT_EQ(426U, Converted(shared->file("same.gguf")).loader.tensorCount);
  file.tensors.back().data[0] ^= 1;  // less than what the embedding's type can tell
  file.write(shared->file("nearly.gguf"));
  EXPECT_EQ(427U, Converted(shared->file("nearly.gguf")).loader.tensorCount);
}

TEST_F(Convert, AHeadOfAnotherShapeIsRefused) {
  GgufBuilder file = ggufWithHead(*model);
  file.tensors.back().ne = {32, 39};
  file.tensors.back().data.resize(39 * 64);
  file.write(shared->file("short.gguf"));
  EXPECT_EQ("the shape of output.weight is [32, 39]; the runtime needs [32, 40]",
            refusal(shared->file("short.gguf")));
}

TEST_F(Convert, BiasesOfFullAttentionAreKept) {
  GgufBuilder file = tinyGguf(*model, 30);
  const std::vector<float> bias(1024, 0.5F);
  file.tensors.push_back({"blk.3.attn_k.bias", {1024}, 30, floatBytes(bias, "BF16")});
  file.tensors.push_back({"blk.3.attn_v.bias", {1024}, 30, floatBytes(bias, "BF16")});
  file.write(shared->file("biased.gguf"));
  EXPECT_EQ("blk.3.attn_q.bias is missing; the runtime needs the biases of query, key and value",
            refusal(shared->file("biased.gguf")));
  file.tensors.push_back(
      {"blk.3.attn_q.bias", {8192}, 30, floatBytes(std::vector<float>(8192, 0.25F), "BF16")});
  file.write(shared->file("biased.gguf"));
  const Converted converted(shared->file("biased.gguf"));
  EXPECT_EQ(floatBytes(bias, "F32"), converted.bytes("blk.3.attn_k.bias"));
}

TEST_F(Convert, BytesDoNotDependOnTheNumberOfThreads) {
  const TempDir folder;
  std::vector<Bytes> files;
  for (const unsigned threads : {1U, 2U, 5U}) {
    const std::string target = folder.file(std::to_string(threads) + ".zym");
    ASSERT_TRUE(convertTo(shared->file("checkpoint"), target, ofType(QuantType::Q4_K), threads)
                    .status.ok());
    files.push_back(readFile(target));
  }
  EXPECT_TRUE(files[0] == files[1]);
  EXPECT_TRUE(files[0] == files[2]);
}

TEST_F(Convert, StoredChecksumsAreThoseOfTheSections) {
  const Converted converted(shared->file("checkpoint"), ofType(QuantType::Q8_0));
  const kel::ZYM2Reader& reader = converted.loader.reader;
  for (const auto& [key, section] :
       {std::pair{"zym.xxh3_128.tokenizer", kel::zym2::SectionType::Tokenizer},
        std::pair{"zym.xxh3_128.tensor_index", kel::zym2::SectionType::TensorIndex},
        std::pair{"zym.xxh3_128.weight_data", kel::zym2::SectionType::WeightData},
        std::pair{"zym.xxh3_128.quant_info", kel::zym2::SectionType::QuantInfo}}) {
    const XXH128_hash_t sum =
        XXH3_128bits(reader.sectionData(section), reader.sectionSize(section));
    char text[33];
    std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(sum.high64),
                  static_cast<unsigned long long>(sum.low64));
    std::string stored;
    EXPECT_TRUE(reader.getMetaStr(key, stored)) << key;
    EXPECT_EQ(text, stored) << key;
  }
}

TEST_F(Convert, MetadataNameSourceAndSettings) {
  StorageChoice storage;
  storage.preset = kel::convert::Preset::Small;
  storage.embeddingType = QuantType::BF16;
  const Converted converted(shared->file("bf16.gguf"), storage);
  const auto meta = [&](const char* key) {
    std::string value = "(none)";
    converted.loader.reader.getMetaStr(key, value);
    return value;
  };
  EXPECT_EQ("qwen35", meta("general.architecture"));
  EXPECT_EQ("Tiny", meta("general.name"));
  EXPECT_EQ("GGUF 3", meta("zym.source.format"));
  EXPECT_EQ("bf16.gguf", meta("zym.source.files"));
  EXPECT_EQ("small", meta("zym.convert.preset"));
  EXPECT_EQ("(none)", meta("zym.convert.type"));
  EXPECT_EQ("BF16", meta("zym.convert.embedding_type"));
}

TEST_F(Convert, TokenizerTablesReachTheContainer) {
  for (const char* source : {"bf16.gguf", "checkpoint"}) {
    const Converted converted(shared->file(source));
    const kel::TokenizerData& tables = converted.loader.tokenizer;
    EXPECT_EQ("alphabet", tables.label);
    ASSERT_EQ(kTinyVocab, tables.tokens.size());
    EXPECT_EQ("\n", tables.tokens[5]);
    EXPECT_EQ("[PAD39]", tables.tokens[39]);
    EXPECT_EQ(3, tables.tokenTypes[8]) << "<think> is matched whole";
    EXPECT_EQ(5, tables.tokenTypes[9]);
    EXPECT_EQ((std::vector<std::string>{"\u0120 a", "a b"}), tables.merges);
    EXPECT_EQ(7, tables.eosId);
    EXPECT_EQ(-1, tables.bosId);
    EXPECT_EQ(-1, tables.unkId);
  }
}

TEST_F(Convert, PresetsChooseTypesByTensor) {
  StorageChoice storage;
  storage.preset = kel::convert::Preset::Small;
  const Converted converted(shared->file("checkpoint"), storage);
  EXPECT_EQ(QuantType::Q8_0, converted.tensor("token_embd.weight").type);
  EXPECT_EQ(QuantType::Q5_K, converted.tensor("blk.0.ffn_down.weight").type);
  EXPECT_EQ(QuantType::Q5_K, converted.tensor("blk.3.attn_output.weight").type);
  EXPECT_EQ(QuantType::BF16, converted.tensor("blk.0.ssm_alpha.weight").type);
  // Rows of 32 hold no block of 256.
  EXPECT_EQ(QuantType::Q8_0, converted.tensor("blk.0.ffn_gate.weight").type);
  bool said = false;
  for (const auto& group : converted.result.summary.groups) {
    if (group.name == "ffn_gate.weight") {
      EXPECT_EQ("preset small; rows of 32 are no whole blocks of Q4_K", group.reason);
      EXPECT_EQ(32U, group.count);
      said = true;
    }
  }
  EXPECT_TRUE(said);
}

TEST_F(Convert, BlocksAreEncodedFromTheReorderedRow) {
  const Converted converted(shared->file("checkpoint"), ofType(QuantType::Q4_K));
  for (const TinyTensor& tensor : *model) {
    if (tensor.name != "blk.0.ssm_out.weight" && tensor.name != "blk.1.ffn_down.weight") {
      continue;
    }
    Bytes expected(kel::quant::quantizedBytes(QuantType::Q4_K, tensor.runtime.size()));
    kel::quant::leastSquaresQ4K(tensor.runtime.data(), expected.data(), tensor.runtime.size());
    EXPECT_TRUE(expected == converted.bytes(tensor.name)) << tensor.name;
  }
}

TEST_F(Convert, SummaryCountsBytes) {
  const Converted converted(shared->file("checkpoint"), ofType(QuantType::Q8_0));
  uint64_t tensors = 0;
  uint64_t stored = 0;
  for (const auto& group : converted.result.summary.groups) {
    tensors += group.count;
    stored += group.storedBytes;
  }
  uint64_t inFile = 0;
  for (const kel::TensorView& view : converted.loader.tensors) {
    inFile += view.byteSize;
  }
  EXPECT_EQ(426U, tensors);
  EXPECT_EQ(inFile, stored);
  EXPECT_EQ(stored, converted.result.summary.storedBytes);
}

TEST_F(Convert, ExistingTargetNeedsForce) {
  const TempDir folder;
  const std::string target = folder.file("model.zym");
  writeFile(target, {1, 2, 3});
  EXPECT_EQ(target + " exists already: choose another name, or force its replacement",
            convertTo(shared->file("bf16.gguf"), target).status.message);
  EXPECT_EQ((Bytes{1, 2, 3}), readFile(target));
  ConvertOptions options;
  options.source = shared->file("bf16.gguf");
  options.target = target;
  options.force = true;
  kel::convert::ProgressSink quiet;
  EXPECT_TRUE(kel::convert::convertModel(options, quiet).status.ok());
  EXPECT_LT(3U, std::filesystem::file_size(target));
}

TEST_F(Convert, OptionsThatCannotBeAreRefused) {
  const TempDir folder;
  const std::string source = shared->file("bf16.gguf");
  EXPECT_EQ("the name of the target must end in .zym: model.bin",
            convertTo(source, "model.bin").status.message);
  StorageChoice both = ofType(QuantType::F32);
  both.preset = kel::convert::Preset::Best;
  EXPECT_EQ("a type and a preset exclude each other: choose one",
            convertTo(source, folder.file("a.zym"), both).status.message);
  EXPECT_EQ("matrices are stored as F32, BF16, Q8_0, Q5_K or Q4_K",
            convertTo(source, folder.file("a.zym"), ofType(QuantType::Q6_K)).status.message);
}

TEST_F(Convert, MissingFolderOfTheTargetIsNamed) {
  const std::string target = shared->file("no/such/model.zym");
  const ConvertResult result = convertTo(shared->file("bf16.gguf"), target);
  EXPECT_EQ(kel::StatusCode::IoError, result.status.code);
  EXPECT_NE(std::string::npos, result.status.message.find(target)) << result.status.message;
}

class CancelAfter : public kel::convert::ProgressSink {
 public:
  explicit CancelAfter(int asks) : left(asks) {}
  void onProgress(uint64_t done, uint64_t total) override {
    EXPECT_LE(lastDone, done);
    EXPECT_LE(done, total);
    lastDone = done;
    allDone = done == total;
  }
  bool cancelled() override { return left-- <= 0; }

  int left;
  uint64_t lastDone = 0;
  bool allDone = false;
};

TEST_F(Convert, CancellingLeavesTheTargetAsItWas) {
  const TempDir folder;
  ConvertOptions options;
  options.source = shared->file("checkpoint");
  options.target = folder.file("model.zym");
  options.force = true;
  for (const int asks : {0, 1, 100}) {
    CancelAfter sink(asks);
    const ConvertResult result = kel::convert::convertModel(options, sink);
    EXPECT_TRUE(result.cancelled);
    EXPECT_FALSE(result.status.ok());
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  }
  writeFile(options.target, {7});
  CancelAfter sink(100);
  EXPECT_TRUE(kel::convert::convertModel(options, sink).cancelled);
  EXPECT_EQ(Bytes{7}, readFile(options.target));
}

TEST_F(Convert, CancellingTheComparisonOfHeadsIsNoRefusal) {
  ggufWithHead(*model).write(shared->file("compared.gguf"));
  const TempDir folder;
  ConvertOptions options;
  options.source = shared->file("compared.gguf");
  options.target = folder.file("model.zym");
  CancelAfter sink(0);
  const ConvertResult result = kel::convert::convertModel(options, sink);
  EXPECT_TRUE(result.cancelled);
  EXPECT_EQ("cancelled", result.status.message);
}

TEST_F(Convert, ProgressReachesTheTotal) {
  const TempDir folder;
  ConvertOptions options;
  options.source = shared->file("checkpoint");
  options.target = folder.file("model.zym");
  CancelAfter sink(1'000'000);
  EXPECT_FALSE(kel::convert::convertModel(options, sink).cancelled);
  EXPECT_TRUE(sink.allDone);
}

TEST_F(Convert, SourceKindsAreToldByContent) {
  const TempDir folder;
  const std::string container = folder.file("model.zym");
  ASSERT_TRUE(convertTo(shared->file("bf16.gguf"), container).status.ok());
  EXPECT_EQ(container + " is a ZYM2 container already: use it as it is", refusal(container));
  EXPECT_EQ("source and target are the same file: " + container,
            convertTo(container, container).status.message);
  const std::string shard = shared->file("checkpoint") + "/model.safetensors";
  EXPECT_EQ(shard + " is one file of a checkpoint: give the directory that holds it",
            refusal(shard));
  const std::string text = folder.file("text");
  writeFile(text, {'h', 'i'});
  EXPECT_EQ(text + " is neither a GGUF file nor a directory with a config.json", refusal(text));
  writeFile(text, {});
  EXPECT_EQ(text + " is empty", refusal(text));
  EXPECT_EQ("cannot read " + folder.file("none") + ": No such file or directory",
            refusal(folder.file("none")));
  EXPECT_EQ(folder.path().string() + " is a directory without a config.json",
            refusal(folder.path().string()));
  EXPECT_EQ("/dev/null is not a regular file", refusal("/dev/null"));
}

}  // namespace
