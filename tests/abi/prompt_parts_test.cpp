// A conversation's text gives the same replies whether it comes in one turn or in several.
#include <gtest/gtest.h>

#include <string>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/instrumented.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::QuantType;
using testing_abi::Handle;
using testing_abi::Reply;

std::string message(size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i) {
    text += static_cast<char>('!' + 7 * i % 90);
  }
  return text;
}

// What a handle says to the last message, greedily, and then, drawn by chance, to one more.
struct Replies {
  Reply greedy;
  Reply drawn;
  uint64_t positions;
};

Replies repliesTo(const Handle& handle, const std::string& last) {
  constexpr size_t kPieces = 8;
  const auto configure = [&](float temperature) {
    const ZYMSessionOptions options = testing_abi::sampling(temperature, 200, 0.99f, 77);
    EXPECT_EQ(0u, testing_abi::plugin().runtimesV2(nullptr)->configure(handle.get(), &options));
  };
  Replies replies;
  configure(0);
  replies.greedy = testing_abi::firstPieces(handle, last, kPieces);
  configure(2);
  replies.drawn = testing_abi::firstPieces(handle, "x", kPieces);
  replies.positions = testing_abi::statsOf(handle).contextTokens;
  EXPECT_EQ(0u, replies.greedy.status);
  EXPECT_EQ(0u, replies.drawn.status);
  EXPECT_LT(2u, replies.greedy.pieces.size()) << "says something to compare";
  EXPECT_LT(2u, replies.drawn.pieces.size()) << "says something to compare";
  return replies;
}

void expectTheSameInTwoTurns(const Handle& handle, const std::string& first,
                             const std::string& second) {
  testing_abi::resetOf(handle);
  EXPECT_EQ(0u, testing_abi::firstPieces(handle, first, 0).status);
  const Replies inTwo = repliesTo(handle, second);
  testing_abi::resetOf(handle);
  const Replies inOne =
      repliesTo(handle, first + "<|im_end|>\n<|im_start|>assistant\n<|im_start|>user\n" + second);
  EXPECT_EQ(inOne.positions, inTwo.positions);
  EXPECT_EQ(inOne.greedy.pieces, inTwo.greedy.pieces) << first.size() << " " << second.size();
  EXPECT_EQ(inOne.drawn.pieces, inTwo.drawn.pieces) << first.size() << " " << second.size();
}

// The framing of a message takes 19 tokens and every character one. A batch holds 128: a message of
// 130 characters fills more than one, one of 110 does with the message behind it.
TEST(PromptParts, RepliesDoNotDependOnTheTurnsOfAQ80Model) {
  const kel::test::TempDir folder;
  kel::test::writeSensitiveChatModel(folder.file("m.zym"), QuantType::Q8_0);
  const Handle handle = testing_abi::createHandle(folder.file("m.zym"));
  expectTheSameInTwoTurns(handle, message(1), message(1));
  expectTheSameInTwoTurns(handle, message(110), message(2));
  if (!kel::test::kInstrumented) {
    expectTheSameInTwoTurns(handle, message(60), message(3));
    expectTheSameInTwoTurns(handle, message(5), message(130));
  }
}

TEST(PromptParts, RepliesDoNotDependOnTheTurnsOfAQ4KModel) {
  const kel::test::TempDir folder;
  kel::test::writeSensitiveChatModel(folder.file("m.zym"), QuantType::Q4_K, 256);
  const Handle handle = testing_abi::createHandle(folder.file("m.zym"));
  expectTheSameInTwoTurns(handle, message(1), message(1));
  expectTheSameInTwoTurns(handle, message(120), message(30));
  if (!kel::test::kInstrumented) {
    expectTheSameInTwoTurns(handle, message(20), message(9));
  }
}

}  // namespace
