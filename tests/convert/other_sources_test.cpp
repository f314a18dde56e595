// What goes with models but is none: each is told what it is, and what to give instead.
#include "convert/other_sources.h"

#include <gtest/gtest.h>

#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;
namespace fs = std::filesystem;

class OtherSources : public testing::Test {
 protected:
  OtherSources() { fs::create_directories(model); }
  void put(const std::string& name, const std::string& text = "{}") const {
    writeFile(model + "/" + name, Bytes(text.begin(), text.end()));
  }

  TempDir folder;
  std::string model = folder.file("model");
};

TEST_F(OtherSources, AdaptersAreToBeMerged) {
  const std::string reason =
      " holds an adapter (LoRA), which is no model by itself: merge it into its model first, and "
      "convert the result";
  put("adapter_model.safetensors");
  EXPECT_EQ(model + "/adapter_model.safetensors" + reason,
            refusal(model + "/adapter_model.safetensors"));
  put("adapter_config.json");
  EXPECT_EQ(model + reason, refusal(model));
  put("config.json", tinyDirectory({}, "BF16").config);  // of the model that it belongs to
  EXPECT_EQ(model + reason, refusal(model));
}

TEST_F(OtherSources, PickledWeightsAreToBeSavedAnew) {
  const std::string reason =
      " holds pickled weights; the importer reads safetensors: save the model in that format, or "
      "download it so";
  put("config.json", tinyDirectory({}, "BF16").config);
  put("pytorch_model.bin");
  EXPECT_EQ(model + "/pytorch_model.bin" + reason, refusal(model));
  EXPECT_EQ(model + "/pytorch_model.bin" + reason, refusal(model + "/pytorch_model.bin"));
}

TEST_F(OtherSources, PartsWithoutAnIndexAreIncomplete) {
  put("config.json", tinyDirectory({}, "BF16").config);
  put("model-00001-of-00002.safetensors");
  EXPECT_EQ(model +
                " has 1 safetensors file, but no model.safetensors.index.json that says what is in "
                "it: is the download complete?",
            refusal(model));
  put("model-00002-of-00002.safetensors");
  EXPECT_EQ(model +
                " has 2 safetensors files, but no model.safetensors.index.json that says what is "
                "in them: is the download complete?",
            refusal(model));
}

TEST_F(OtherSources, OfAFolderOfGgufFilesOneIsNamed) {
  put("b.gguf");
  put("a.gguf");
  EXPECT_EQ(model + " is a directory of GGUF files: give one of them, a.gguf", refusal(model));
}

TEST_F(OtherSources, GgufFilesThatAreNoModelSayWhatTheyAre) {
  const auto with = [&](const std::string& key, const std::string& value) {
    GgufBuilder file;
    file.text(key, value);
    file.write(folder.file("other.gguf"));
    return refusal(folder.file("other.gguf"));
  };
  EXPECT_EQ(
      "general.type is \"adapter\" (LoRA), which is no model by itself: merge it into its model "
      "first, and convert the result",
      with("general.type", "adapter"));
  const std::string vision =
      "this is the vision part of a model: give the file of the language model instead";
  EXPECT_EQ(vision, with("general.type", "mmproj"));
  EXPECT_EQ(vision, with("general.architecture", "clip"));
  EXPECT_EQ("general.type is \"imatrix\": this file holds no model",
            with("general.type", "imatrix"));
}

TEST_F(OtherSources, OnePartOfAModelAloneIsNamed) {
  for (const auto& [tensor, kind] :
       {std::pair{"blk.32.nextn.enorm.weight", "multi-token prediction"},
        std::pair{"v.patch_embd.weight", "vision"}}) {
    GgufBuilder file;
    addTinyMetadata(file);
    file.tensors.push_back({tensor, {8}, 0, Bytes(32)});
    file.write(folder.file("part.gguf"));
    EXPECT_EQ("this file holds nothing but " + std::string(kind) +
                  " tensors: give that of the whole model",
              refusal(folder.file("part.gguf")));
  }
  TinyDirectory directory = tinyDirectory({}, "BF16");
  directory.weights.tensors.push_back({"mtp.norm.weight", "F32", {8}, Bytes(32)});
  directory.write(model);
  EXPECT_EQ(
      "this directory holds nothing but multi-token prediction tensors: give that of the whole "
      "model",
      refusal(model));
}

// Factors of the rotation that change nothing are left out like other tensors of no use.
TEST_F(OtherSources, FactorsOfTheRotationMustBeOne) {
  GgufBuilder file;
  addTinyMetadata(file);
  std::vector<float> factors(32, 1.0F);
  file.tensors.push_back({"rope_freqs.weight", {32}, 0, floatBytes(factors, "F32")});
  file.tensors.push_back({"v.patch_embd.weight", {8}, 0, Bytes(32)});
  file.write(folder.file("one.gguf"));
  EXPECT_EQ("token_embd.weight is missing; the runtime needs it", refusal(folder.file("one.gguf")));
  factors[31] = 8.0F;
  file.tensors.front().data = floatBytes(factors, "F32");
  file.write(folder.file("eight.gguf"));
  EXPECT_EQ("rope_freqs.weight scales the rotation; the runtime needs it as it is",
            refusal(folder.file("eight.gguf")));
}

}  // namespace
