// The bench slot through the built library: what is measured, when it ends, what it leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

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
    std::string path = folder.file("m.zym");
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

// Of the fixed prompt "Hi".
constexpr size_t kPromptTokens = 2;

// How many tokens a bench feeds behind its prompt. A dump names the position of every pass.
size_t tokensFed(const Handle& handle, const ZYMBenchParams* params) {
  const kel::test::TempDir folder;
  const std::string dump = folder.file("dump");
  const kel::test::ScopedEnv env("QWEN35_HID_DUMP", dump.c_str());
  ZYMBenchResult result{};
  EXPECT_EQ(0u, table().bench(handle.get(), params, &result));
  const std::vector<kel::test::DumpRecord> records = kel::test::readHiddenDump(dump);
  return records.empty() ? 0
                         : std::max<size_t>(records.back().pos + 1, kPromptTokens) - kPromptTokens;
}

// Of `gen` + `extra` steps the last one feeds nothing.
TEST_F(Bench, FeedsAllTokensAskedForButOne) {
  const Handle handle = testing_abi::createHandle(model());
  EXPECT_EQ(64u + 8 - 1, tokensFed(handle, nullptr));
  const ZYMBenchParams small = {.structSize = 12, .genTokens = 3, .extraTokens = 1};
  EXPECT_EQ(3u + 1 - 1, tokensFed(handle, &small));
  const ZYMBenchParams oneDefault = {.structSize = 12, .genTokens = 2, .extraTokens = 0};
  EXPECT_EQ(2u + 8 - 1, tokensFed(handle, &oneDefault));
}

TEST_F(Bench, StartsFromAnEmptyContext) {
  const Handle handle = testing_abi::createHandle(model({.favourite = "<|im_end|>"}));
  ASSERT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  const ZYMBenchParams small = {.structSize = 12, .genTokens = 3, .extraTokens = 1};
  EXPECT_EQ(3u + 1 - 1, tokensFed(handle, &small));
}

// A model that answers "a" to the prompt and the end of sequence to "a".
ChatModel endsBehindOneToken() {
  return {.editTensors = [](std::vector<TensorPlan>& plan) {
    kel::test::setEmbeddingRow(plan, "i", {1, 0, 0, 0, 0, 0, 0, 0});
    kel::test::setEmbeddingRow(plan, "a", {10, 10, 0, 0, 0, 0, 0, 0});
    kel::test::setEmbeddingRow(plan, "<|eos|>", {0, 30, 0, 0, 0, 0, 0, 0});
  }};
}

TEST_F(Bench, EndsAtTheEndOfSequenceWithoutFeedingIt) {
  const Handle handle = testing_abi::createHandle(model(endsBehindOneToken()));
  EXPECT_EQ(1u, tokensFed(handle, nullptr));
}

// Two tokens with one logit, one of them the end of sequence.
TEST_F(Bench, TakesTheLowestTokenOfEqualLogits) {
  const auto tie = [](std::vector<TensorPlan>& plan) {
    for (const char* token : {"A", "a", "<|eos|>"}) {
      kel::test::setEmbeddingRow(plan, token, {10, 0, 0, 0, 0, 0, 0, 0});
    }
  };
  const Handle highEnd = testing_abi::createHandle(model({.editTensors = tie}));
  EXPECT_EQ(64u + 8 - 1, tokensFed(highEnd, nullptr));
  const Handle lowEnd = testing_abi::createHandle(model(
      {.editTables = [](kel::TokenizerData& tables) { tables.eosId = kel::test::chatId("A"); },
       .editTensors = tie}));
  EXPECT_EQ(0u, tokensFed(lowEnd, nullptr));
}

// The time divided is at least that of its last pass and at most that of the whole call.
void expectTimeOfAllSteps(const Handle& handle, const ZYMBenchParams& params) {
  using Clock = std::chrono::steady_clock;
  ZYMBenchResult result{};
  const Clock::time_point start = Clock::now();
  ASSERT_EQ(0u, table().bench(handle.get(), &params, &result));
  const std::chrono::duration<double, std::milli> call = Clock::now() - start;
  const double measured = result.msPerToken * params.genTokens;
  EXPECT_GE(measured * (1 + 1e-12), statsOf(handle).lastDecodeMs);
  EXPECT_LE(measured, call.count());
  EXPECT_DOUBLE_EQ(1000.0 / result.msPerToken, result.tokensPerSecond);
}

TEST_F(Bench, DividesTheTimeOfAllStepsInMillisecondsByTheTokensAskedFor) {
  const Handle handle = testing_abi::createHandle(model());
  expectTimeOfAllSteps(handle, {.structSize = 12, .genTokens = 1, .extraTokens = 1});
  expectTimeOfAllSteps(handle, {.structSize = 12, .genTokens = 1, .extraTokens = 40});
}

TEST_F(Bench, DividesByTheTokensAskedForAlsoBehindAnEarlyEnd) {
  const Handle handle = testing_abi::createHandle(model(endsBehindOneToken()));
  expectTimeOfAllSteps(handle, {.structSize = 12, .genTokens = 100000, .extraTokens = 1});
}

// A token with an infinite logit is chosen at once, and no logit behind it is finite.
TEST_F(Bench, EndsAtLogitsThatAreNotFiniteAndStillReports) {
  const Handle handle =
      testing_abi::createHandle(model({.editTensors = [](std::vector<TensorPlan>& plan) {
        kel::test::setEmbeddingRow(plan, "b",
                                   {std::numeric_limits<float>::infinity(), 0, 0, 0, 0, 0, 0, 0});
      }}));
  EXPECT_EQ(1u, tokensFed(handle, nullptr));
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

// Position 0 alone does not show that the conversation is over: a turn that fails does.
TEST_F(Bench, EndsTheConversation) {
  const Handle handle = testing_abi::createHandle(
      model({.favourite = "<|im_end|>", .editTables = [](kel::TokenizerData& tables) {
               tables.tokens.emplace_back("\x7F");  // past the rows of the matrix
               tables.tokenTypes.push_back(1);
             }}));
  ASSERT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  const uint64_t firstTurn = statsOf(handle).contextTokens;
  ZYMBenchResult result{};
  const ZYMBenchParams params = {.structSize = 12, .genTokens = 1, .extraTokens = 1};
  ASSERT_EQ(0u, table().bench(handle.get(), &params, &result));
  ASSERT_EQ(1u, testing_abi::chatTurn(handle, "\x7F").status);
  ASSERT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  EXPECT_EQ(firstTurn, statsOf(handle).contextTokens);
}

// A bench that fails leaves what it fed: the beginning token and the first one of the prompt.
TEST_F(Bench, FeedsTheBeginningToken) {
  const auto unable = [](int32_t beginning) {
    return ChatModel{.editTables = [beginning](kel::TokenizerData& tables) {
      tables.bosId = beginning;
      tables.tokens[static_cast<size_t>(kel::test::chatId("i"))] = "<i>";
      tables.tokens.emplace_back("i");
      tables.tokenTypes.push_back(1);
    }};
  };
  ZYMBenchResult result{};
  const Handle without = testing_abi::createHandle(model(unable(-1)));
  EXPECT_EQ(1u, table().bench(without.get(), nullptr, &result));
  EXPECT_EQ(1u, statsOf(without).contextTokens);
  const Handle with = testing_abi::createHandle(model(unable(kel::test::chatId("z"))));
  EXPECT_EQ(1u, table().bench(with.get(), nullptr, &result));
  EXPECT_EQ(2u, statsOf(with).contextTokens);
}

TEST_F(Bench, ReportsAnEndAtTheFirstToken) {
  const Handle handle = testing_abi::createHandle(model({.favourite = "<|eos|>"}));
  ZYMBenchResult result{};
  EXPECT_EQ(0u, table().bench(handle.get(), nullptr, &result));
  EXPECT_EQ(64, result.genTokens);
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
