// GGUF models that are split over several files.
#include "convert/gguf_parts.h"

#include <gtest/gtest.h>

#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"

namespace {

using namespace kel::test;
namespace fs = std::filesystem;

constexpr uint16_t kParts = 3;

// Three parts of the tiny model: the first with the metadata and the first third of the tensors.
class GgufParts : public testing::Test {
 protected:
  static void SetUpTestSuite() { model = new std::vector<TinyTensor>(tinyModel(true)); }
  static void TearDownTestSuite() { delete model; }

  GgufParts() {
    const GgufBuilder whole = tinyGguf(*model, 30);
    addTinyMetadata(parts[0]);
    for (uint16_t no = 0; no < kParts; ++no) {
      describe(no, no, kParts);
    }
    parts[0].scalar<int32_t>("split.tensors.count", 5, static_cast<int32_t>(model->size()));
    for (size_t i = 0; i < whole.tensors.size(); ++i) {
      parts[i * kParts / whole.tensors.size()].tensors.push_back(whole.tensors[i]);
    }
  }

  void describe(size_t part, uint16_t no, uint16_t count) {
    parts[part].scalar<uint16_t>("split.no", 2, no);
    parts[part].scalar<uint16_t>("split.count", 2, count);
  }
  std::string path(int part) const {
    return folder.file("tiny-0000" + std::to_string(part) + "-of-00003.gguf");
  }
  void write() const {
    for (int part = 1; part <= kParts; ++part) {
      parts[part - 1].write(path(part));
    }
  }
  std::string refused() const {
    write();
    return refusal(path(1));
  }

  static std::vector<TinyTensor>* model;
  TempDir folder;
  GgufBuilder parts[kParts];
};

std::vector<TinyTensor>* GgufParts::model = nullptr;

TEST_F(GgufParts, GiveTheModelTogether) {
  write();
  const Converted converted(path(1));
  EXPECT_EQ(model->size(), converted.loader.tensorCount);
  for (const TinyTensor& tensor : *model) {
    EXPECT_TRUE(floatBytes(tensor.runtime, tensor.matrix ? "BF16" : "F32") ==
                converted.bytes(tensor.name))
        << tensor.name;
  }
  std::string files;
  EXPECT_TRUE(converted.loader.reader.getMetaStr("zym.source.files", files));
  EXPECT_EQ("tiny-00001-of-00003.gguf\ntiny-00002-of-00003.gguf\ntiny-00003-of-00003.gguf", files);
}

TEST_F(GgufParts, NameTheModelWithoutTheirNumbers) {
  const std::string whole = folder.file("mine-00001-of-00001.gguf");
  GgufBuilder file = tinyGguf(*model, 30);
  GgufBuilder unnamed;
  addTinyMetadata(unnamed, "general.name");
  unnamed.tensors = file.tensors;
  unnamed.write(whole);
  EXPECT_EQ("mine", Converted(whole).result.summary.modelName);
}

TEST_F(GgufParts, AMissingOneIsNamed) {
  write();
  fs::remove(path(2));
  EXPECT_EQ(path(2) + " is missing: the model is split into 3 files, and all are needed",
            refusal(path(1)));
}

TEST_F(GgufParts, ALaterOneNamesTheFirst) {
  write();
  EXPECT_EQ(path(2) + " is part 2 of 3: give the first, tiny-00001-of-00003.gguf",
            refusal(path(2)));
}

TEST_F(GgufParts, TheFirstUnderAnotherNameSaysHowTheOthersAreFound) {
  const std::string name = folder.file("model.gguf");
  parts[0].write(name);
  EXPECT_EQ(name +
                " is the first of 3 parts, but its name does not end in -00001-of-00003.gguf, by "
                "which the others are found",
            refusal(name));
}

TEST_F(GgufParts, EachMustBeWhereItSaysItIs) {
  parts[1] = {};
  describe(1, 2, kParts);
  EXPECT_EQ(path(2) + ": it says that it is part 3 of 3", refused());
  parts[1] = {};
  describe(1, 1, 4);
  EXPECT_EQ(path(2) + ": it says that it is part 2 of 4", refused());
}

TEST_F(GgufParts, EachIsChecked) {
  parts[2].tensors.back().name = "token_embd.weight";
  EXPECT_EQ(path(3) + ": GGUF: token_embd.weight is in an earlier part too", refused());
  write();
  fs::resize_file(path(2), fs::file_size(path(2)) - 1);
  EXPECT_NE(std::string::npos, refusal(path(1)).find(path(2) + ": GGUF: the data of "));
}

TEST_F(GgufParts, ATensorThatNoPartHasIsMissed) {
  parts[2].tensors.push_back({"v.patch.weight", {8}, 0, Bytes(32)});
  EXPECT_EQ("GGUF: split.tensors.count is 426, but the 3 parts have 427", refused());
}

TEST_F(GgufParts, CountsThatCannotBeAreRefused) {
  const auto with = [&](uint16_t no, uint16_t count) {
    parts[0] = {};
    describe(0, no, count);
    return refused();
  };
  EXPECT_EQ("GGUF: split.no is 3 and split.count 3", with(3, 3));
  EXPECT_EQ("GGUF: split.no is 1 and split.count 0", with(1, 0));
  parts[0] = {};
  parts[0].text("split.count", "3");
  EXPECT_EQ("GGUF: split.count is not a number of parts", refused());
}

// Some writers say so of every file.
TEST(GgufWhole, MayBeTheOnlyPart) {
  const TempDir folder;
  GgufBuilder file;
  addTinyMetadata(file);
  file.scalar<uint16_t>("split.no", 2, 0);
  file.scalar<uint16_t>("split.count", 2, 1);
  file.write(folder.file("model.gguf"));
  EXPECT_EQ("token_embd.weight is missing; the runtime needs it",
            refusal(folder.file("model.gguf")));
}

}  // namespace
