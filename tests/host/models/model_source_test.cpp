#include "host/models/model_source.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace zym {
namespace {

namespace fs = std::filesystem;

class ModelSourceTest : public testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& bytes) const {
    fs::create_directories((dir.path() / name).parent_path());
    std::ofstream(dir.path() / name, std::ios::binary) << bytes;
    return dir.file(name);
  }
  // A folder with empty files of these names.
  std::string writeFolder(const std::string& name, const std::vector<std::string>& files) const {
    fs::create_directories(dir.path() / name);
    for (const std::string& file : files) {
      write(name + "/" + file, "x");
    }
    return dir.file(name);
  }

  static ModelSource recognised(const std::string& given) {
    ModelSource source;
    const kel::Status status = recogniseModel(given, source);
    EXPECT_TRUE(status.ok()) << status.message;
    return source;
  }
  static std::string refusal(const std::string& given) {
    ModelSource source;
    const kel::Status status = recogniseModel(given, source);
    EXPECT_FALSE(status.ok());
    EXPECT_TRUE(status.message.starts_with(given + ": ")) << status.message;
    return status.message.substr(given.size() + 2);
  }
  static std::vector<std::string> namesOf(const ModelSource& source) {
    std::vector<std::string> names;
    for (const SourceFile& file : source.files) {
      names.push_back(file.name);
    }
    return names;
  }

  kel::test::TempDir dir;
  std::string root = fs::canonical(dir.path());
};

using Names = std::vector<std::string>;

// What is wrong inside is the reader's to tell, in words of the format.
TEST_F(ModelSourceTest, NameWithTheEndingIsAContainerWhateverItHolds) {
  for (const char* bytes : {"", "ZYM2", "GGUF"}) {
    const ModelSource source = recognised(write("model.zym", bytes));
    EXPECT_EQ(ModelForm::Container, source.form);
    EXPECT_EQ(dir.file("model.zym"), source.path);
  }
}

TEST_F(ModelSourceTest, GgufFileIsKnownByItsFirstBytes) {
  const ModelSource source = recognised(write("Model-Q4.K.gguf", "GGUF...."));
  EXPECT_EQ(ModelForm::Gguf, source.form);
  EXPECT_EQ(root + "/Model-Q4.K.gguf", source.path);
  EXPECT_EQ("Model-Q4.K", source.stem);
  EXPECT_EQ(Names({"Model-Q4.K.gguf"}), namesOf(source));
  EXPECT_EQ(8U, source.files[0].bytes);
  EXPECT_EQ(ModelForm::Gguf, recognised(write("without-an-ending", "GGUF....")).form);
}

TEST_F(ModelSourceTest, FirstOfSeveralFilesBringsTheOthers) {
  for (const char* name : {"m-00001-of-00003.gguf", "m-00002-of-00003.gguf",
                           "m-00003-of-00003.gguf", "m-00001-of-00002.gguf"}) {
    write(name, "GGUF");
  }
  const ModelSource source = recognised(dir.file("m-00001-of-00003.gguf"));
  EXPECT_EQ("m", source.stem);
  EXPECT_EQ(Names({"m-00001-of-00003.gguf", "m-00002-of-00003.gguf", "m-00003-of-00003.gguf"}),
            namesOf(source));
  EXPECT_EQ("is part 2 of 3; give the first, " + dir.file("m-00001-of-00003.gguf"),
            refusal(dir.file("m-00002-of-00003.gguf")));
  EXPECT_EQ("2 of its 2 parts is missing, m-00002-of-00002.gguf; fetch it too",
            refusal(dir.file("m-00001-of-00002.gguf")));
}

TEST_F(ModelSourceTest, NamesThatOnlyLookLikePartsAreWholeFiles) {
  for (const char* name : {"m-00000-of-00003.gguf", "m-00004-of-00003.gguf", "m-0001-of-0003.gguf",
                           "-00001-of-00002.gguf", "m-0000x-of-00003.gguf"}) {
    EXPECT_EQ(Names({name}), namesOf(recognised(write(name, "GGUF")))) << name;
  }
}

TEST_F(ModelSourceTest, CheckpointIsAllFilesThatGoIntoAModel) {
  const std::string folder =
      writeFolder("checkpoint", {"config.json", "tokenizer.json", "model.safetensors.index.json",
                                 "b.safetensors", "a.safetensors", "chat_template.jinja",
                                 "merges.txt", "README.md", "training_args.bin"});
  fs::create_directory(folder + "/folder.json");
  for (const std::string& given : {folder, folder + "/"}) {
    const ModelSource source = recognised(given);
    EXPECT_EQ(ModelForm::Checkpoint, source.form);
    EXPECT_EQ(root + "/checkpoint", source.path);
    EXPECT_EQ("checkpoint", source.stem);
    EXPECT_EQ(Names({"a.safetensors", "b.safetensors", "chat_template.jinja", "config.json",
                     "merges.txt", "model.safetensors.index.json", "tokenizer.json"}),
              namesOf(source));
  }
}

TEST_F(ModelSourceTest, LinkKeepsItsNameAndTellsWhereItLeads) {
  write("blobs/1234", "GGUF");
  fs::create_directory(dir.path() / "names");
  fs::create_symlink("../blobs/1234", dir.path() / "names" / "model.gguf");
  fs::create_symlink("names", dir.path() / "alias");
  const ModelSource source = recognised(dir.file("alias/model.gguf"));
  EXPECT_EQ(root + "/names/model.gguf", source.path);
  EXPECT_EQ(root + "/blobs/1234", source.files[0].target);
  EXPECT_EQ("", recognised(dir.file("blobs/1234")).files[0].target);
}

TEST_F(ModelSourceTest, PathOfSomethingGoneIsStillAPath) {
  EXPECT_EQ(root + "/gone/model.gguf", modelPath(dir.file("gone/model.gguf")));
  EXPECT_EQ(root + "/gone", modelPath(dir.file("gone") + "/"));
}

TEST_F(ModelSourceTest, FileOfACheckpointAsksForTheFolder) {
  const std::string folder =
      writeFolder("checkpoint", {"config.json", "model.safetensors", "tokenizer.json"});
  const std::string reason = "is one file of a checkpoint; give its folder, " + folder;
  EXPECT_EQ(reason, refusal(folder + "/model.safetensors"));
  EXPECT_EQ(reason, refusal(folder + "/config.json"));
  EXPECT_EQ(
      "is one file of a checkpoint; give a folder in which config.json and tokenizer.json lie "
      "beside it",
      refusal(write("alone/model.safetensors", "x")));
}

TEST_F(ModelSourceTest, AdapterIsNoModel) {
  const std::string reason =
      "is an adapter (LoRA), not a whole model; merge it into the model that it was made for, and "
      "give that";
  EXPECT_EQ(reason,
            refusal(writeFolder("lora", {"adapter_config.json", "adapter_model.safetensors"})));
  EXPECT_EQ(reason, refusal(dir.file("lora/adapter_model.safetensors")));
  EXPECT_EQ(reason,
            refusal(writeFolder("with-config", {"config.json", "adapter_model.safetensors"})));
}

TEST_F(ModelSourceTest, FolderThatIsNoCheckpointSaysWhatToGive) {
  EXPECT_EQ(
      "is a folder without a config.json; give a .zym container, a GGUF file, or a folder with "
      "config.json and safetensors",
      refusal(writeFolder("empty", {})));
  const std::string models = writeFolder("models", {"b.gguf", "a.gguf", "notes.txt"});
  EXPECT_EQ("is a folder without a config.json; give a file in it, " + models + "/a.gguf",
            refusal(models));
  EXPECT_EQ("has a config.json but no safetensors; weights in other forms cannot be read",
            refusal(writeFolder("bins", {"config.json", "weights.bin"})));
}

TEST_F(ModelSourceTest, OtherFilesSayWhatTheyAre) {
  EXPECT_EQ("No such file or directory; check the path", refusal(dir.file("missing.gguf")));
  EXPECT_EQ("is empty; fetch or make it again", refusal(write("empty.gguf", "")));
  EXPECT_EQ("is no GGUF file, whatever its name says; fetch it again",
            refusal(write("page.gguf", "<html>")));
  EXPECT_EQ("only points to the file in Git LFS; `git lfs pull` fetches it",
            refusal(write("lfs.gguf", "version https://git-lfs.github.com/spec/v1\noid ...")));
  EXPECT_EQ("is a container, but the name of one ends in .zym; rename it",
            refusal(write("container.bin", "ZYM2....")));
  EXPECT_EQ(
      "is nothing that can be opened; give a .zym container, a GGUF file, or a folder with "
      "config.json and safetensors",
      refusal(write("notes.txt", "Hello")));
}

// Opening a pipe to look at it would wait for a writer.
TEST_F(ModelSourceTest, PipeIsRefusedWithoutWaiting) {
  ASSERT_EQ(0, ::mkfifo(dir.file("pipe").c_str(), 0600));
  EXPECT_TRUE(refusal(dir.file("pipe")).starts_with("is no regular file; "));
}

}  // namespace
}  // namespace zym
