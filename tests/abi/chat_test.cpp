// Chat turns, buffered and streamed, through the built library.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/instrumented.h"
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

// Tokens of a turn around its text: <|im_start|>, "user", line feed, <|im_end|>, line feed,
// <|im_start|>, "assistant", line feed.
constexpr uint64_t kFramingTokens = 1 + 4 + 1 + 1 + 1 + 1 + 9 + 1;

class Chat : public testing::Test {
 protected:
  Handle open(const ChatModel& what = {}) const {
    const std::string path = folder.file("m.zym");
    kel::test::writeChatModel(path, what);
    return testing_abi::createHandle(path);
  }

  kel::test::TempDir folder;
};

// A token of the vocabulary that the matrix has no row for: a turn with it fails where it stands.
constexpr const char* kUnfeedable = "\x7F";

ChatModel withUnfeedableToken() {
  return {.favourite = "<|im_end|>", .editTables = [](kel::TokenizerData& tables) {
            tables.tokens.emplace_back(kUnfeedable);
            tables.tokenTypes.push_back(1);
          }};
}

// Chooses "b", behind which the logit of index 4096 is infinite and everything else finite.
ChatModel failingBehindItsFirstPiece() {
  return {.vocab = 4100, .editTensors = [](std::vector<TensorPlan>& plan) {
            for (size_t row = 0; row < 4100; ++row) {
              kel::test::setEmbeddingRow(plan, row, {1, 0, 0, 0, 0, 0, 0, 0});
            }
            const auto b = static_cast<size_t>(kel::test::chatId("b"));
            kel::test::setEmbeddingRow(plan, b, {10, 0, 0, 0, 0, 0, 0, 10});
            kel::test::setEmbeddingRow(plan, 4096, {0, 0, 0, 0, 0, 0, 0, 3e38F});
          }};
}

// A model whose recurrent state grows beyond every float after some twenty positions.
ChatModel explodingModel() {
  return {.editTensors = [](std::vector<TensorPlan>& plan) {
    planned(plan, "blk.0.ssm_a").data = kel::test::floatBytes(std::vector<float>(32, 4.0f));
    TensorPlan& alpha = planned(plan, "blk.0.ssm_alpha.weight");
    alpha.data = kel::test::floatBytes(std::vector<float>(alpha.dims[0] * alpha.dims[1], 0.0f));
    planned(plan, "blk.0.ssm_dt.bias").data = kel::test::floatBytes(std::vector<float>(32, 0.0f));
  }};
}

TEST_F(Chat, TurnsContinueWhereTheLastOneEnded) {
  const Handle handle = open({.favourite = "<|im_end|>"});
  EXPECT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  EXPECT_EQ(kFramingTokens + 2, statsOf(handle).contextTokens);
  EXPECT_EQ(0u, testing_abi::streamTurn(handle, "you").status);
  EXPECT_EQ(2 * kFramingTokens + 2 + 3, statsOf(handle).contextTokens);
  EXPECT_EQ(0u, testing_abi::resetOf(handle));
  EXPECT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  EXPECT_EQ(kFramingTokens + 2, statsOf(handle).contextTokens);
}

TEST_F(Chat, EveryTurnBeginsWithTheBeginningToken) {
  const Handle handle = open({.favourite = "<|im_end|>", .editTables = [](kel::TokenizerData& t) {
                                t.bosId = kel::test::chatId("z");
                              }});
  EXPECT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  EXPECT_EQ(1 + kFramingTokens + 2, statsOf(handle).contextTokens);
  EXPECT_EQ(0u, testing_abi::streamTurn(handle, "hi").status);
  EXPECT_EQ(2 * (1 + kFramingTokens + 2), statsOf(handle).contextTokens);
}

TEST_F(Chat, AFirstTurnThatIsNotFedWholeOpensNoConversation) {
  for (const auto turn :
       {+[](const Handle&handle, const char*text) { return testing_abi::chatTurn(handle, text); },
        +[](const Handle&handle, const char*text) {
          return testing_abi::streamTurn(handle, text);
        }}) {
    const Handle handle = open(withUnfeedableToken());
    EXPECT_EQ(1u, turn(handle, kUnfeedable).status);
    EXPECT_EQ(1 + 4 + 1, statsOf(handle).contextTokens) << "what was fed stays";
    EXPECT_EQ(0u, turn(handle, "hi").status);
    EXPECT_EQ(kFramingTokens + 2, statsOf(handle).contextTokens) << "and goes with the next turn";
    EXPECT_EQ(1u, turn(handle, kUnfeedable).status);
    EXPECT_EQ(0u, turn(handle, "hi").status);
    EXPECT_EQ(2 * (kFramingTokens + 2) + 1 + 4 + 1, statsOf(handle).contextTokens)
        << "a conversation that was open stays so";
  }
}

// Position 0 alone does not show that the conversation is over: a turn that fails does.
TEST_F(Chat, ResetEndsTheConversation) {
  const Handle handle = open(withUnfeedableToken());
  EXPECT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  EXPECT_EQ(0u, testing_abi::resetOf(handle));
  EXPECT_EQ(1u, testing_abi::chatTurn(handle, kUnfeedable).status);
  EXPECT_EQ(0u, testing_abi::chatTurn(handle, "hi").status);
  EXPECT_EQ(kFramingTokens + 2, statsOf(handle).contextTokens);
}

TEST_F(Chat, AReplyThatFailsLeavesTheConversationOpen) {
  const Handle buffered = open(failingBehindItsFirstPiece());
  const Handle streamed = open(failingBehindItsFirstPiece());
  for (const uint64_t turns : {1u, 2u, 3u}) {
    const Reply text = testing_abi::chatTurn(buffered, "hi");
    EXPECT_EQ(1u, text.status);
    EXPECT_EQ("", text.text);
    EXPECT_EQ(turns * (kFramingTokens + 2 + 1), statsOf(buffered).contextTokens);
    const Reply pieces = testing_abi::streamTurn(streamed, "hi");
    EXPECT_EQ(1u, pieces.status);
    EXPECT_EQ("b", pieces.text);
    EXPECT_EQ(turns * (kFramingTokens + 2 + 1), statsOf(streamed).contextTokens);
  }
}

// A new conversation whose first token cannot be fed: its times are those of no pass.
TEST_F(Chat, ANewConversationStartsItsTimeAndKeepsTheLastPass) {
  const Handle handle = open({.editTables = [](kel::TokenizerData& tables) {
    tables.tokens[static_cast<size_t>(kel::test::chatId("<|im_start|>"))] = "<|other|>";
    tables.tokens.emplace_back("<|im_start|>");
    tables.tokenTypes.push_back(3);
  }});
  for (const bool streams : {false, true}) {
    ASSERT_EQ(0u, testing_abi::generate(handle, "x").status);
    const ZYMRuntimeStats before = statsOf(handle);
    EXPECT_GT(before.decodeMsTotal, before.lastDecodeMs);
    const Reply turn =
        streams ? testing_abi::streamTurn(handle, "hi") : testing_abi::chatTurn(handle, "hi");
    EXPECT_EQ(1u, turn.status);
    EXPECT_EQ(0u, statsOf(handle).contextTokens);
    EXPECT_EQ(0.0, statsOf(handle).decodeMsTotal);
    EXPECT_EQ(before.lastDecodeMs, statsOf(handle).lastDecodeMs);
  }
}

TEST_F(Chat, AReplyHasAtMost96PiecesAndItsLastTokenIsNotFed) {
  const Handle handle = open();
  const Reply buffered = testing_abi::chatTurn(handle, "hi");
  EXPECT_EQ(std::string(96, 'a'), buffered.text);
  EXPECT_EQ(kFramingTokens + 2 + 95, statsOf(handle).contextTokens);
  testing_abi::resetOf(handle);
  const Reply streamed = testing_abi::streamTurn(handle, "hi");
  EXPECT_EQ(96u, streamed.pieces.size());
  EXPECT_EQ(buffered, streamed);
  EXPECT_EQ(kFramingTokens + 2 + 95, statsOf(handle).contextTokens);
}

TEST_F(Chat, EndOfTurnAndEndOfSequenceStopUnfed) {
  for (const char* stop : {"<|im_end|>", "<|eos|>"}) {
    const Handle handle = open({.favourite = stop});
    const Reply buffered = testing_abi::chatTurn(handle, "hi");
    EXPECT_EQ(0u, buffered.status);
    EXPECT_EQ("", buffered.text);
    EXPECT_EQ(kFramingTokens + 2, statsOf(handle).contextTokens);
    const Reply streamed = testing_abi::streamTurn(handle, "hi");
    EXPECT_EQ(0u, streamed.status);
    EXPECT_TRUE(streamed.pieces.empty());
  }
}

// The turn's text is the framing byte for byte: a one-shot prompt of the same bytes continues
// alike.
TEST_F(Chat, FramesTheTextAsChatMl) {
  const std::string path = folder.file("random.zym");
  kel::test::writeRandomChatModel(path, kel::QuantType::BF16);
  const Handle handle = testing_abi::createHandle(path);
  const Reply turn = testing_abi::chatTurn(handle, "what\nnow");
  const uint64_t position = statsOf(handle).contextTokens;
  const Reply prompt = testing_abi::generate(
      handle, "<|im_start|>user\nwhat\nnow<|im_end|>\n<|im_start|>assistant\n");
  EXPECT_EQ(turn, prompt);
  EXPECT_EQ(position, statsOf(handle).contextTokens);
}

TEST_F(Chat, BufferedAndStreamedTurnsAgreeTurnByTurn) {
  for (const kel::QuantType matrices : {kel::QuantType::BF16, kel::QuantType::Q8_0}) {
    if (kel::test::kInstrumented && matrices == kel::QuantType::Q8_0) {
      continue;  // other tests have that type
    }
    const std::string path = folder.file("random.zym");
    kel::test::writeRandomChatModel(path, matrices);
    const Handle buffered = testing_abi::createHandle(path);
    const Handle streamed = testing_abi::createHandle(path);
    const ZYMSessionOptions hot = testing_abi::sampling(2.0f, 40, 1.0f, 5);
    ASSERT_EQ(0u, table().configure(buffered.get(), &hot));
    ASSERT_EQ(0u, table().configure(streamed.get(), &hot));
    for (const char* text : {"hello", "and", ""}) {
      EXPECT_EQ(testing_abi::chatTurn(buffered, text), testing_abi::streamTurn(streamed, text));
      EXPECT_EQ(statsOf(buffered).contextTokens, statsOf(streamed).contextTokens);
    }
  }
}

TEST_F(Chat, NullTextIsTheEmptyText) {
  const Handle handle = open({.favourite = "<|im_end|>"});
  EXPECT_EQ(0u, testing_abi::chatTurn(handle, nullptr).status);
  EXPECT_EQ(kFramingTokens, statsOf(handle).contextTokens);
  EXPECT_EQ(0u, testing_abi::streamTurn(handle, nullptr).status);
  EXPECT_EQ(2 * kFramingTokens, statsOf(handle).contextTokens);
}

TEST_F(Chat, AFiveByteBufferReturnsTheFirstFourBytes) {
  const Handle handle = open();
  char out[6];
  std::memset(out, '#', sizeof out);
  EXPECT_EQ(0u, table().chatTurn(handle.get(), "hi", out, 5));
  EXPECT_STREQ("aaaa", out);
  EXPECT_EQ('#', out[5]);
}

TEST_F(Chat, InvalidArgumentsAreTwo) {
  const Handle handle = open();
  char out[4] = "abc";
  EXPECT_EQ(2u, table().chatTurn(nullptr, "hi", out, sizeof out));
  EXPECT_EQ(2u, table().chatTurn(handle.get(), "hi", nullptr, 4));
  EXPECT_EQ(2u, table().chatTurn(handle.get(), "hi", out, 0));
  EXPECT_STREQ("abc", out);
  const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
  EXPECT_EQ(2u, stream(nullptr, "hi", testing_abi::collectPiece, nullptr, nullptr));
  EXPECT_EQ(0u, statsOf(handle).contextTokens);
}

TEST_F(Chat, ANullCallbackStillAdvancesTheConversation) {
  const Handle handle = open();
  const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
  EXPECT_EQ(0u, stream(handle.get(), "hi", nullptr, nullptr, nullptr));
  EXPECT_EQ(kFramingTokens + 2 + 95, statsOf(handle).contextTokens);
}

TEST_F(Chat, ACancelFlagSetBeforeTheCallFeedsThePromptAndDeliversNothing) {
  const Handle handle = open();
  volatile int cancel = 1;
  const Reply reply = testing_abi::streamTurn(handle, "hi", &cancel);
  EXPECT_EQ(0u, reply.status);
  EXPECT_TRUE(reply.pieces.empty());
  EXPECT_EQ(kFramingTokens + 2, statsOf(handle).contextTokens);
  EXPECT_EQ(1, cancel) << "the library only reads the flag";
  // The conversation is open: the next turn continues behind the prompt.
  cancel = -7;
  testing_abi::streamTurn(handle, "hi", &cancel);
  EXPECT_EQ(2 * (kFramingTokens + 2), statsOf(handle).contextTokens);
}

struct CancelAfter {
  int pieces;
  volatile int flag = 0;
  int delivered = 0;
};

void cancelFromCallback(const char*, uint32_t, void* userData) {
  auto& state = *static_cast<CancelAfter*>(userData);
  if (++state.delivered == state.pieces) {
    state.flag = 1;
  }
}

TEST_F(Chat, CancellingInsideTheCallbackStopsAfterThatPiece) {
  const Handle handle = open();
  for (const int pieces : {1, 5, 96}) {
    testing_abi::resetOf(handle);
    CancelAfter state{.pieces = pieces};
    const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
    EXPECT_EQ(0u, stream(handle.get(), "hi", cancelFromCallback, &state, &state.flag));
    EXPECT_EQ(pieces, state.delivered);
    EXPECT_EQ(kFramingTokens + 2 + static_cast<uint64_t>(pieces) - 1, statsOf(handle).contextTokens)
        << "the last piece's token is not fed";
  }
}

struct WaitForCancel {
  std::atomic<int> delivered{0};
  std::atomic<bool> flagSet{false};
};

void waitInThirdPiece(const char*, uint32_t, void* userData) {
  auto& state = *static_cast<WaitForCancel*>(userData);
  if (++state.delivered == 3) {
    while (!state.flagSet) {
      std::this_thread::yield();
    }
  }
}

TEST_F(Chat, CancellingFromAnotherThreadStopsAfterThePieceInFlight) {
  const Handle handle = open();
  WaitForCancel state;
  volatile int cancel = 0;
  std::thread other([&] {
    while (state.delivered < 3) {
      std::this_thread::yield();
    }
    cancel = 1;
    state.flagSet = true;
  });
  const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
  EXPECT_EQ(0u, stream(handle.get(), "hi", waitInThirdPiece, &state, &cancel));
  other.join();
  EXPECT_EQ(3, state.delivered);
  const uint64_t position = statsOf(handle).contextTokens;
  cancel = 1;
  EXPECT_EQ(0u, stream(handle.get(), "", nullptr, nullptr, &cancel));
  EXPECT_EQ(position + kFramingTokens, statsOf(handle).contextTokens);
}

void countPiece(const char*, uint32_t, void* userData) {
  ++*static_cast<std::atomic<int>*>(userData);
}

// Nobody waits for anybody: the flag is read while it is written.
TEST_F(Chat, AThreadMayCancelAtAnyMoment) {
  const Handle handle = open();
  std::atomic<int> delivered{0};
  volatile int cancel = 0;
  std::thread other([&] {
    while (delivered < 3) {
      std::this_thread::yield();
    }
    __atomic_store_n(&cancel, 1, __ATOMIC_RELAXED);
  });
  const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
  EXPECT_EQ(0u, stream(handle.get(), "hi", countPiece, &delivered, &cancel));
  other.join();
  EXPECT_GE(delivered, 3);
  EXPECT_EQ(kFramingTokens + 2 + static_cast<uint64_t>(delivered) - 1,
            statsOf(handle).contextTokens)
      << "the last piece's token is not fed";
}

TEST_F(Chat, NonFiniteLogitsWhileGeneratingFailButDeliveredPiecesStand) {
  const Handle handle = open(explodingModel());
  const Reply streamed = testing_abi::streamTurn(handle, "hi");
  EXPECT_EQ(1u, streamed.status);
  EXPECT_GT(streamed.pieces.size(), 0u);
  EXPECT_LT(streamed.pieces.size(), 96u);
  EXPECT_EQ(kFramingTokens + 2 + streamed.pieces.size(), statsOf(handle).contextTokens)
      << "the pass that failed is counted, the conversation stays open";

  testing_abi::resetOf(handle);
  const Reply buffered = testing_abi::chatTurn(handle, "hi");
  EXPECT_EQ(1u, buffered.status);
  EXPECT_EQ("", buffered.text);
  EXPECT_EQ(kFramingTokens + 2 + streamed.pieces.size(), statsOf(handle).contextTokens);
}

TEST_F(Chat, CallsAfterAFailedCallWorkAgainAfterReset) {
  const Handle handle = open(explodingModel());
  const Reply first = testing_abi::streamTurn(handle, "hi");
  ASSERT_EQ(1u, first.status);
  EXPECT_EQ(1u, testing_abi::chatTurn(handle, "hi").status) << "the state is still not finite";
  EXPECT_EQ(0u, testing_abi::resetOf(handle));
  const Reply again = testing_abi::streamTurn(handle, "hi");
  EXPECT_EQ(first.pieces, again.pieces);
}

TEST_F(Chat, ATokenThatDoesNotDecodeEndsTheTurn) {
  // The matrix has more rows than the vocabulary has tokens, and the favourite is such a row.
  const Handle handle = open(
      {.editTables =
           [](kel::TokenizerData& tables) {
             tables.tokens.resize(299);
             tables.tokenTypes.resize(299);
           },
       .editTensors =
           [](std::vector<TensorPlan>& plan) { kel::test::fillEmbeddingRow(plan, 299, 30.0f); }});
  const Reply reply = testing_abi::streamTurn(handle, "hi");
  EXPECT_EQ(0u, reply.status);
  EXPECT_TRUE(reply.pieces.empty());
  EXPECT_EQ("", testing_abi::chatTurn(handle, "hi").text);
}

TEST_F(Chat, ANulInAPieceEndsTheBufferedTextAndIsStreamedWhole) {
  const Handle handle = open({.editTables = [](kel::TokenizerData& tables) {
    tables.tokens[static_cast<size_t>(kel::test::chatId("a"))] = std::string("x\0y", 3);
  }});
  EXPECT_EQ("x", testing_abi::chatTurn(handle, "hi").text);
  testing_abi::resetOf(handle);
  const Reply streamed = testing_abi::streamTurn(handle, "hi");
  ASSERT_EQ(96u, streamed.pieces.size());
  EXPECT_EQ(std::string("x\0y", 3), streamed.pieces[0]);
}

TEST_F(Chat, AnEmptyPieceIsDeliveredLikeAnyOther) {
  const Handle handle = open({.editTables = [](kel::TokenizerData& tables) {
    tables.tokens[static_cast<size_t>(kel::test::chatId("a"))] = "";
  }});
  const Reply streamed = testing_abi::streamTurn(handle, "hi");
  EXPECT_EQ(0u, streamed.status);
  EXPECT_EQ(std::vector<std::string>(96), streamed.pieces);
  EXPECT_EQ(Reply({0u, ""}), testing_abi::chatTurn(handle, "hi"));
}

struct CallerSeen {
  std::thread::id caller;
  uint64_t positionAtPiece = 0;
  ZYMRuntimeHandle* handle;
};

void seeCaller(const char*, uint32_t, void* userData) {
  auto& seen = *static_cast<CallerSeen*>(userData);
  seen.caller = std::this_thread::get_id();
  ZYMRuntimeStats stats{};
  table().stats(seen.handle, &stats);
  seen.positionAtPiece = stats.contextTokens;
}

TEST_F(Chat, PiecesComeOnTheCallersThreadBeforeTheirTokenIsFed) {
  const Handle handle = open();
  CallerSeen seen{.caller = {}, .handle = handle.get()};
  const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
  EXPECT_EQ(0u, stream(handle.get(), "hi", seeCaller, &seen, nullptr));
  EXPECT_EQ(std::this_thread::get_id(), seen.caller);
  EXPECT_EQ(kFramingTokens + 2 + 95, seen.positionAtPiece);
}

// The limit of a collected text does not hold for one that nobody collects.
TEST_F(Chat, AStreamedReplyMayExceedAGigabyte) {
  if (kel::test::kInstrumented) {
    GTEST_SKIP() << "takes long over pieces of this size";
  }
  constexpr size_t kPieceBytes = size_t{1} << 27;
  const Handle handle = open({.editTables = [](kel::TokenizerData& tables) {
    const auto favourite = static_cast<size_t>(kel::test::chatId("a"));
    tables.tokens[favourite] = std::string(kPieceBytes, 'a');
    tables.tokenTypes[favourite] = 3;  // a special token, which is decoded as it stands
  }});
  CancelAfter state{.pieces = 10};
  const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
  EXPECT_EQ(0u, stream(handle.get(), "hi", cancelFromCallback, &state, &state.flag));
  EXPECT_EQ(10, state.delivered);
}

TEST_F(Chat, AVocabularyWithoutTheEndMarkerStopsAtTheEndOfSequenceAlone) {
  const Handle handle = open({.editTables = [](kel::TokenizerData& tables) {
    tables.tokens[static_cast<size_t>(kel::test::chatId("<|im_end|>"))] = "<|other|>";
  }});
  EXPECT_EQ(96u, testing_abi::streamTurn(handle, "hi").pieces.size());
}

TEST_F(Chat, TwoHandlesOnTwoThreadsKeepTheirOwnConversations) {
  const std::string path = folder.file("random.zym");
  kel::test::writeRandomChatModel(path, kel::QuantType::Q8_0, 32);
  const Handle alone = testing_abi::createHandle(path);
  const Reply expected = testing_abi::chatTurn(alone, "hello");
  Reply replies[2];
  {
    std::thread threads[2];
    for (int i = 0; i < 2; ++i) {
      threads[i] = std::thread([&path, &reply = replies[i]] {
        const Handle handle = testing_abi::createHandle(path);
        reply = testing_abi::chatTurn(handle, "hello");
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
  EXPECT_EQ(expected, replies[0]);
  EXPECT_EQ(expected, replies[1]);
}

}  // namespace
