// The bench slot through the built library: what is measured, when it ends, what it leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/hidden_dump.h"
#include "tests/support/scoped_env.h"
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

class Bench : public testing::Test {
 protected:
  std::string model(const ChatModel& what = {}) const {
    const std::string path = folder.file("m.zym");
    kel::test::writeChatModel(path, what);
    return path;
  }

  kel::test::TempDir folder;
};

TEST_F(Bench, WithNullParamsMeasures64Tokens) {
  const Handle handle = testing_abi::createHandle(model());
  ZYMBenchResult result;
  std::memset(&result, 0xFF, sizeof result);
  EXPECT_EQ(0u, table().bench(handle.get(), nullptr, &result));
  EXPECT_EQ(32u, result.structSize);
  EXPECT_EQ(64, result.genTokens);
  EXPECT_GT(result.msPerToken, 0.0);
  EXPECT_DOUBLE_EQ(1000.0 / result.msPerToken, result.tokensPerSecond);
}

TEST_F(Bench, TakesItsParametersAndTheirDefaults) {
  const Handle handle = testing_abi::createHandle(model());
  ZYMBenchResult result{};
  const ZYMBenchParams small = {.structSize = 0, .genTokens = 3, .extraTokens = 1};
  EXPECT_EQ(0u, table().bench(handle.get(), &small, &result));
  EXPECT_EQ(3, result.genTokens);
  const ZYMBenchParams none = {.structSize = 12, .genTokens = 0, .extraTokens = -1};
  EXPECT_EQ(0u, table().bench(handle.get(), &none, &result));
  EXPECT_EQ(64, result.genTokens);
}

// Every pass with logits leaves five vectors of each of the 32 layers and the last one.
constexpr size_t kRecordsPerPass = 5 * 32 + 1;

// How many passes with logits a bench makes.
size_t benchPasses(const Handle& handle, const ZYMBenchParams* params) {
  const kel::test::TempDir folder;
  const std::string dump = folder.file("dump");
  const kel::test::ScopedEnv env("QWEN35_HID_DUMP", dump.c_str());
  ZYMBenchResult result{};
  EXPECT_EQ(0u, table().bench(handle.get(), params, &result));
  const size_t records = kel::test::readHiddenDump(dump).size();
  EXPECT_EQ(0u, records % kRecordsPerPass);
  return records / kRecordsPerPass;
}

// The last token of the prompt is one, and of `gen` + `extra` steps the last one feeds nothing.
TEST_F(Bench, FeedsAllTokensAskedForButOne) {
  const Handle handle = testing_abi::createHandle(model());
  EXPECT_EQ(1u + 64 + 8 - 1, benchPasses(handle, nullptr));
  const ZYMBenchParams small = {.structSize = 12, .genTokens = 3, .extraTokens = 1};
  EXPECT_EQ(1u + 3 + 1 - 1, benchPasses(handle, &small));
  const ZYMBenchParams oneDefault = {.structSize = 12, .genTokens = 2, .extraTokens = 0};
  EXPECT_EQ(1u + 2 + 8 - 1, benchPasses(handle, &oneDefault));
}

// A token with an infinite logit is chosen at once, and no logit behind it is finite.
TEST_F(Bench, EndsAtLogitsThatAreNotFiniteAndStillReports) {
  const Handle handle =
      testing_abi::createHandle(model({.editTensors = [](std::vector<TensorPlan>& plan) {
        TensorPlan& rows = planned(plan, "token_embd.weight");
        std::vector<float> odd(rows.dims[0], 0.0f);
        odd[0] = std::numeric_limits<float>::infinity();
        const std::vector<uint8_t> bytes = kel::test::floatBytes(odd);
        const auto row = static_cast<size_t>(kel::test::chatId("b"));
        std::copy(bytes.begin(), bytes.end(),
                  rows.data.begin() + static_cast<ptrdiff_t>(row * bytes.size()));
      }}));
  EXPECT_EQ(2u, benchPasses(handle, nullptr));
}

TEST_F(Bench, DropsTheConversationAndKeepsTheLastTime) {
  const Handle handle = testing_abi::createHandle(model());
  ASSERT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  ZYMBenchResult result{};
  const ZYMBenchParams params = {.structSize = 12, .genTokens = 2, .extraTokens = 1};
  ASSERT_EQ(0u, table().bench(handle.get(), &params, &result));
  EXPECT_EQ(0u, statsOf(handle).contextTokens);
  EXPECT_EQ(0.0, statsOf(handle).decodeMsTotal);
  EXPECT_GT(statsOf(handle).lastDecodeMs, 0.0);
}

TEST_F(Bench, ReportsAnEndAtTheFirstToken) {
  const Handle handle = testing_abi::createHandle(model({.favourite = "<|eos|>"}));
  ZYMBenchResult result{};
  EXPECT_EQ(0u, table().bench(handle.get(), nullptr, &result));
  EXPECT_EQ(64, result.genTokens);
}

TEST_F(Bench, PutsTheSettingsBackAndDrawsNothing) {
  const std::string path = folder.file("random.zym");
  kel::test::writeRandomChatModel(path, kel::QuantType::BF16, 8);
  const Handle handle = testing_abi::createHandle(path);
  const std::string greedy = testing_abi::generate(handle, "hello").text;
  const ZYMSessionOptions hot = testing_abi::sampling(5.0f, 50, 1.0f, 7);
  ASSERT_EQ(0u, table().configure(handle.get(), &hot));
  const std::string sampled = testing_abi::generate(handle, "hello").text;
  ASSERT_NE(greedy, sampled);

  ASSERT_EQ(0u, table().configure(handle.get(), &hot));
  ZYMBenchResult result{};
  const ZYMBenchParams params = {.structSize = 12, .genTokens = 1, .extraTokens = 1};
  ASSERT_EQ(0u, table().bench(handle.get(), &params, &result));
  EXPECT_EQ(sampled, testing_abi::generate(handle, "hello").text);
}

// A model whose "H" lies past the last row of the matrix: it runs, but not on the bench's prompt.
ChatModel unableToBench() {
  return {.editTables = [](kel::TokenizerData& tables) {
    tables.tokens[static_cast<size_t>(kel::test::chatId("H"))] = "<H>";
    tables.tokens.emplace_back("H");
    tables.tokenTypes.push_back(1);
  }};
}

TEST_F(Bench, FailingLeavesTheSessionGreedy) {
  const Handle handle = testing_abi::createHandle(model(unableToBench()));
  const std::string greedy = testing_abi::generate(handle, "x").text;
  ASSERT_EQ(std::string(96, 'a'), greedy);
  const ZYMSessionOptions hot = testing_abi::sampling(100.0f, 50, 1.0f, 7);
  ASSERT_EQ(0u, table().configure(handle.get(), &hot));
  const std::string sampled = testing_abi::generate(handle, "x").text;
  ASSERT_NE(greedy, sampled);

  ZYMBenchResult result = {.structSize = 7, .msPerToken = 1, .tokensPerSecond = 2, .genTokens = 3};
  ASSERT_EQ(1u, table().bench(handle.get(), nullptr, &result));
  EXPECT_EQ(7u, result.structSize) << "a result that is not there is not written";
  EXPECT_EQ(3, result.genTokens);
  EXPECT_EQ(greedy, testing_abi::generate(handle, "x").text);

  // Temperature and top-k both stay: a temperature alone does not end it.
  const ZYMSessionOptions temperature = testing_abi::sampling(100.0f, 0, 0.0f, 0);
  ASSERT_EQ(0u, table().configure(handle.get(), &temperature));
  EXPECT_EQ(greedy, testing_abi::generate(handle, "x").text);
  ASSERT_EQ(0u, table().configure(handle.get(), &hot));
  EXPECT_EQ(sampled, testing_abi::generate(handle, "x").text);
}

TEST_F(Bench, FailingEndsTheConversation) {
  const Handle handle = testing_abi::createHandle(model(unableToBench()));
  ASSERT_EQ(0u, testing_abi::chatTurn(handle, "x").status);
  const uint64_t firstTurn = statsOf(handle).contextTokens;
  ZYMBenchResult result{};
  ASSERT_EQ(1u, table().bench(handle.get(), nullptr, &result));
  EXPECT_EQ(0u, statsOf(handle).contextTokens);
  EXPECT_EQ(0u, testing_abi::chatTurn(handle, "x").status);
  EXPECT_EQ(firstTurn, statsOf(handle).contextTokens);
}

}  // namespace
