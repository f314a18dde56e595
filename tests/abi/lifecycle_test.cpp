// Create, destroy, configure, reset and stats through the built library.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <limits>
#include <string>

#include "container/zym2_writer.h"
#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::ChatModel;
using kel::test::TensorPlan;
using testing_abi::Handle;
using testing_abi::plugin;
using testing_abi::statsOf;

const ZYMRuntimeTableV2& table() {
  return *plugin().runtimesV2(nullptr);
}

class Lifecycle : public testing::Test {
 protected:
  std::string model(const ChatModel& what = {}) const {
    std::string path = folder.file("m.zym");
    kel::test::writeChatModel(path, what);
    return path;
  }

  // Status and message of a create that fails; the handle must come back null.
  static std::pair<uint32_t, std::string> failedCreate(const char* path) {
    auto* handle = reinterpret_cast<ZYMRuntimeHandle*>(0x1);
    char message[256] = "untouched";
    const uint32_t status = table().create(path, "ignored", &handle, message, sizeof message);
    EXPECT_EQ(nullptr, handle);
    return {status, message};
  }

  std::string withArchitecture(const std::string& value) const {
    std::string path = folder.file("arch.zym");
    kel::ZYM2Writer writer;
    EXPECT_TRUE(writer.create(path).ok());
    writer.addMetaStr("general.architecture", value);
    writer.setTokenizer(kel::test::chatTables(300));
    EXPECT_TRUE(writer.finish().ok());
    return path;
  }

  kel::test::TempDir folder;
};

using Failure = std::pair<uint32_t, std::string>;

TEST_F(Lifecycle, CreateWithANullOutHandleReturnsTwoAndTouchesNothing) {
  char message[16] = "untouched";
  EXPECT_EQ(2u, table().create(model().c_str(), nullptr, nullptr, message, sizeof message));
  EXPECT_STREQ("untouched", message);
}

TEST_F(Lifecycle, EveryFailureOfCreateHasItsMessage) {
  EXPECT_EQ(Failure(1, "zym open failed"), failedCreate(folder.file("missing.zym").c_str()));
  EXPECT_EQ(Failure(1, "zym open failed"), failedCreate(nullptr));
  EXPECT_EQ(Failure(1, "not a qwen35-architecture model"),
            failedCreate(withArchitecture("other").c_str()));
  EXPECT_EQ(Failure(1, "not a qwen35-architecture model"),
            failedCreate(withArchitecture("qwen35mo").c_str()));

  const std::string noTokens =
      model({.editTables = [](kel::TokenizerData& tables) { tables.tokens.clear(); }});
  // A model without tokens gets made-up ones from the builder, so this one is written by hand.
  kel::ZYM2Writer writer;
  ASSERT_TRUE(writer.create(noTokens).ok());
  writer.addMetaStr("general.architecture", "qwen35");
  writer.setTokenizer({});
  ASSERT_TRUE(writer.finish().ok());
  EXPECT_EQ(Failure(1, "tokenizer load failed"), failedCreate(noTokens.c_str()));

  EXPECT_EQ(Failure(1, "qwen35 layer bind failed"),
            failedCreate(withArchitecture("qwen35").c_str()));
  const std::string noHead = model({.editTensors = [](std::vector<TensorPlan>& plan) {
    std::erase_if(plan, [](const TensorPlan& t) { return t.name == "output_norm.weight"; });
  }});
  EXPECT_EQ(Failure(1, "qwen35 model bind failed"), failedCreate(noHead.c_str()));
}

TEST_F(Lifecycle, TheArchitectureIsJudgedBeforeTheTokenizer) {
  const std::string path = folder.file("both.zym");
  for (const auto& [architecture, message] :
       {std::pair{"other", "not a qwen35-architecture model"},
        std::pair{"qwen35moe", "qwen35moe not supported yet"}}) {
    kel::ZYM2Writer writer;
    ASSERT_TRUE(writer.create(path).ok());
    writer.addMetaStr("general.architecture", architecture);
    writer.setTokenizer({});
    ASSERT_TRUE(writer.finish().ok());
    EXPECT_EQ(Failure(1, message), failedCreate(path.c_str()));
  }
}

TEST_F(Lifecycle, CreateTakesAFileOfAnyName) {
  for (const char* name : {"m.bin", "m", "m.ZYM"}) {
    const std::string path = folder.file(name);
    std::filesystem::rename(model(), path);
    EXPECT_TRUE(testing_abi::createHandle(path)) << name;
  }
}

TEST_F(Lifecycle, Qwen35MoeIsProbedButNotCreated) {
  const std::string path = withArchitecture("qwen35moe");
  ZYMRuntimeProbe probe{};
  EXPECT_EQ(0u, table().probe(path.c_str(), &probe));
  EXPECT_EQ(92u, probe.score);
  EXPECT_EQ(Failure(1, "qwen35moe not supported yet"), failedCreate(path.c_str()));
}

TEST_F(Lifecycle, AnErrorBufferOfTenBytesReceivesNineAndANul) {
  char message[12];
  std::memset(message, '#', sizeof message);
  ZYMRuntimeHandle* handle = nullptr;
  EXPECT_EQ(1u, table().create("missing.zym", nullptr, &handle, message, 10));
  EXPECT_STREQ("zym open ", message);
  EXPECT_EQ('#', message[10]);
}

TEST_F(Lifecycle, ErrorBuffersMayBeNullOrOfCapacityZero) {
  ZYMRuntimeHandle* handle = nullptr;
  EXPECT_EQ(1u, table().create("missing.zym", nullptr, &handle, nullptr, 100));
  char message[4] = "abc";
  EXPECT_EQ(1u, table().create("missing.zym", nullptr, &handle, message, 0));
  EXPECT_STREQ("abc", message);
}

TEST_F(Lifecycle, DestroyOfNullIsHarmless) {
  table().destroy(nullptr);
}

TEST_F(Lifecycle, StatsOnAFreshSessionReportZero) {
  const Handle handle = testing_abi::createHandle(model());
  ZYMRuntimeStats stats;
  std::memset(&stats, 0xFF, sizeof stats);
  EXPECT_EQ(0u, table().stats(handle.get(), &stats));
  EXPECT_EQ(32u, stats.structSize);
  EXPECT_EQ(0u, stats.contextTokens);
  EXPECT_EQ(0.0, stats.decodeMsTotal);
  EXPECT_EQ(0.0, stats.lastDecodeMs);
}

TEST_F(Lifecycle, NullHandlesAndRecordsAreInvalid) {
  const Handle handle = testing_abi::createHandle(model());
  ZYMRuntimeStats stats{};
  ZYMBenchResult result{};
  const ZYMSessionOptions options = testing_abi::sampling(0, 1, 1, 1);
  EXPECT_EQ(2u, table().stats(nullptr, &stats));
  EXPECT_EQ(2u, table().stats(handle.get(), nullptr));
  EXPECT_EQ(2u, table().reset(nullptr));
  EXPECT_EQ(2u, table().configure(nullptr, &options));
  EXPECT_EQ(2u, table().configure(handle.get(), nullptr));
  EXPECT_EQ(2u, table().bench(nullptr, nullptr, &result));
  EXPECT_EQ(2u, table().bench(handle.get(), nullptr, nullptr));
}

TEST_F(Lifecycle, ConfigureWithA39ByteRecordReturnsTwo) {
  const Handle handle = testing_abi::createHandle(model());
  ZYMSessionOptions options = testing_abi::sampling(0, 1, 1, 1);
  options.structSize = 39;
  EXPECT_EQ(2u, table().configure(handle.get(), &options));
  options.structSize = 40;
  EXPECT_EQ(0u, table().configure(handle.get(), &options));
  options.structSize = 4096;
  EXPECT_EQ(0u, table().configure(handle.get(), &options));
}

// Sampled replies show the settings: the same settings and seed give the same text.
TEST_F(Lifecycle, ConfigureWithNothingToApplyChangesNothing) {
  const std::string path = folder.file("random.zym");
  kel::test::writeRandomChatModel(path, kel::QuantType::BF16, 8);
  const Handle handle = testing_abi::createHandle(path);
  const ZYMSessionOptions hot = testing_abi::sampling(5.0f, 50, 1.0f, 7);
  ASSERT_EQ(0u, table().configure(handle.get(), &hot));
  const testing_abi::Reply first = testing_abi::generate(handle, "hello");
  const testing_abi::Reply second = testing_abi::generate(handle, "hello");
  ASSERT_NE(first.text, second.text) << "the replies must depend on the generator";

  ASSERT_EQ(0u, table().configure(handle.get(), &hot));
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (const ZYMSessionOptions& nothing :
       {testing_abi::sampling(-1.0f, 0, 0.0f, 0), testing_abi::sampling(nan, -3, nan, 0)}) {
    EXPECT_EQ(0u, table().configure(handle.get(), &nothing));
  }
  EXPECT_EQ(first.text, testing_abi::generate(handle, "hello").text);
  EXPECT_EQ(second.text, testing_abi::generate(handle, "hello").text);
}

TEST_F(Lifecycle, ResetEmptiesContextAndTimes) {
  const Handle handle = testing_abi::createHandle(model());
  ASSERT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  EXPECT_GT(statsOf(handle).contextTokens, 0u);
  EXPECT_GT(statsOf(handle).decodeMsTotal, 0.0);
  EXPECT_GT(statsOf(handle).lastDecodeMs, 0.0);
  EXPECT_EQ(0u, table().reset(handle.get()));
  EXPECT_EQ(0u, statsOf(handle).contextTokens);
  EXPECT_EQ(0.0, statsOf(handle).decodeMsTotal);
  EXPECT_EQ(0.0, statsOf(handle).lastDecodeMs);
}

}  // namespace
