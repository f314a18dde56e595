// What the engine's backend makes of the settings, with a small random model.
#include "host/chat/engine_backend.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/chat_model.h"
#include "tests/support/family_shapes.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using Pieces = std::vector<std::string>;

constexpr uint64_t kReplyTokens = 12;

class EngineBackendTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = std::make_unique<kel::test::TempDir>();
    write("model.zym", {});
    write("thinker.zym", [](kel::TokenizerData& tables) {
      tables.tokens.at(100) = "<think>";
      tables.tokens.at(101) = "</think>";
      tables.tokenTypes.at(100) = tables.tokenTypes.at(101) = 3;
    });
    write("open.zym", {},
          "{% for message in messages %}{{ '<|im_start|>' + message['role'] + '\\n' + "
          "message['content'] }}{% if message['role'] != 'assistant' %}{{ '<|im_end|>\\n' }}{% "
          "endif %}{% endfor %}{% if add_generation_prompt %}{{ '<|im_start|>assistant\\n' }}{% "
          "endif %}");
  }
  static void write(const std::string& name,
                    const std::function<void(kel::TokenizerData&)>& editTables,
                    const std::string& chatTemplate = "") {
    kel::test::RandomModelSpec spec = {.vocab = 110,
                                       .shape = kel::test::oddShape(),
                                       .statesShape = true,
                                       .chatTemplate = chatTemplate};
    spec.tokenizer = kel::test::chatTables(spec.vocab);
    if (editTables) {
      editTables(spec.tokenizer);
    }
    const kel::Status status = kel::test::writeRandomModel(folder->file(name), spec);
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
  }
  static void TearDownTestSuite() { folder.reset(); }

  EngineBackendTest() : backend(open({})) { configure({.temperature = 0.0F}); }

  static std::unique_ptr<Backend> open(EngineOptions options,
                                       const std::string& name = "model.zym") {
    options.model = folder->file(name);
    options.maxTokens = kReplyTokens;
    std::unique_ptr<Backend> opened;
    const kel::Status status = openEngineBackend(options, opened);
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
    return opened;
  }

  Pieces complete(const std::string& prompt) {
    Pieces pieces;
    TurnCalls calls;
    calls.piece = [&](std::string_view piece) { pieces.emplace_back(piece); };
    TurnOutcome outcome;
    EXPECT_EQ("", backend->complete(prompt, calls, outcome).message);
    return pieces;
  }

  struct Said {
    std::string reply;
    TurnOutcome outcome;
    std::string fault;

    uint64_t read() const { return outcome.usage->promptTokens - outcome.usage->reusedTokens; }
  };
  using Call = kel::Status (*)(Backend& backend, const std::string& text, const TurnCalls& calls,
                               TurnOutcome& outcome);
  static Said told(Backend& backend, const std::string& text, Call call,
                   volatile int* cancel = nullptr) {
    Said said;
    TurnCalls calls;
    calls.piece = [&](std::string_view piece) { said.reply += piece; };
    calls.cancel = cancel;
    said.fault = call(backend, text, calls, said.outcome).message;
    return said;
  }
  static Said say(Backend& backend, const std::string& text) {
    return told(backend, text,
                [](Backend& to, const std::string& typed, const TurnCalls& calls,
                   TurnOutcome& outcome) { return to.turn(typed, calls, outcome); });
  }
  static Said replaceLast(Backend& backend, const std::string& text,
                          volatile int* cancel = nullptr) {
    return told(
        backend, text,
        [](Backend& to, const std::string& typed, const TurnCalls& calls, TurnOutcome& outcome) {
          return to.conversation()->replaceLast(typed, calls, outcome);
        },
        cancel);
  }

  void configure(const Sampling& sampling) { EXPECT_EQ("", backend->configure(sampling).message); }

  static std::unique_ptr<kel::test::TempDir> folder;
  std::unique_ptr<Backend> backend;
};

std::unique_ptr<kel::test::TempDir> EngineBackendTest::folder;

bool hasRepeats(const Pieces& pieces) {
  return std::set<std::string>(pieces.begin(), pieces.end()).size() < pieces.size();
}

TEST_F(EngineBackendTest, PenaltiesEndRepetition) {
  const Pieces plain = complete("abc");
  EXPECT_TRUE(hasRepeats(plain));
  configure({.presencePenalty = 2.0F});
  const Pieces penalised = complete("abc");
  EXPECT_FALSE(hasRepeats(penalised));
  EXPECT_EQ("a", penalised.at(1)) << "of the prompt, which is not counted";
  // Every completion begins with nothing said.
  EXPECT_EQ(penalised, complete("abc"));
  configure({.presencePenalty = 0.0F, .frequencyPenalty = 2.0F});
  EXPECT_FALSE(hasRepeats(complete("abc")));
  configure({.frequencyPenalty = 0.0F, .repetitionPenalty = 100.0F});
  const Pieces other = complete("abc");
  EXPECT_FALSE(hasRepeats(other));
  EXPECT_NE("a", other.at(1)) << "of the prompt";
  configure({.repetitionPenalty = 1.0F});
  EXPECT_EQ(plain, complete("abc"));
}

TEST_F(EngineBackendTest, MinPCutsWhatIsDrawn) {
  const Pieces greedy = complete("hello");
  configure({.temperature = 100.0F, .minP = 1.0F, .presencePenalty = 0.0F});
  EXPECT_EQ(greedy, complete("hello"));
  configure({.minP = 0.0F});
  EXPECT_NE(greedy, complete("hello"));
}

TEST_F(EngineBackendTest, OfRefusedSettingsNoneHolds) {
  const Pieces plain = complete("abc");
  EXPECT_EQ("sampler: temperature must be a number from 0, not -1",
            backend->configure({.temperature = -1.0F, .presencePenalty = 2.0F}).message);
  EXPECT_EQ(plain, complete("abc"));
}

// The beginning of the assistant's turn: a mark and "assistant\n", a token for every letter.
constexpr uint64_t kGenerationPrompt = 11;

TEST_F(EngineBackendTest, ARetryReadsTheGenerationPromptAlone) {
  say(*backend, "abc");
  const Said first = say(*backend, "def");
  const Said again = replaceLast(*backend, "def");
  EXPECT_EQ(again.read(), kGenerationPrompt);
  EXPECT_EQ(again.reply, first.reply) << "greedy";
  EXPECT_EQ(backend->conversation()->use().messages, 4U);
  configure({.temperature = 50.0F});
  EXPECT_NE(replaceLast(*backend, "def").reply, first.reply);
}

TEST_F(EngineBackendTest, AnotherMessageTakesThePlaceOfTheLastAndItsReply) {
  Conversation& conversation = *backend->conversation();
  EXPECT_EQ(conversation.lastMessage(), std::nullopt);
  say(*backend, "abc");
  say(*backend, "def");
  const Said other = replaceLast(*backend, "xyz");
  EXPECT_EQ(conversation.lastMessage(), "xyz");
  EXPECT_EQ(conversation.use().messages, 4U);
  const auto straight = open({});
  ASSERT_EQ("", straight->configure({.temperature = 0.0F}).message);
  say(*straight, "abc");
  EXPECT_EQ(other.reply, say(*straight, "xyz").reply);
}

TEST_F(EngineBackendTest, WhatWasSaidOutlastsAReplacementThatFails) {
  say(*backend, "abc");
  EXPECT_NE("", replaceLast(*backend, std::string(400, 'x')).fault);
  EXPECT_EQ(backend->conversation()->lastMessage(), "abc");
  volatile int cancel = 1;
  EXPECT_EQ(TurnEnd::Cancelled, replaceLast(*backend, "def", &cancel).outcome.end);
  EXPECT_EQ(backend->conversation()->lastMessage(), "abc");
  EXPECT_EQ(backend->conversation()->use().messages, 2U);
}

TEST_F(EngineBackendTest, AnotherSystemMessageHasEverythingReadAgain) {
  Conversation& conversation = *backend->conversation();
  say(*backend, "abc");
  conversation.setSystem("Be brief.");
  EXPECT_EQ(conversation.use().messages, 3U);
  EXPECT_LT(say(*backend, "def").outcome.usage->reusedTokens, 2U) << "the first mark at most";
  conversation.setSystem("Be long.");
  EXPECT_EQ(conversation.use().messages, 5U) << "it takes the place of the former";
  backend->reset();
  EXPECT_EQ(conversation.system(), "Be long.");
  EXPECT_EQ(conversation.use().messages, 1U);
  conversation.setSystem("");
  EXPECT_EQ(conversation.use().messages, 0U);
}

TEST_F(EngineBackendTest, OnlyModelsWithMarksForItThink) {
  Conversation& conversation = *backend->conversation();
  EXPECT_EQ("this model was made without reasoning; it answers at once",
            conversation.setThinking(true).message);
  EXPECT_FALSE(conversation.thinks());
  EXPECT_TRUE(conversation.setThinking(false).ok());
  std::unique_ptr<Backend> none;
  EngineOptions options;
  options.model = folder->file("model.zym");
  options.thinking = true;
  EXPECT_EQ(options.model + ": was made without reasoning and answers at once; leave out --think",
            openEngineBackend(options, none).message);
  const auto thinker = open({}, "thinker.zym");
  EXPECT_FALSE(thinker->conversation()->thinks()) << "it is small";
  EXPECT_EQ(thinker->sampling().temperature, 0.7F);
  EXPECT_TRUE(thinker->conversation()->setThinking(true).ok());
  EXPECT_TRUE(thinker->conversation()->thinks());
  EXPECT_EQ(thinker->sampling().temperature, 1.0F) << "as is recommended for replies that think";
}

// The thinker frames a reply otherwise once it is history.
TEST_F(EngineBackendTest, SavedConversationsGoOn) {
  for (const char* name : {"model.zym", "thinker.zym"}) {
    const auto opened = [&] {
      auto made = open({}, name);
      EXPECT_EQ("", made->configure({.temperature = 0.0F}).message);
      return made;
    };
    const std::string file = folder->file("talk.zyms");
    const auto here = opened();
    here->conversation()->setSystem("Be brief.");
    say(*here, "abc");
    ASSERT_EQ("", here->conversation()->save(file).message);
    const Said saidHere = say(*here, "def");

    const auto there = opened();
    ASSERT_EQ("", there->conversation()->load(file).message);
    EXPECT_EQ(there->conversation()->system(), "Be brief.");
    EXPECT_EQ(there->conversation()->lastMessage(), "abc");
    const Said saidThere = say(*there, "def");
    EXPECT_EQ(saidThere.reply, saidHere.reply) << name;
    EXPECT_EQ(saidThere.read(), saidHere.read()) << name;
    // The mark and "system\nBe brief.\n" with a mark of its end, then as much of the message.
    EXPECT_GT(saidThere.outcome.usage->reusedTokens, 25U) << name;
    there->reset();
    EXPECT_EQ(there->conversation()->use().messages, 1U) << "its system message stays";
  }
}

TEST_F(EngineBackendTest, SavingWritesOverConversationsAlone) {
  const std::string file = folder->file("notes.txt");
  kel::test::writeFile(file, {'d', 'e', 'a', 'r'});
  EXPECT_EQ("nothing has been said that could be saved",
            backend->conversation()->save(folder->file("empty.zyms")).message);
  say(*backend, "abc");
  EXPECT_EQ(file + ": is no session file and is not written over; name another",
            backend->conversation()->save(file).message);
  EXPECT_EQ(kel::test::readFile(file).size(), 4U);
  const std::string twice = folder->file("twice.zyms");
  EXPECT_EQ("", backend->conversation()->save(twice).message);
  EXPECT_EQ("", backend->conversation()->save(twice).message);
}

// Also where the model's template would render it: the turns of open.zym stay open.
TEST_F(EngineBackendTest, ASystemMessageAloneIsNoConversationToSave) {
  for (const char* name : {"model.zym", "thinker.zym", "open.zym"}) {
    const auto opened = open({.system = "Be brief."}, name);
    EXPECT_EQ("nothing has been said that could be saved",
              opened->conversation()->save(folder->file("system.zyms")).message)
        << name;
    EXPECT_EQ("", say(*opened, "abc").fault) << name;
    EXPECT_EQ("", opened->conversation()->save(folder->file("system.zyms")).message) << name;
  }
}

TEST_F(EngineBackendTest, OfAFileThatIsNoConversationNothingIsTaken) {
  say(*backend, "abc");
  const std::string file = folder->file("foreign.zyms");
  {
    std::unique_ptr<engine::Context> context;
    ASSERT_TRUE(openContext(folder->file("model.zym"), {}, context).ok());
    ASSERT_TRUE(context->save(file, "a note").ok());
  }
  EXPECT_EQ(file + ": the session was not made by a chat",
            backend->conversation()->load(file).message);
  {
    std::unique_ptr<engine::Context> context;
    ASSERT_TRUE(openContext(folder->file("model.zym"), {}, context).ok());
    ASSERT_TRUE(context->save(file, R"({"format":"zym chat 1","messages":[]})").ok());
  }
  EXPECT_EQ(file + ": No messages provided.", backend->conversation()->load(file).message);
  EXPECT_EQ(backend->conversation()->lastMessage(), "abc");
  const Said after = say(*backend, "def");
  const auto straight = open({});
  ASSERT_EQ("", straight->configure({.temperature = 0.0F}).message);
  say(*straight, "abc");
  EXPECT_EQ(after.reply, say(*straight, "def").reply);
}

TEST_F(EngineBackendTest, OtherCachesAreAnotherSession) {
  const auto half = open({.cache = "bf16"});
  say(*half, "abc");
  const std::string file = folder->file("half.zyms");
  ASSERT_EQ("", half->conversation()->save(file).message);
  EXPECT_EQ(file + ": the session has caches of another type",
            backend->conversation()->load(file).message);
}

TEST_F(EngineBackendTest, AContextHasAsManyPositionsAsAreAskedFor) {
  EXPECT_EQ(open({.positions = 40})->limits().contextCapacity, 40U);
  EngineOptions options;
  options.model = folder->file("model.zym");
  options.positions = 301;
  std::unique_ptr<Backend> none;
  EXPECT_EQ(options.model + ": --context 301 is more than the model has room for; 1 to 300 can be",
            openEngineBackend(options, none).message);
}

TEST_F(EngineBackendTest, SeedsAreRandomUnlessGivenAndDecideTheReply) {
  const auto one = open({});
  const auto two = open({});
  const auto three = open({});
  EXPECT_TRUE(one->sampling().seed != two->sampling().seed ||
              one->sampling().seed != three->sampling().seed);
  for (const auto& chosen : {&one, &two}) {
    ASSERT_EQ("", (*chosen)->configure({.temperature = 50.0F, .seed = 7}).message);
  }
  EXPECT_EQ(one->sampling().seed, 7U);
  const std::string reply = say(*one, "abc").reply;
  EXPECT_EQ(reply, say(*two, "abc").reply);
  ASSERT_EQ("", two->configure({.seed = 8}).message);
  EXPECT_NE(reply, replaceLast(*two, "abc").reply);
}

TEST_F(EngineBackendTest, StopStringsAndBiasesReachTheEngine) {
  const Pieces plain = complete("abc");
  const std::string second = plain.at(1);
  EngineOptions options;
  options.stops = {second};
  const auto stopping = open(options);
  ASSERT_EQ("", stopping->configure({.temperature = 0.0F}).message);
  TurnOutcome outcome;
  ASSERT_EQ("", stopping->complete("abc", {}, outcome).message);
  EXPECT_EQ(outcome.end, TurnEnd::StopString);
  EXPECT_EQ(outcome.stopString, second);
  ASSERT_EQ(plain.at(0).size(), 1U);
  const int32_t first = kel::test::chatId(plain.at(0));
  configure({.logitBias = {{first, -std::numeric_limits<float>::infinity()}}});
  EXPECT_NE(complete("abc").at(0), plain.at(0));
}

TEST_F(EngineBackendTest, ATemplateOfAnotherKindIsRemarkedOn) {
  EXPECT_EQ("", backend->chatRemark());
  kel::test::RandomModelSpec spec = {
      .vocab = 110, .shape = kel::test::oddShape(), .statesShape = true};
  spec.tokenizer = kel::test::chatTables(spec.vocab);
  spec.chatTemplate = "[INST] {{ text }} [/INST]";
  ASSERT_TRUE(kel::test::writeRandomModel(folder->file("other.zym"), spec).ok());
  EXPECT_EQ("unknown template: the family's own format is used",
            open({}, "other.zym")->chatRemark());
}

}  // namespace
}  // namespace zym
