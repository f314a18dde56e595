// One-shot generation through the built library.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <limits>
#include <string>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::ChatModel;
using kel::test::TensorPlan;
using testing_abi::Handle;
using testing_abi::plugin;
using testing_abi::Reply;
using testing_abi::statsOf;

const ZYMRuntimeTableV2& table() {
  return *plugin().runtimesV2(nullptr);
}

class Generate : public testing::Test {
 protected:
  Handle open(const ChatModel& what = {}) const {
    const std::string path = folder.file("m.zym");
    kel::test::writeChatModel(path, what);
    return testing_abi::createHandle(path);
  }
  Handle openRandom(kel::QuantType matrices) const {
    const std::string path = folder.file("random.zym");
    kel::test::writeRandomChatModel(path, matrices);
    return testing_abi::createHandle(path);
  }

  kel::test::TempDir folder;
};

TEST_F(Generate, WithoutEndEmits96TokensAndLeavesTheLastOneUnfed) {
  const Handle handle = open();
  const Reply reply = testing_abi::generate(handle, "xyz");
  EXPECT_EQ(0u, reply.status);
  EXPECT_EQ(std::string(96, 'a'), reply.text);
  EXPECT_EQ(3u + 95u, statsOf(handle).contextTokens);
}

TEST_F(Generate, EveryCallStartsFromAnEmptyContext) {
  const Handle handle = open();
  testing_abi::generate(handle, "xyz");
  testing_abi::generate(handle, "x");
  EXPECT_EQ(1u + 95u, statsOf(handle).contextTokens);
}

TEST_F(Generate, StopsAtTheEndOfSequenceWithoutFeedingIt) {
  const Handle handle = open({.favourite = "<|eos|>"});
  const Reply reply = testing_abi::generate(handle, "xyz");
  EXPECT_EQ(0u, reply.status);
  EXPECT_EQ("", reply.text);
  EXPECT_EQ(3u, statsOf(handle).contextTokens);
}

// The end-of-turn token ends chat turns; here only the end of sequence does.
TEST_F(Generate, DoesNotStopAtTheEndOfATurn) {
  const Handle handle = open({.favourite = "<|im_end|>"});
  EXPECT_EQ(96u * 10u, testing_abi::generate(handle, "xyz").text.size());
}

TEST_F(Generate, ACapacityOfOneReturnsTheEmptyString) {
  const Handle handle = open();
  char out[2] = {'x', 'y'};
  EXPECT_EQ(0u, table().generate(handle.get(), "q", out, 1));
  EXPECT_EQ('\0', out[0]);
  EXPECT_EQ('y', out[1]);
}

TEST_F(Generate, LongTextIsCutToCapacityMinusOne) {
  const Handle handle = open();
  char out[8];
  std::memset(out, '#', sizeof out);
  EXPECT_EQ(0u, table().generate(handle.get(), "q", out, 5));
  EXPECT_STREQ("aaaa", out);
  EXPECT_EQ('#', out[5]);
}

TEST_F(Generate, InvalidArgumentsLeaveTheBufferUntouched) {
  const Handle handle = open();
  char out[4] = "abc";
  EXPECT_EQ(2u, table().generate(nullptr, "q", out, sizeof out));
  EXPECT_EQ(2u, table().generate(handle.get(), "q", nullptr, 10));
  EXPECT_EQ(2u, table().generate(handle.get(), "q", out, 0));
  EXPECT_EQ(2u, table().generateEx(nullptr, "q", nullptr, out, sizeof out));
  EXPECT_EQ(2u, table().generateEx(handle.get(), "q", nullptr, nullptr, 10));
  EXPECT_EQ(2u, table().generateEx(handle.get(), "q", nullptr, out, 0));
  EXPECT_STREQ("abc", out);
}

// Nothing is fed, the logits stay all zero, and greedy decoding takes the first token.
TEST_F(Generate, ANullOrEmptyPromptStartsFromUntouchedLogits) {
  const Handle handle = open();
  for (const char* prompt : {static_cast<const char*>(nullptr), ""}) {
    const Reply reply = testing_abi::generate(handle, prompt);
    EXPECT_EQ(0u, reply.status);
    EXPECT_EQ("\n" + std::string(95, 'a'), reply.text);
    EXPECT_EQ(95u, statsOf(handle).contextTokens);
  }
}

TEST_F(Generate, ANullPromptWithABeginningTokenFeedsThatToken) {
  const Handle handle =
      open({.editTables = [](kel::TokenizerData& t) { t.bosId = kel::test::chatId("z"); }});
  EXPECT_EQ(std::string(96, 'a'), testing_abi::generate(handle, nullptr).text);
  EXPECT_EQ(1u + 95u, statsOf(handle).contextTokens);
}

TEST_F(Generate, ExWithTopKOneIsGreedyAndTheEarlierSettingsComeBack) {
  const Handle handle = openRandom(kel::QuantType::Q8_0);
  const std::string greedy = testing_abi::generate(handle, "hello").text;
  const ZYMSessionOptions hot = testing_abi::sampling(5.0f, 50, 1.0f, 7);
  ASSERT_EQ(0u, table().configure(handle.get(), &hot));
  const std::string sampled = testing_abi::generate(handle, "hello").text;
  ASSERT_NE(greedy, sampled);

  const ZYMSessionOptions topOne = testing_abi::sampling(-1.0f, 1, 0.0f, 7);
  EXPECT_EQ(greedy, testing_abi::generateEx(handle, "hello", &topOne).text);
  // The seed of that call stays in force (greedy decoding drew nothing), the settings do not.
  EXPECT_EQ(sampled, testing_abi::generate(handle, "hello").text);
}

TEST_F(Generate, ExWithTheSameSeedGivesTheSameText) {
  const Handle handle = openRandom(kel::QuantType::BF16);
  const ZYMSessionOptions hot = testing_abi::sampling(5.0f, 50, 1.0f, 11);
  const std::string first = testing_abi::generateEx(handle, "hello", &hot).text;
  EXPECT_EQ(first, testing_abi::generateEx(handle, "hello", &hot).text);
  const ZYMSessionOptions other = testing_abi::sampling(5.0f, 50, 1.0f, 12);
  EXPECT_NE(first, testing_abi::generateEx(handle, "hello", &other).text);
}

TEST_F(Generate, ExIgnoresNullAndShortRecords) {
  const Handle handle = openRandom(kel::QuantType::BF16);
  const std::string greedy = testing_abi::generate(handle, "hello").text;
  EXPECT_EQ(greedy, testing_abi::generateEx(handle, "hello", nullptr).text);
  ZYMSessionOptions shortRecord = testing_abi::sampling(5.0f, 50, 1.0f, 11);
  shortRecord.structSize = 39;
  EXPECT_EQ(greedy, testing_abi::generateEx(handle, "hello", &shortRecord).text);
}

TEST_F(Generate, EndsTheConversation) {
  const Handle handle = open({.favourite = "<|im_end|>"});
  testing_abi::chatTurn(handle, "hi");
  const uint64_t firstTurn = statsOf(handle).contextTokens;
  testing_abi::generate(handle, "xyz");
  testing_abi::chatTurn(handle, "hi");
  EXPECT_EQ(firstTurn, statsOf(handle).contextTokens);
}

TEST_F(Generate, KeepsTheLastTimeOfAnEarlierCallWhenNothingIsFed) {
  const Handle handle = open({.editTables = [](kel::TokenizerData& t) { t.eosId = 0; }});
  testing_abi::generate(handle, "xyz");
  const double last = statsOf(handle).lastDecodeMs;
  ASSERT_GT(last, 0.0);
  testing_abi::generate(handle, "");  // the first token ends it
  EXPECT_EQ(last, statsOf(handle).lastDecodeMs);
  EXPECT_EQ(0.0, statsOf(handle).decodeMsTotal);
}

TEST_F(Generate, APromptLongerThanTheVocabularyCoversIsRefusedBeforeTheMatrixEnds) {
  // The tables name more tokens than the matrix has rows, and the wild ids point past them too.
  const Handle handle = open({.editTables = [](kel::TokenizerData& t) {
    t.tokens.emplace_back("\x7F");
    t.tokenTypes.push_back(1);
  }});
  const Reply reply = testing_abi::generate(handle, "ab\x7F");
  EXPECT_EQ(1u, reply.status);
  EXPECT_EQ("", reply.text);
  EXPECT_EQ(2u, statsOf(handle).contextTokens);
  EXPECT_EQ(0u, testing_abi::generate(handle, "ab").status);
}

TEST_F(Generate, WildBeginningAndUnknownIdsNeverReachTheMatrix) {
  for (const int32_t wild : {300, 1 << 30, std::numeric_limits<int32_t>::max()}) {
    const Handle begins = open({.editTables = [wild](kel::TokenizerData& t) { t.bosId = wild; }});
    EXPECT_EQ(1u, testing_abi::generate(begins, "ab").status);
    const Handle unknown = open({.editTables = [wild](kel::TokenizerData& t) { t.unkId = wild; }});
    EXPECT_EQ(1u, testing_abi::generate(unknown, "a\x01").status);
    EXPECT_EQ(0u, testing_abi::generate(unknown, "a").status);
  }
}

TEST_F(Generate, ANaNAtLogit4096FailsAndAt4097GoesUnnoticed) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const auto withNaNRow = [&](size_t row) {
    return open({.vocab = 4100, .editTensors = [=](std::vector<TensorPlan>& plan) {
                   kel::test::fillEmbeddingRow(plan, row, nan);
                 }});
  };
  const Reply failed = testing_abi::generate(withNaNRow(4096), "xyz");
  EXPECT_EQ(1u, failed.status);
  EXPECT_EQ("", failed.text);
  const Reply unnoticed = testing_abi::generate(withNaNRow(4097), "xyz");
  EXPECT_EQ(0u, unnoticed.status);
  EXPECT_EQ(96u, unnoticed.text.size());
}

TEST_F(Generate, ANonFiniteHiddenValueFailsThePrompt) {
  const Handle handle = open({.editTensors = [](std::vector<TensorPlan>& plan) {
    kel::test::fillEmbeddingRow(plan, static_cast<size_t>(kel::test::chatId("n")),
                                std::numeric_limits<float>::infinity());
  }});
  const Reply reply = testing_abi::generate(handle, "abncd");
  EXPECT_EQ(1u, reply.status);
  EXPECT_EQ("", reply.text);
  EXPECT_EQ(3u, statsOf(handle).contextTokens) << "fed up to the token that failed";
}

TEST_F(Generate, AModelThatCannotRunAnswersOneAndTheHandleLivesOn) {
  const auto edits = std::vector<std::function<void(std::vector<TensorPlan>&)>>{
      [](auto& plan) { planned(plan, "blk.3.attn_q.weight").dims[1] = 4096; },
      [](auto& plan) {
        TensorPlan& matrix = planned(plan, "blk.0.ffn_up.weight");
        matrix.type = kel::QuantType::F16;
        matrix.data.assign(matrix.dims[0] * matrix.dims[1] * 2, 0);
      },
      [](auto& plan) { planned(plan, "blk.31.attn_output.weight").data.resize(64); },
  };
  for (const auto& edit : edits) {
    const Handle handle = open({.editTensors = edit});
    ASSERT_TRUE(handle);
    for (const char* prompt : {"xyz", ""}) {
      const Reply oneShot = testing_abi::generate(handle, prompt);
      EXPECT_EQ(1u, oneShot.status);
      EXPECT_EQ("", oneShot.text);
    }
    EXPECT_EQ(1u, testing_abi::chatTurn(handle, "hi").status);
    EXPECT_EQ(1u, testing_abi::streamTurn(handle, "hi").status);
    ZYMBenchResult result{};
    EXPECT_EQ(1u, table().bench(handle.get(), nullptr, &result));
    EXPECT_EQ(0u, statsOf(handle).contextTokens);
    EXPECT_EQ(0u, testing_abi::resetOf(handle));
  }
}

long peakResidentMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

// The logits of the vocabulary that this file claims would take four gigabytes.
TEST_F(Generate, AClaimedVocabularyIsRefusedBeforeMemoryIsTakenForIt) {
  const Handle handle = open({.editTensors = [](std::vector<TensorPlan>& plan) {
    planned(plan, "token_embd.weight").dims[1] = 1'000'000'000;
  }});
  ASSERT_TRUE(handle);
  const long before = peakResidentMegabytes();
  EXPECT_EQ(1u, testing_abi::generate(handle, "xyz").status);
  EXPECT_EQ(1u, testing_abi::chatTurn(handle, "hi").status);
  EXPECT_EQ(1u, testing_abi::streamTurn(handle, "hi").status);
  ZYMBenchResult result{};
  EXPECT_EQ(1u, table().bench(handle.get(), nullptr, &result));
  EXPECT_LT(peakResidentMegabytes() - before, 1000);
}

}  // namespace
