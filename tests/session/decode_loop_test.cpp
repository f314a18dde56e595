// What the boundary cannot show: the flags and texts that prefill and generate hand to their
// callers.
#include "session/decode_loop.h"

#include <gtest/gtest.h>

#include <limits>

#include "session/text_buffer.h"
#include "tests/support/chat_model.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::ChatModel;
using kel::test::TensorPlan;
using session::Qwen35Session;

class DecodeLoop : public testing::Test {
 protected:
  void open(const ChatModel& what = {}) {
    const kel::test::TempDir folder;
    kel::test::writeChatModel(folder.file("m.zym"), what);
    char message[64] = "";
    ASSERT_TRUE(openSession(&session, folder.file("m.zym").c_str(), message, sizeof message))
        << message;
    hidden.assign(session.model.nEmbd, 0);
    logits.assign(session.model.nVocab, 0);
  }

  // Greedy decoding of the current logits.
  std::string run(bool& ok) { return generate(&session, hidden, logits, -1, ok); }

  Qwen35Session session;
  std::vector<float> hidden;
  std::vector<float> logits;
};

TEST_F(DecodeLoop, AnEmptyPromptFeedsNothingAndLeavesTheLogits) {
  open();
  logits.assign(logits.size(), 7.0f);
  EXPECT_TRUE(prefill(&session, {}, hidden, logits));
  EXPECT_EQ(std::vector<float>(logits.size(), 7.0f), logits);
  EXPECT_EQ(0u, session.position);
}

TEST_F(DecodeLoop, AnUnfitModelIsRefusedEvenWithAnEmptyPrompt) {
  open();
  session.unfitReason = "blk.0.ffn_up.weight: no product for F16";
  EXPECT_FALSE(prefill(&session, {}, hidden, logits));
  EXPECT_FALSE(prefill(&session, {1, 2}, hidden, logits));
  EXPECT_EQ(0u, session.position);
}

// Only the pass with the output head writes logits: one token gives the logits of that token.
TEST_F(DecodeLoop, APromptOfOneTokenRunsThePassWithLogits) {
  open();
  logits.assign(logits.size(), -1.0f);
  EXPECT_TRUE(prefill(&session, {5}, hidden, logits));
  EXPECT_EQ(1u, session.position);
  std::vector<float> expected(logits.size());
  session.restart();
  feedToken(&session, 5, hidden, expected);
  EXPECT_EQ(expected, logits);
}

TEST_F(DecodeLoop, TimesAddUpAndTheLastOneStays) {
  open();
  ASSERT_TRUE(prefill(&session, {5}, hidden, logits));
  const double first = session.lastDecodeMs;
  EXPECT_EQ(first, session.decodeMsTotal);
  ASSERT_TRUE(prefill(&session, {6}, hidden, logits));
  EXPECT_DOUBLE_EQ(first + session.lastDecodeMs, session.decodeMsTotal);
  const double last = session.lastDecodeMs;
  session.restart();
  EXPECT_EQ(0.0, session.decodeMsTotal);
  EXPECT_EQ(last, session.lastDecodeMs);
}

TEST_F(DecodeLoop, CountsSampledTokensTheStopTokenIncluded) {
  open({.favourite = "<|eos|>"});
  bool ok = false;
  ASSERT_TRUE(prefill(&session, {5}, hidden, logits));
  EXPECT_EQ("", run(ok));
  EXPECT_TRUE(ok);
  EXPECT_EQ(1u, session.sampledTokens);
}

TEST_F(DecodeLoop, ANaNAtLogit4096StopsWithThePartialText) {
  open({.vocab = 4100, .editTensors = [](std::vector<TensorPlan>& plan) {
          kel::test::fillEmbeddingRow(plan, 4096, std::numeric_limits<float>::quiet_NaN());
        }});
  logits[static_cast<size_t>(kel::test::chatId("b"))] = 1.0f;
  bool ok = true;
  EXPECT_EQ("b", run(ok));
  EXPECT_FALSE(ok);
  EXPECT_EQ(1u, session.position);
}

TEST_F(DecodeLoop, ANaNAtLogit4097GoesUnnoticed) {
  open({.vocab = 4100, .editTensors = [](std::vector<TensorPlan>& plan) {
          kel::test::fillEmbeddingRow(plan, 4097, std::numeric_limits<float>::quiet_NaN());
        }});
  logits[static_cast<size_t>(kel::test::chatId("b"))] = 1.0f;
  bool ok = false;
  EXPECT_EQ("b" + std::string(95, 'a'), run(ok));
  EXPECT_TRUE(ok);
}

TEST(SampledLogits, EveryFourThousandAndNinetySixthCounts) {
  for (const float bad :
       {std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
        std::numeric_limits<float>::quiet_NaN()}) {
    for (const size_t tested : {size_t{0}, size_t{4096}, size_t{8192}}) {
      std::vector<float> logits(8193, std::numeric_limits<float>::max());
      EXPECT_TRUE(session::sampledLogitsAreFinite(logits));
      logits[tested] = bad;
      EXPECT_FALSE(session::sampledLogitsAreFinite(logits));
    }
    std::vector<float> logits(8193, 0.0f);
    logits[1] = logits[4095] = logits[4097] = bad;
    EXPECT_TRUE(session::sampledLogitsAreFinite(logits));
  }
}

TEST(CopyText, CutsTerminatesAndStopsAtANul) {
  char buffer[8] = "#######";
  session::copyText(buffer, 4, "abcdef");
  EXPECT_STREQ("abc", buffer);
  EXPECT_EQ('#', buffer[4]);
  session::copyText(buffer, sizeof buffer, std::string_view("a\0b", 3));
  EXPECT_STREQ("a", buffer);
  session::copyText(buffer, 1, "abc");
  EXPECT_STREQ("", buffer);
  session::copyText(nullptr, 8, "abc");
  buffer[0] = 'k';
  session::copyText(buffer, 0, "abc");
  EXPECT_EQ('k', buffer[0]);
}

}  // namespace
