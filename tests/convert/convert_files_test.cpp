// Conversions and the file system: a disk that fills up, links, and what is left behind.
#include <gtest/gtest.h>

#include "tests/convert/converted.h"
#include "tests/convert/tiny_model.h"
#include "tests/support/file_size_limit.h"

namespace {

using namespace kel::test;
namespace fs = std::filesystem;

class ConvertFiles : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(folder.file("out"));
    directory.write(folder.file("real"));
  }

  TempDir folder;
  TinyDirectory directory = tinyDirectory(tinyModel(false), "BF16");
};

TEST_F(ConvertFiles, AFullDiskLeavesNothingBehind) {
  const std::string target = folder.file("out/model.zym");
  ASSERT_TRUE(convertTo(folder.file("real"), target).status.ok());
  const uint64_t whole = fs::file_size(target);
  fs::remove(target);
  for (const uint64_t limit : {uint64_t{4096}, whole / 2, whole - 1}) {
    kel::convert::ConvertResult result;
    {
      const FileSizeLimit full(limit);
      result = convertTo(folder.file("real"), target);
    }
    EXPECT_EQ(kel::StatusCode::IoError, result.status.code);
    EXPECT_NE(std::string::npos, result.status.message.find(target)) << result.status.message;
    EXPECT_FALSE(result.cancelled);
    EXPECT_TRUE(fs::is_empty(folder.file("out"))) << limit;
  }
}

TEST_F(ConvertFiles, AFullDiskKeepsTheOldTarget) {
  kel::convert::ConvertOptions options;
  options.source = folder.file("real");
  options.target = folder.file("out/model.zym");
  options.force = true;
  writeFile(options.target, {1, 2});
  kel::convert::ProgressSink quiet;
  {
    const FileSizeLimit full(1 << 20);
    EXPECT_FALSE(kel::convert::convertModel(options, quiet).status.ok());
  }
  EXPECT_EQ((Bytes{1, 2}), readFile(options.target));
}

// A download cache has the files elsewhere and links to them, and to the folder.
TEST_F(ConvertFiles, LinkedFilesAndFoldersAreFollowed) {
  fs::create_directories(folder.file("snapshot"));
  for (const auto& entry : fs::directory_iterator(folder.file("real")))
    fs::create_symlink(entry.path(), folder.path() / "snapshot" / entry.path().filename());
  fs::create_directory_symlink("snapshot", folder.file("main"));
  fs::create_directory_symlink("out", folder.file("target"));
  const std::string target = folder.file("target/model.zym");
  const kel::convert::ConvertResult result = convertTo(folder.file("main"), target);
  ASSERT_EQ("", result.status.message);
  EXPECT_EQ("snapshot", result.summary.modelName);
  EXPECT_TRUE(fs::is_regular_file(folder.file("out/model.zym")));
}

TEST_F(ConvertFiles, ALinkToTheSourceIsNotATarget) {
  const std::string source = folder.file("model.zym");  // the name says nothing
  tinyGguf(tinyModel(false), 30).write(source);
  fs::create_symlink("model.zym", folder.file("link.zym"));
  EXPECT_EQ("source and target are the same file: " + folder.file("link.zym"),
            convertTo(source, folder.file("link.zym")).status.message);
}

TEST_F(ConvertFiles, ADanglingLinkIsAnExistingTarget) {
  fs::create_symlink("nowhere", folder.file("link.zym"));
  EXPECT_EQ(
      folder.file("link.zym") + " exists already: choose another name, or force its replacement",
      convertTo(folder.file("real"), folder.file("link.zym")).status.message);
}

TEST_F(ConvertFiles, UnreadableSourcesAreNamed) {
  fs::create_symlink("nowhere", folder.file("dangling.gguf"));
  EXPECT_EQ("cannot read " + folder.file("dangling.gguf") + ": No such file or directory",
            refusal(folder.file("dangling.gguf")));
  fs::create_symlink("loop", folder.file("loop"));
  EXPECT_EQ("cannot read " + folder.file("loop") + ": Too many levels of symbolic links",
            refusal(folder.file("loop")));
}

}  // namespace
