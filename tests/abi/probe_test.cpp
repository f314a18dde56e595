// The probe slot, end to end: files written by the container writer, asked through the library.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "container/zym2_writer.h"
#include "tests/abi/plugin_library.h"

namespace {

namespace fs = std::filesystem;
using testing_abi::plugin;

class Probe : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "zym_probe_XXXXXX").string();
    ASSERT_NE(nullptr, mkdtemp(name.data()));
    folder = name;
  }
  void TearDown() override { fs::remove_all(folder); }

  std::string path(const std::string& name) const { return (folder / name).string(); }

  std::string writeModel(const std::string& name, const char* key, const std::string& value) const {
    kel::ZYM2Writer writer;
    EXPECT_TRUE(writer.create(path(name)).ok());
    if (key != nullptr) {
      writer.addMetaStr(key, value);
    }
    writer.setTokenizer({});
    const kel::Status status = writer.finish();
    EXPECT_TRUE(status.ok()) << status.message;
    return path(name);
  }

  static ZYMRuntimeProbe probe(const char* file) {
    ZYMRuntimeProbe out;
    std::memset(&out, 0xAB, sizeof out);
    EXPECT_EQ(0u, plugin().runtimesV2(nullptr)->probe(file, &out));
    return out;
  }

  static void expectNegative(const ZYMRuntimeProbe& out) {
    EXPECT_EQ(0u, out.score);
    EXPECT_STREQ("", out.architecture);
    EXPECT_STREQ("cpu", out.device);
    EXPECT_STREQ("", out.detail);
  }

  static void expectMatch(const ZYMRuntimeProbe& out, const char* architecture) {
    EXPECT_EQ(92u, out.score);
    EXPECT_STREQ(architecture, out.architecture);
    EXPECT_STREQ("cpu", out.device);
    EXPECT_STREQ("qwen35 hybrid (GDN+attn) architecture metadata", out.detail);
  }

  fs::path folder;
};

constexpr const char* kKey = "general.architecture";

TEST_F(Probe, Qwen35Scores92) {
  expectMatch(probe(writeModel("m.zym", kKey, "qwen35").c_str()), "qwen35");
}

TEST_F(Probe, Qwen35MoeAlsoScores92) {
  expectMatch(probe(writeModel("m.zym", kKey, "qwen35moe").c_str()), "qwen35moe");
}

TEST_F(Probe, PrefixesExtensionsAndOtherCaseScoreZero) {
  for (const std::string& value :
       {std::string("qwen3"), std::string("qwen35 "), std::string("qwen35mo"),
        std::string("qwen35moex"), std::string("Qwen35"), std::string(""),
        std::string("qwen35\0", 7)}) {
    expectNegative(probe(writeModel("m.zym", kKey, value).c_str()));
  }
}

TEST_F(Probe, ContainerWithoutTheKeyScoresZero) {
  expectNegative(probe(writeModel("m.zym", nullptr, "").c_str()));
  expectNegative(probe(writeModel("n.zym", "general.name", "qwen35").c_str()));
}

TEST_F(Probe, UnreadableAndCorruptFilesScoreZero) {
  expectNegative(probe(path("missing.zym").c_str()));
  std::ofstream(path("text.zym")) << "not a container";
  expectNegative(probe(path("text.zym").c_str()));
  fs::create_directory(path("folder.zym"));
  expectNegative(probe(path("folder.zym").c_str()));
  const std::string model = writeModel("m.zym", kKey, "qwen35");
  fs::resize_file(model, fs::file_size(model) - 1);
  expectNegative(probe(model.c_str()));
}

TEST_F(Probe, ContainerWithoutTokenizerScoresZero) {
  kel::ZYM2Writer writer;
  ASSERT_TRUE(writer.create(path("m.zym")).ok());
  writer.addMetaStr(kKey, "qwen35");
  ASSERT_TRUE(writer.finish().ok());
  expectNegative(probe(path("m.zym").c_str()));
}

TEST_F(Probe, NullPathAndShortPathsScoreZero) {
  expectNegative(probe(nullptr));
  for (const char* name : {"", "m", "zym", "ym"}) {
    expectNegative(probe(name));
  }
}

// A file that would match under another name shows that the suffix alone decides.
TEST_F(Probe, SuffixIsComparedExactlyBeforeTheFileIsTouched) {
  const std::string model = writeModel("m.zym", kKey, "qwen35");
  for (const char* name : {"m.ZYM", "m.Zym", "m.zym2", "m.zy", "mzym"}) {
    fs::rename(model, path(name));
    expectNegative(probe(path(name).c_str()));
    fs::rename(path(name), model);
  }
  expectMatch(probe(model.c_str()), "qwen35");
}

TEST_F(Probe, UpperCaseSuffixIsRejectedWithoutOpeningTheFile) {
  const int watcher = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(watcher, 0);
  const std::string model = writeModel("m.zym", kKey, "qwen35");
  fs::rename(model, path("m.ZYM"));
  ASSERT_GE(inotify_add_watch(watcher, path("m.ZYM").c_str(), IN_OPEN), 0);

  char events[4096];
  expectNegative(probe(path("m.ZYM").c_str()));
  EXPECT_LT(read(watcher, events, sizeof events), 0) << "the file was opened";

  // The watch does see an opening: the same file under its right name.
  fs::rename(path("m.ZYM"), model);
  expectMatch(probe(model.c_str()), "qwen35");
  EXPECT_GT(read(watcher, events, sizeof events), 0);
  close(watcher);
}

TEST_F(Probe, ExactlyTheFourBytesOfTheSuffixAreOpened) {
  const fs::path before = fs::current_path();
  writeModel(".zym", kKey, "qwen35");
  fs::current_path(folder);
  expectMatch(probe(".zym"), "qwen35");
  fs::current_path(before);
}

TEST_F(Probe, ANullRecordStillHasTheFileOpenedAndClosed) {
  const std::string model = writeModel("m.zym", kKey, "qwen35");
  const int watcher = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(watcher, 0);
  ASSERT_GE(inotify_add_watch(watcher, model.c_str(), IN_OPEN | IN_CLOSE), 0);
  EXPECT_EQ(0u, plugin().runtimes(nullptr)->probe(model.c_str(), nullptr));
  alignas(inotify_event) char events[4096];
  const ssize_t bytes = read(watcher, events, sizeof events);
  uint32_t seen = 0;
  for (ssize_t at = 0; at < bytes;) {
    inotify_event event{};
    std::memcpy(&event, events + at, sizeof event);
    seen |= event.mask;
    at += static_cast<ssize_t>(sizeof event + event.len);
  }
  EXPECT_NE(0u, seen & IN_OPEN);
  EXPECT_NE(0u, seen & IN_CLOSE);
  close(watcher);
}

TEST_F(Probe, NullRecordReturnsZero) {
  const std::string model = writeModel("m.zym", kKey, "qwen35");
  const ZYMRuntimeTable* const table = plugin().runtimes(nullptr);
  EXPECT_EQ(0u, table->probe(model.c_str(), nullptr));
  EXPECT_EQ(0u, table->probe(nullptr, nullptr));
  EXPECT_EQ(0u, table->probe("missing.zym", nullptr));
}

}  // namespace
