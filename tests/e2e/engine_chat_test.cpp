// zym chat and run over the program's own engine, with a small random model: what is said is
// without meaning, but the same every time.
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tests/e2e/terminal_fixture.h"
#include "tests/support/chat_model.h"
#include "tests/support/family_shapes.h"
#include "tests/support/file_contents.h"
#include "tests/support/json_text.h"
#include "tests/support/patterns.h"
#include "tests/support/random_model.h"
#include "tests/support/scoped_env.h"

namespace zym {
namespace {

using Json = nlohmann::json;
using kel::test::contentsOf;
using kel::test::matches;
using kel::test::matchesIn;
using kel::test::parseJson;
using testing_support::Outcome;
using Words = std::vector<std::string>;

// The beginning of the assistant's turn: a mark and "assistant\n", a token for every letter.
constexpr int kGenerationPrompt = 11;
// A user's message of three letters with its marks.
constexpr int kMessage = 11;

// Bans the tokens that end a turn or a text: a reply is as long as it may be.
const Words kEndless = {"--logit-bias", "97=-inf", "--logit-bias", "98=-inf"};

class EngineChatTest : public testing_support::TerminalTest {
 protected:
  void SetUp() override {
    testing_support::TerminalTest::SetUp();
    unsetenv("ZYM_PLUGIN");
    setenv("OMP_NUM_THREADS", "1", 1);
    writeModel(model, {});
  }

  static kel::test::RandomModelSpec smallModel() {
    kel::test::RandomModelSpec spec = {
        .vocab = 110, .shape = kel::test::oddShape(), .statesShape = true};
    spec.shape.contextLength = 100000;
    spec.tokenizer = kel::test::chatTables(spec.vocab);
    return spec;
  }
  static void writeModel(const std::string& path,
                         const std::function<void(kel::test::RandomModelSpec&)>& edit) {
    kel::test::RandomModelSpec spec = smallModel();
    if (edit) {
      edit(spec);
    }
    if (const kel::Status status = kel::test::writeRandomModel(path, spec); !status.ok()) {
      throw std::runtime_error(status.message);
    }
  }
  static void think(kel::test::RandomModelSpec& spec) {
    for (const auto& [id, mark] : {std::pair{100, "<think>"}, {101, "</think>"}}) {
      spec.tokenizer.tokens.at(static_cast<size_t>(id)) = mark;
      spec.tokenizer.tokenTypes.at(static_cast<size_t>(id)) = 3;
    }
  }

  Words chatWords(const Words& options = {}) const {
    Words words = {"chat", model, "--greedy", "--max-tokens", "6"};
    words.insert(words.end(), kEndless.begin(), kEndless.end());
    words.insert(words.end(), options.begin(), options.end());
    return words;
  }
  Outcome chat(const std::string& input, const Words& options = {}) const {
    return zym(chatWords(options), input);
  }
  Outcome run(Words options) const {
    options.insert(options.begin(), kEndless.begin(), kEndless.end());
    options.insert(options.begin(), {"run", model});
    return zym(options);
  }
  Json runJson(Words options) const {
    options.push_back("--json");
    const Outcome outcome = run(options);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return parseJson(outcome.out);
  }

  // What the lines of --stats count.
  struct Use {
    int read = -1;
    int reused = -1;
    int reply = -1;
  };
  static std::vector<Use> usesIn(const std::string& text) {
    std::vector<Use> uses;
    for (const auto& match :
         matchesIn(text, R"(\(read (\d+) tokens, [0-9.]+/s; reused (\d+); reply (\d+) tokens)")) {
      uses.push_back({std::stoi(match[1]), std::stoi(match[2]), std::stoi(match[3])});
    }
    return uses;
  }

  // Whether the program comes to handle Ctrl-C by itself.
  bool catchesCtrlC() {
    const std::string status = "/proc/" + std::to_string(child) + "/status";
    for (int i = 0; i < 1000; ++i) {
      const std::string text = contentsOf(status);
      const size_t at = text.find("SigCgt:\t");
      if (at != std::string::npos &&
          (std::stoull(text.substr(at + 8, 16), nullptr, 16) & (1ULL << (SIGINT - 1))) != 0) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  std::string session = folder / "talk.zyms";
};

TEST_F(EngineChatTest, ARetryReadsTheGenerationPromptAlone) {
  const Outcome outcome = chat("abc\n/retry\n", {"--stats"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const std::vector<Use> uses = usesIn(outcome.err);
  ASSERT_EQ(uses.size(), 2U) << outcome.err;
  EXPECT_EQ(uses[1].read, kGenerationPrompt);
  EXPECT_EQ(uses[1].reused, uses[0].read - kGenerationPrompt);
  const size_t half = outcome.out.size() / 2;
  EXPECT_EQ(outcome.out.substr(0, half), outcome.out.substr(half));
  EXPECT_NE(outcome.err.find("(at temperature 0 the reply stays the same"), std::string::npos);
}

TEST_F(EngineChatTest, AnEditTakesThePlaceOfTheLastMessage) {
  const Outcome edited = chat("first\nabc\n/edit xyz\n/context\n");
  EXPECT_NE(edited.err.find("messages   4\n"), std::string::npos) << edited.err;
  const std::string straight = chat("first\nxyz\n").out;
  const std::string last = straight.substr(chat("first\n").out.size());
  EXPECT_TRUE(edited.out.ends_with(last)) << edited.out;
  EXPECT_EQ(chat("abc\n/edit\n").err,
            "(cut at 6 tokens; say \"go on\" for more)\nLines are not edited here; /edit TEXT puts "
            "TEXT in the place of the last message.\n");
  EXPECT_EQ(chat("/edit\n/retry\n").err,
            "Nothing has been said yet.\nNothing has been said yet.\n");
}

TEST_F(EngineChatTest, ASystemMessageHoldsForTheConversation) {
  const Outcome outcome =
      chat("/system\nabc\n/system Be brief.\n/system\ndef\n/reset\n/system\n/system -\n/system\n",
           {"--stats"});
  const std::string cutReply = R"(\(cut.*\)\n\(read.*\)\n)";
  EXPECT_TRUE(matches(outcome.err, R"(There is no system message\.\n)" + cutReply +
                                       R"(\(the next message has the conversation read again\)\n)"
                                       R"(Be brief\.\n)" +
                                       cutReply +
                                       R"(The conversation is forgotten\.\nBe brief\.\n)"
                                       R"(There is no system message\.\n)"))
      << outcome.err;
  EXPECT_LE(usesIn(outcome.err).at(1).reused, 1) << "the first mark at most";
}

TEST_F(EngineChatTest, ThinkingIsSwitched) {
  EXPECT_EQ(chat("/think\n/think on\n").err,
            "Replies come without reasoning.\n"
            "this model was made without reasoning; it answers at once\n");
  writeModel(model, think);
  const Outcome outcome = chat("abc\n/think on\nabc\n/think off\n");
  EXPECT_NE(outcome.err.find("Replies begin with reasoning.\n(cut at 6 tokens"), std::string::npos)
      << outcome.err;
  EXPECT_TRUE(outcome.out.ends_with("\n\n")) << "all of the second reply is reasoning";
  EXPECT_NE(
      runJson({"--chat", "--think", "--greedy", "--max-tokens", "6", "-p", "abc"})["reasoning"],
      nullptr);
}

TEST_F(EngineChatTest, ConversationsAreSavedAndLoaded) {
  const std::string straight = chat("abc\ndef\n").out;
  const Outcome saved = chat("abc\n/save " + session + "\n");
  EXPECT_EQ(saved.status, 0);
  EXPECT_NE(saved.err.find("Saved to " + session + ".\n"), std::string::npos);
  const Outcome loaded = chat("/load " + session + "\ndef\n", {"--stats"});
  EXPECT_EQ(loaded.status, 0);
  EXPECT_NE(loaded.err.find("2 messages from " + session + ".\n"), std::string::npos) << loaded.err;
  EXPECT_TRUE(straight.ends_with(loaded.out)) << straight << loaded.out;
  EXPECT_GE(usesIn(loaded.err).at(0).reused, kMessage);
  const kel::test::ScopedEnv home("HOME", folder.c_str());
  EXPECT_EQ(chat("/load ~/talk.zyms\n").status, 0);
  const Outcome missing = chat("/load none.zyms\n");
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "none.zyms: No such file or directory\n");
}

TEST_F(EngineChatTest, ASessionGoesOnWhereItEnded) {
  const std::string straight = chat("abc\ndef\n").out;
  const std::string first = chat("abc\n", {"--session", session}).out;
  const Outcome second = chat("def\n", {"--session", session, "--stats"});
  EXPECT_EQ(second.err.rfind("(2 messages from " + session + ")\n", 0), 0U) << second.err;
  EXPECT_EQ(first + second.out, straight);
  EXPECT_GE(usesIn(second.err).at(0).reused, kMessage);
  const Outcome third =
      chat("/system\n/context\n", {"--session", session, "--system", "Be brief."});
  EXPECT_NE(third.err.find("Be brief.\n"), std::string::npos) << third.err;
  EXPECT_NE(third.err.find("messages   5\n"), std::string::npos) << third.err;
}

TEST_F(EngineChatTest, ASessionThatCannotBeTakenUpIsLeftAlone) {
  chat("abc\n", {"--session", session});
  const std::string whole = contentsOf(session);
  const auto refusal = [&](const std::string& bytes, const Words& options = {}) {
    std::ofstream(session, std::ios::binary) << bytes;
    Words words = {"--session", session};
    words.insert(words.end(), options.begin(), options.end());
    const Outcome outcome = chat("def\n", words);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(contentsOf(session), bytes) << outcome.err;
    return outcome.err;
  };
  const std::string line = "zym: " + session + ": ";
  std::string damaged = whole;
  damaged[damaged.size() / 2] ^= 1;
  EXPECT_EQ(refusal(damaged), line + "the session file is damaged\n");
  EXPECT_EQ(refusal(whole.substr(0, whole.size() - 1)), line + "the session file was cut short\n");
  EXPECT_EQ(refusal("Dear diary"), line + "is no session file\n");
  EXPECT_EQ(refusal(""), line + "is no session file\n");
  EXPECT_EQ(refusal(whole, {"--cache", "bf16"}), line + "the session has caches of another type\n");
  EXPECT_EQ(refusal(whole, {"--context", "10"}),
            line + "the session has 11 tokens, the context room for 10\n");
  writeModel(model, [](auto& spec) { spec.hidden = 16; });
  EXPECT_EQ(refusal(whole), line + "the session is of another model\n");
  EXPECT_EQ(chat("abc\n", {"--session", "/no/such/folder/talk"}).err,
            "zym: /no/such/folder/talk: cannot be made: No such file or directory\n");
}

TEST_F(EngineChatTest, ContextShowsWhatTheConversationTakes) {
  const Outcome outcome = zym({"chat", model, "--max-tokens", "6", "--seed", "7", "--no-think"},
                              "abc\n/retry\n/context\n");
  const std::string shown = outcome.err.substr(outcome.err.find("positions"));
  EXPECT_TRUE(matches(shown,
                      "positions  \\d+ of 32768\nmessages   2\nread       \\d+ tokens of prompts\n"
                      "reused     [1-9]\\d* tokens of prompts\nsnapshots  \\d+, [0-9.]+ [kM]?B\n"
                      "prompts    [0-9.]+ tokens/s\nreplies    [0-9.]+ tokens/s\nseed       7\n"))
      << shown;
}

TEST_F(EngineChatTest, SettingsAreAsRecommendedUnlessGiven) {
  const std::string settings = zym({"chat", model, "--seed", "9", "--top-k", "5"}, "/set\n").err;
  EXPECT_EQ(settings,
            "temperature         0.7\n"
            "top-k               5\n"
            "top-p               0.8\n"
            "min-p               off\n"
            "presence-penalty    1.5\n"
            "frequency-penalty   off\n"
            "repetition-penalty  off\n"
            "repetition-window   all tokens\n"
            "seed                9\n");
  const std::string greedy = chat("/set logit-bias 3=-5\n/set\n").err;
  EXPECT_NE(greedy.find("temperature         0 (greedy)\n"), std::string::npos) << greedy;
  EXPECT_NE(greedy.find("presence-penalty    off\n"), std::string::npos) << greedy;
  EXPECT_NE(greedy.find("logit-bias          3=-5\n"), std::string::npos) << greedy;
}

TEST_F(EngineChatTest, JsonTellsWhatAReplyTookAndHowItEnded) {
  const Json greedy = runJson({"--chat", "--greedy", "--max-tokens", "6", "-p", "abc"});
  EXPECT_EQ(greedy["end"], "limit");
  EXPECT_EQ(greedy["usage"]["replyTokens"], 6);
  EXPECT_EQ(greedy["usage"]["promptTokens"], 22);  // "user\nabc" with marks, and the beginning
  EXPECT_EQ(greedy["usage"]["reusedTokens"], 0);
  EXPECT_GT(greedy["usage"]["seconds"].get<double>(), 0);
  EXPECT_FALSE(greedy.contains("seed")) << "nothing is drawn";
  const std::string reply = greedy["reply"];
  const Json stopped = runJson({"--chat", "--greedy", "--max-tokens", "6", "--stop", "none",
                                "--stop", reply.substr(2, 1), "-p", "abc"});
  EXPECT_EQ(stopped["end"], "stop-string");
  EXPECT_EQ(stopped["stopString"], reply.substr(2, 1));
  EXPECT_EQ(stopped["reply"], reply.substr(0, reply.find(reply.substr(2, 1))));
  const Outcome full = run({"--greedy", "--context", "12", "-p", "abc", "--json"});
  EXPECT_EQ(full.status, 1);
  EXPECT_EQ(parseJson(full.out)["end"], "context-full");
}

TEST_F(EngineChatTest, TheSeedThatIsShownGivesTheReplyAgain) {
  const Words words = {"--temperature", "50", "--max-tokens", "12", "-p", "abc"};
  const Json one = runJson(words);
  Words again = words;
  again.insert(again.end(), {"--seed", one["seed"].dump()});
  EXPECT_EQ(runJson(again)["reply"], one["reply"]);
  again.back() = "random";
  EXPECT_NE(runJson(again)["reply"], one["reply"]);
}

TEST_F(EngineChatTest, ValuesThatCannotBeAreWrongUse) {
  const auto fault = [&](const Words& options) {
    Words words = {"run", model, "-p", "a"};
    words.insert(words.end(), options.begin(), options.end());
    const Outcome outcome = zym(words);
    EXPECT_EQ(outcome.status, 2);
    return outcome.err;
  };
  const std::string help = "; see zym run --help\n";
  EXPECT_EQ(fault({"--cache", "q8"}), "zym: --cache is one of f32|bf16, not \"q8\"" + help);
  EXPECT_EQ(fault({"--stop", ""}), "zym: --stop: an empty text ends nothing" + help);
  EXPECT_EQ(fault({"--greedy", "--temperature", "1"}),
            "zym: --temperature excludes --greedy" + help);
  EXPECT_EQ(fault({"--chat", "--think", "--no-think"}), "zym: --think excludes --no-think" + help);
  EXPECT_EQ(fault({"--system", "Be brief."}), "zym: --system requires --chat" + help);
  EXPECT_EQ(fault({"--context", "0"}),
            "zym: --context: Value 0 not in range 1 to 2147483648" + help);
  EXPECT_EQ(zym({"run", model, "-p", "a", "--context", "100001"}).err,
            "zym: " + model +
                ": --context 100001 is more than the model has room for; 1 to 100000 can be\n");
  EXPECT_EQ(zym({"run", model, "-p", "a", "--logit-bias", "110=1"}).err,
            "zym: sampler: logit bias for token 110, but the ids go from 0 to 109\n");
}

TEST_F(EngineChatTest, ATemplateOfAnotherKindIsRemarkedOnOnce) {
  writeModel(model, [](auto& spec) { spec.chatTemplate = "[INST] {{ text }} [/INST]"; });
  const std::string remark = "(unknown template: the family's own format is used)\n";
  const std::string err = chat("abc\ndef\n").err;
  EXPECT_EQ(err.find(remark), 0U) << err;
  EXPECT_EQ(err.rfind(remark), 0U) << err;
  EXPECT_EQ(zym({"run", model, "--greedy", "--max-tokens", "2", "-p", "a"}).err,
            "(the reply was cut at 2 tokens)\n");
}

TEST_F(EngineChatTest, CtrlCEndsARunWithWhatThereIs) {
  Words words = {"run", model, "--json", "--greedy", "-p", "abc"};
  words.insert(words.end(), kEndless.begin(), kEndless.end());
  startCommand(words);
  ASSERT_TRUE(catchesCtrlC());
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the reply begins at once
  type("\x03");
  ASSERT_TRUE(waitFor("\"end\":\"cancelled\""));
  EXPECT_EQ(waitForExit(), 130);
}

TEST_F(EngineChatTest, TheLastMessageComesBackIntoTheLine) {
  resize(40, 12);
  startCommand(chatWords());
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[200~/first line\rsecond\x1b[201~\r");
  ASSERT_TRUE(waitFor("(cut at 6 tokens"));
  ASSERT_TRUE(waitFor("> "));
  type("/edit\r");
  ASSERT_TRUE(waitFor("/first line"));
  ASSERT_TRUE(waitFor("second"));
  type("\x03");
  ASSERT_TRUE(waitFor("(the message stays as it was)"));
  ASSERT_TRUE(waitFor("> "));
  type("/edit\r");
  ASSERT_TRUE(waitFor("second"));
  type("\x7F\x7F\x7F\x7F\x7F\x7Fthird\r");
  ASSERT_TRUE(waitFor("(cut at 6 tokens"));
  ASSERT_TRUE(waitFor("> "));
  type("/save " + session + "\r");
  ASSERT_TRUE(waitFor("Saved to"));
  const std::string bytes = contentsOf(session);
  EXPECT_NE(bytes.find(R"({"role":"user","content":"/first line\nthird"})"), std::string::npos);
  EXPECT_EQ(bytes.find("second"), std::string::npos);
}

TEST_F(EngineChatTest, AMessageThatLooksLikeACommandComesBackAsAMessage) {
  startCommand(chatWords());
  ASSERT_TRUE(waitFor("> "));
  type("//etc\r");
  ASSERT_TRUE(waitFor("(cut at 6 tokens"));
  ASSERT_TRUE(waitFor("> "));
  type("/edit\r");
  ASSERT_TRUE(waitFor("//etc"));
  type("/x\r");
  ASSERT_TRUE(waitFor("(cut at 6 tokens"));
  ASSERT_TRUE(waitFor("> "));
  type("/save " + session + "\r");
  ASSERT_TRUE(waitFor("Saved to"));
  EXPECT_NE(contentsOf(session).find(R"("content":"/etc/x")"), std::string::npos);
}

TEST_F(EngineChatTest, RemarksFitANarrowTerminal) {
  resize(40, 60);
  startCommand(chatWords({"--stats"}));
  ASSERT_TRUE(waitFor("> "));
  showOnlyThePrompt();
  type("/help\r");
  ASSERT_TRUE(waitFor("which Enter sends."));
  EXPECT_NE(view.text().find("\n/save FILE\n  the conversation to a file\n"), std::string::npos)
      << view.text();
  type("abc\r");
  ASSERT_TRUE(waitFor("(read "));
  ASSERT_TRUE(waitFor("positions)"));
  ASSERT_TRUE(waitFor("> "));
  EXPECT_NE(view.text().find("\nreply 6 tokens, "), std::string::npos) << view.text();
  EXPECT_NE(view.text().find("\npositions)\n"), std::string::npos) << view.text();
}

TEST_F(EngineChatTest, ThoughtsAreDimAtATerminal) {
  unsetenv("NO_COLOR");
  writeModel(model, think);
  startCommand({"chat", model, "--greedy", "--think", "--max-tokens", "6"});
  ASSERT_TRUE(waitFor("> "));
  type("abc\r");
  ASSERT_TRUE(waitFor("\x1b[2m"));
  ASSERT_TRUE(waitFor("\x1b[0m"));
  ASSERT_TRUE(waitFor("(cut at 6 tokens"));
}

}  // namespace
}  // namespace zym
