// The rules at a full context, at the real capacity of 8192 positions.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <limits>
#include <string>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/hidden_dump.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace {

using testing_abi::Handle;
using testing_abi::Reply;
using testing_abi::statsOf;

constexpr size_t kCapacity = ZYM_CONTEXT_CAPACITY;

// One model and handle for the program: filling a context is thousands of passes.
class FullContext : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Skips the linear-attention blocks: positions are counted alike, and thousands of them pass in
    // seconds.
    setenv("QWEN35_ABLATE", "full", 1);
    kel::test::TempDir folder;
    const std::string path = folder.file("m.zym");
    kel::test::writeChatModel(path, {.layerKinds = "L"});
    handle = new Handle(testing_abi::createHandle(path));
  }
  static void TearDownTestSuite() {
    delete handle;
    handle = nullptr;
  }
  static Handle* handle;
};

Handle* FullContext::handle = nullptr;

TEST_F(FullContext, PromptThatFillsItExactlyYieldsOnePiece) {
  const Reply reply = testing_abi::generate(*handle, std::string(kCapacity, 'x').c_str());
  EXPECT_EQ(0u, reply.status);
  EXPECT_EQ("a", reply.text);
  EXPECT_EQ(kCapacity, statsOf(*handle).contextTokens);

  // A conversation behind it would find no room; a new one starts from an empty context.
  EXPECT_EQ(0u, testing_abi::chatTurn(*handle, "hi").status);
}

TEST_F(FullContext, PromptOneTokenLongerFailsWithWhatFitsFed) {
  const Reply reply = testing_abi::generate(*handle, std::string(kCapacity + 1, 'x').c_str());
  EXPECT_EQ(1u, reply.status);
  EXPECT_EQ("", reply.text);
  EXPECT_EQ(kCapacity, statsOf(*handle).contextTokens);
}

TEST_F(FullContext, ConversationFillsUpStopsMidReplyAndThenRefuses) {
  ASSERT_EQ(0u, testing_abi::resetOf(*handle));
  // Framing of 19 tokens; 8192 - 19 - 8100 leaves room for 73 fed pieces, the 74th is not fed.
  const Reply reply = testing_abi::streamTurn(*handle, std::string(8100, 'x').c_str());
  EXPECT_EQ(0u, reply.status);
  EXPECT_EQ(kCapacity - 19 - 8100 + 1, reply.pieces.size());
  EXPECT_EQ(kCapacity, statsOf(*handle).contextTokens);
  const double total = statsOf(*handle).decodeMsTotal;
  EXPECT_GT(total, 0.0);
  EXPECT_EQ(1u, testing_abi::chatTurn(*handle, "hi").status);
  EXPECT_EQ(1u, testing_abi::streamTurn(*handle, "hi").status);
  EXPECT_EQ(kCapacity, statsOf(*handle).contextTokens);
  EXPECT_EQ(total, statsOf(*handle).decodeMsTotal) << "a turn continues the conversation's time";
  EXPECT_EQ(0u, testing_abi::resetOf(*handle));
  EXPECT_EQ(0u, testing_abi::chatTurn(*handle, "hi").status);
}

// Half a context is as far as bench goes, whatever it is asked for.
TEST_F(FullContext, BenchStopsAt4096Steps) {
  const kel::test::TempDir folder;
  const std::string dump = folder.file("dump");
  const kel::test::ScopedEnv env("QWEN35_HID_DUMP", dump.c_str());
  constexpr int32_t kMost = std::numeric_limits<int32_t>::max();
  const ZYMBenchParams params = {.structSize = 12, .genTokens = kMost, .extraTokens = kMost};
  ZYMBenchResult result{};
  EXPECT_EQ(0u, testing_abi::plugin().runtimesV2(nullptr)->bench(handle->get(), &params, &result));
  EXPECT_EQ(kMost, result.genTokens);
  constexpr uint32_t kPromptTokens = 2;
  EXPECT_EQ(kPromptTokens + 4095 - 1, kel::test::readHiddenDump(dump).back().pos);
}

TEST_F(FullContext, AMegabytePromptFailsAndLosesNothing) {
  const Reply reply = testing_abi::generate(*handle, std::string(1 << 20, 'y').c_str());
  EXPECT_EQ(1u, reply.status);
  EXPECT_EQ("", reply.text);
  EXPECT_EQ(0u, testing_abi::generate(*handle, "x").status);
}

}  // namespace
