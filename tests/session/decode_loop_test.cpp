// What the boundary cannot show: the flags and texts that prefill and generate hand to their
// callers.
#include "session/decode_loop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "session/text_buffer.h"
#include "tests/support/chat_model.h"
#include "tests/support/instrumented.h"
#include "tests/support/random_model.h"
#include "tests/support/scoped_env.h"
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

TEST_F(DecodeLoop, AnEmptyPromptNeedsNoRoom) {
  open();
  session.position = session.model.maxCtx;
  EXPECT_TRUE(prefill(&session, {}, hidden, logits));
  EXPECT_FALSE(prefill(&session, {5}, hidden, logits));
}

TEST_F(DecodeLoop, AnUnfitModelIsRefusedEvenWithAnEmptyPrompt) {
  open();
  session.context.reset();
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
  session.clearContext();
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
  session.clearContext();
  EXPECT_EQ(0.0, session.decodeMsTotal);
  EXPECT_EQ(last, session.lastDecodeMs);
}

// A prompt that stops in the middle. Fed in batches or, with a diagnostic set that changes nothing
// here, token by token: both must stop at the same place with the same state.
class PromptFailure : public testing::Test {
 protected:
  static constexpr int kNotFinite = 7;     // token whose embedding row holds a NaN
  static constexpr int kWithoutRow = 300;  // first id past the embedding rows

  PromptFailure() {
    kel::test::RandomModelSpec spec{.layerKinds = "FFFFFFFL"};
    spec.edit = [](std::vector<TensorPlan>& plan) {
      TensorPlan& table = planned(plan, "token_embd.weight");
      table.data = tensorBytes(table, 1);
      const float odd = std::numeric_limits<float>::quiet_NaN();
      std::memcpy(table.data.data() + kNotFinite * table.dims[0] * sizeof odd, &odd, sizeof odd);
    };
    EXPECT_TRUE(writeRandomModel(path, spec).ok());
  }

  void open(Qwen35Session& session, uint64_t capacity) {
    char message[64] = "";
    ASSERT_TRUE(openSession(&session, path.c_str(), message, sizeof message)) << message;
    session.model.maxCtx = std::min(session.model.maxCtx, capacity);
  }

  static bool feed(Qwen35Session& session, const std::vector<int>& tokens) {
    std::vector<float> hidden(session.model.nEmbd);
    std::vector<float> logits(session.model.nVocab);
    return prefill(&session, tokens, hidden, logits);
  }

  static void expectSameState(const qwen35::StateBuffer& a, const qwen35::StateBuffer& b) {
    ASSERT_EQ(a.size(), b.size());
    if (!a.empty()) {
      EXPECT_EQ(0, std::memcmp(a.data(), b.data(), a.size() * sizeof(float)));
    }
  }

  // The first `rows` cache rows of every key/value head.
  static void expectSameRows(const qwen35::StateBuffer& a, const qwen35::StateBuffer& b,
                             size_t rows, const qwen35::Model& m) {
    for (size_t g = 0; g < m.nHeadKv && !a.empty(); ++g) {
      const size_t first = g * m.maxCtx * m.headDim;
      EXPECT_EQ(0,
                std::memcmp(a.data() + first, b.data() + first, rows * m.headDim * sizeof(float)));
    }
  }

  // Feeds a prompt of which token `at` is `odd`; the others are plain.
  void expectStop(size_t length, size_t at, int odd, uint64_t capacity, uint64_t position) {
    std::vector<int> tokens(length);
    for (size_t i = 0; i < length; ++i) {
      tokens[i] = static_cast<int>(10 + i % 200);
    }
    if (at < length) {
      tokens[at] = odd;
    }
    Qwen35Session batches;
    open(batches, capacity);
    EXPECT_FALSE(feed(batches, tokens));
    EXPECT_EQ(position, batches.position);

    const kel::test::ScopedEnv oneByOne("QWEN35_DBG", "1");
    Qwen35Session singles;
    open(singles, capacity);
    EXPECT_FALSE(feed(singles, tokens));
    EXPECT_EQ(position, singles.position);
    for (size_t l = 0; l < singles.model.layers.size(); ++l) {
      const qwen35::Layer& expected = singles.model.layers[l];
      const qwen35::Layer& actual = batches.model.layers[l];
      EXPECT_EQ(expected.pos, actual.pos) << l;
      expectSameState(expected.ssmState, actual.ssmState);
      expectSameState(expected.convState, actual.convState);
      expectSameRows(expected.kCache, actual.kCache, expected.pos, singles.model);
      expectSameRows(expected.vCache, actual.vCache, expected.pos, singles.model);
    }
  }

  kel::test::TempDir folder;
  std::string path = folder.file("m.zym");
};

TEST_F(PromptFailure, AHiddenVectorThatIsNotFiniteStopsAfterItsToken) {
  for (const size_t at : {0u, 1u, 5u, 18u}) {
    expectStop(20, at, kNotFinite, 8192, at + 1);
  }
}

TEST_F(PromptFailure, TheBatchesBeforeStand) {
  expectStop(140, 130, kNotFinite, 8192, 131);
}

TEST_F(PromptFailure, ATokenWithoutAnEmbeddingRowIsNotFed) {
  for (const size_t at : {0u, 1u, 6u, 19u}) {
    expectStop(20, at, kWithoutRow, 8192, at);
    expectStop(20, at, -1, 8192, at);
  }
}

TEST_F(PromptFailure, WhatFitsIsFed) {
  expectStop(60, 60, 0, 40, 40);
  expectStop(41, 41, 0, 40, 40);
}

TEST_F(PromptFailure, APromptThatJustFitsIsFedWhole) {
  Qwen35Session session;
  open(session, 40);
  EXPECT_TRUE(feed(session, std::vector<int>(40, 11)));
  EXPECT_EQ(40u, session.position);
  EXPECT_FALSE(feed(session, {11}));
  EXPECT_EQ(40u, session.position);
}

// A batch that is run again up to the token that failed counts once.
TEST_F(PromptFailure, TimesOfARepeatedBatchCountOnce) {
  Qwen35Session session;
  open(session, 8192);
  std::vector<int> tokens(20, 11);
  tokens[5] = kNotFinite;
  EXPECT_FALSE(feed(session, tokens));
  EXPECT_EQ(6u, session.position);
  EXPECT_NEAR(6 * session.lastDecodeMs, session.decodeMsTotal, 1e-9 * session.decodeMsTotal);
}

TEST_F(PromptFailure, TimesOfBatchesAddUp) {
  Qwen35Session session;
  open(session, 8192);
  EXPECT_TRUE(feed(session, std::vector<int>(150, 11)));
  EXPECT_EQ(150u, session.position);
  EXPECT_GT(session.lastDecodeMs, 0.0);
  EXPECT_GT(session.decodeMsTotal, session.lastDecodeMs);
}

// Token k of this model has a hidden vector of which element k alone is not finite; no token has a
// logit of index 0 that is not finite.
TEST_F(DecodeLoop, EveryElementOfAHiddenVectorIsTested) {
  constexpr int kPlain = 20;
  constexpr size_t kHidden = 8;
  open({.hidden = kHidden, .editTensors = [](std::vector<TensorPlan>& plan) {
          std::vector<float> rows(300 * kHidden, 1.0F);
          std::fill_n(rows.begin(), kHidden * (kHidden + 1), 0.0F);
          for (size_t k = 0; k < kHidden; ++k) {
            rows[(k + 1) * kHidden + k] = 1.0F;  // behind the normalisation: sqrt(8)
          }
          planned(plan, "token_embd.weight").data = kel::test::floatBytes(rows);
          planned(plan, "output_norm.weight").data =
              kel::test::floatBytes(std::vector<float>(kHidden, 3e38F));
        }});
  ASSERT_TRUE(prefill(&session, {kPlain, kPlain, kPlain}, hidden, logits));
  for (const char* diagnostic : {"NOT_A_DIAGNOSTIC", "QWEN35_DBG"}) {
    const kel::test::ScopedEnv env(diagnostic, "1");
    for (int k = 0; k < static_cast<int>(kHidden); ++k) {
      const uint64_t before = session.position;
      EXPECT_FALSE(prefill(&session, {kPlain, k + 1, kPlain}, hidden, logits)) << k;
      EXPECT_EQ(before + 2, session.position) << k;
    }
  }
}

// With caches of no more than the capacity, so that a row too many is a fault of memory.
TEST_F(DecodeLoop, APromptOfBatchesThatFillsTheContextYieldsOnePiece) {
  constexpr size_t kCapacity = 140;
  open();
  ASSERT_TRUE(qwen35::initLayers(*session.loader, session.model, kCapacity));
  ASSERT_TRUE(qwen35::bindModel(*session.loader, session.model, kCapacity));
  ASSERT_TRUE(prefill(&session, std::vector<int>(kCapacity, 5), hidden, logits));
  EXPECT_EQ(kCapacity, session.position);
  bool ok = false;
  EXPECT_EQ("a", run(ok));
  EXPECT_TRUE(ok);
  EXPECT_EQ(kCapacity, session.position);
  for (const qwen35::Layer& layer : session.model.layers) {
    EXPECT_EQ(layer.isLinear ? 0 : kCapacity, layer.pos);
  }
}

// Logits behind a prompt, with a diagnostic that prints or without.
std::vector<float> promptLogits(const std::string& path, const char* diagnostic) {
  Qwen35Session session;
  char message[64] = "";
  EXPECT_TRUE(openSession(&session, path.c_str(), message, sizeof message)) << message;
  std::vector<float> hidden(session.model.nEmbd);
  std::vector<float> logits(session.model.nVocab);
  const kel::test::ScopedEnv env(diagnostic, "1");
  EXPECT_TRUE(prefill(&session, {5, 6, 7, 8, 9, 10, 11}, hidden, logits));
  return logits;
}

TEST(Diagnostics, ThatPrintLeaveEveryBitOfCodedTypes) {
  const kel::test::TempDir folder;
  for (const kel::QuantType type : {kel::QuantType::Q4_K, kel::QuantType::Q5_K}) {
    const std::string path = folder.file("m.zym");
    kel::test::writeRandomChatModel(path, type, 256);
    EXPECT_EQ(promptLogits(path, "NOT_A_DIAGNOSTIC"), promptLogits(path, "QWEN35_TIMING"));
  }
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

// Replies of a gigabyte, of few and long pieces.
class LongText : public DecodeLoop {
 protected:
  static constexpr size_t kLimit = 1073741824 - 64;
  static constexpr size_t kPieces = 15;  // that make up the limit to the byte
  static_assert(kLimit % kPieces == 0);

  void SetUp() override {
    if (kel::test::kInstrumented) {
      GTEST_SKIP() << "takes a multiple of its two gigabytes";
    }
    open();
    kel::TokenizerData tables = kel::test::chatTables(300);
    const auto favourite = static_cast<size_t>(kel::test::chatId("a"));
    tables.tokens[favourite] = std::string(kLimit / kPieces, 'a');
    tables.tokenTypes[favourite] = 3;  // a special one, which is decoded as it stands
    ASSERT_TRUE(session.tokenizer->load(std::move(tables)).ok());
  }

  // Length of a reply whose first piece is that of `first`, the others long. All its pieces but the
  // last one are fed.
  size_t length(const char* first) {
    logits.assign(logits.size(), 0.0F);
    logits[static_cast<size_t>(kel::test::chatId(first))] = 1.0F;
    bool ok = false;
    const size_t bytes = run(ok).size();
    EXPECT_TRUE(ok);
    return bytes;
  }
};

TEST_F(LongText, EndsBehindThePieceThatLeavesLessThan64BytesOfAGigabyte) {
  EXPECT_EQ(kLimit + kLimit / kPieces, length("a")) << "64 bytes are left, and room for a piece";
  EXPECT_EQ(kPieces, session.position);
  EXPECT_EQ(kLimit + 1, length("b"));
  EXPECT_EQ(2 * kPieces, session.position);
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
