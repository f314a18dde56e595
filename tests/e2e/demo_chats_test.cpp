// The whole way: the demonstration checkpoint through zym convert, and its known replies word for
// word through zym run and zym chat. The engine and the runtime library answer all of the chats in
// tests of their own; here every eighth is asked.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/fixture.h"
#include "tests/support/demo_model.h"
#include "tests/support/instrumented.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using kel::test::DemoTurn;
using kel::test::parseJson;
using testing_support::Outcome;
using Chat = std::vector<DemoTurn>;

// Under the sanitizers a sample: each reply takes them seconds.
constexpr size_t kStride = kel::test::kInstrumented ? 128 : 8;

class DemoChatsTest : public testing_support::ProgramTest,
                      public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    testing_support::ProgramTest::SetUp();
    unsetenv("ZYM_PLUGIN");
    setenv("OMP_NUM_THREADS", "1", 1);  // the model is tiny, and tests run side by side
    const Outcome outcome = zym({"convert", ZYM_DEMO_FOLDER, demo, "--type", GetParam()});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
  }

  // Every stride-th chat of the checkpoint's list.
  static std::vector<Chat> knownChats(size_t stride) {
    const std::vector<Chat> all = kel::test::demoExpectations().chats;
    std::vector<Chat> chosen;
    for (size_t i = 0; i < all.size(); i += stride)
      chosen.push_back(all[i]);
    return chosen;
  }
  static std::string questions(const Chat& chat) {
    std::string text;
    for (const DemoTurn& turn : chat)
      text += turn.user + "\n";
    return text;
  }

  // One program per chat would create a runtime for each: chats of one turn go together.
  static void expectReplies(const std::string& model, const Chat& turns,
                            const std::vector<std::string>& options) {
    std::vector<std::string> words = {"run", model, "--chat", "--json", "--greedy"};
    words.insert(words.end(), options.begin(), options.end());
    for (const DemoTurn& turn : turns) {
      words.push_back("-p");
      words.push_back(turn.user);
    }
    const Outcome outcome = zym(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    std::istringstream lines(outcome.out);
    for (const DemoTurn& turn : turns) {
      std::string line;
      ASSERT_TRUE(std::getline(lines, line)) << "no reply to: " << turn.user;
      const auto reply = parseJson(line);
      EXPECT_EQ(reply["prompt"], turn.user);
      EXPECT_EQ(reply["reply"], turn.reply) << "to: " << turn.user;
      EXPECT_EQ(reply["end"], "stop");
    }
  }

  std::string demo = folder / "demo.zym";
};

TEST_P(DemoChatsTest, RunGivesTheKnownReplies) {
  Chat single;
  size_t chats = 0;
  for (const Chat& chat : knownChats(kStride)) {
    ++chats;
    if (chat.size() == 1) {
      single.push_back(chat.front());
    } else {
      expectReplies(demo, chat, {});
    }
  }
  expectReplies(demo, single, {"--each"});
  EXPECT_EQ(chats, (154 + kStride - 1) / kStride);
}

TEST_P(DemoChatsTest, ScriptedChatGivesTheKnownReplies) {
  std::string script;
  std::string expected;
  for (const Chat& chat : knownChats(kStride)) {
    script += questions(chat) + "/reset\n";
    for (const DemoTurn& turn : chat)
      expected += turn.reply + "\n";
  }
  const std::vector<std::vector<std::string>> calls = {{"chat", demo, "--greedy"},
                                                       {"chat", demo, "--plugin", ZYM_RUNTIME}};
  for (const std::vector<std::string>& words : calls) {
    const Outcome outcome = zym(words, script);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, expected);
  }
}

TEST_P(DemoChatsTest, RawVocabularyGivesTheSameReplies) {
  const std::string raw = folder / "raw.zym";
  ASSERT_EQ(zym({"convert", ZYM_DEMO_FOLDER, raw, "--type", GetParam(), "--vocab", "raw"}).status,
            0);
  for (const Chat& chat : knownChats(3 * kStride))
    expectReplies(raw, chat, {"--plugin", ZYM_RUNTIME});
}

INSTANTIATE_TEST_SUITE_P(Types, DemoChatsTest, testing::Values("bf16", "q8_0"),
                         [](const auto& type) { return std::string(type.param); });

}  // namespace
}  // namespace zym
