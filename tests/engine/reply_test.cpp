// Replies of the demonstration model, whose words are known, and of a random one with every mark.
#include "engine/reply.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "convert/convert.h"
#include "tests/engine/engine_models.h"
#include "tests/support/alphabet_vocabulary.h"
#include "tests/support/family_shapes.h"
#include "tests/support/instrumented.h"

namespace engine {
namespace {

Message message(Role role, const std::string& content) {
  Message made;
  made.role = role;
  made.content = content;
  return made;
}

Message user(const std::string& content) {
  return message(Role::User, content);
}

std::unique_ptr<Context> contextOf(const std::shared_ptr<const Model>& model,
                                   const ContextOptions& options) {
  std::unique_ptr<Context> context;
  if (const kel::Status status = Context::create(model, options, context); !status.ok()) {
    throw std::runtime_error(status.message);
  }
  return context;
}

class DemoReply : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = std::make_unique<kel::test::TempDir>();
    kel::convert::ConvertOptions options;
    options.source = ZYM_DEMO_FOLDER;
    options.target = folder->file("demo.zym");
    kel::convert::ProgressSink quiet;
    kel::Status status = kel::convert::convertModel(options, quiet).status;
    if (status.ok()) {
      status = Model::open(options.target, model);
    }
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
  }
  static void TearDownTestSuite() {
    model.reset();
    folder.reset();
  }

  Reply ask(const std::vector<Message>& messages, const ReplyOptions& options = {},
            const ReplySinks& sinks = {}) {
    Reply reply;
    const kel::Status status =
        generateReply(*context, sampler, {.messages = messages}, options, sinks, reply);
    EXPECT_TRUE(status.ok()) << status.message;
    return reply;
  }

  static std::unique_ptr<kel::test::TempDir> folder;
  static std::shared_ptr<const Model> model;
  std::unique_ptr<Context> context = contextOf(model, {});
  Sampler sampler{1};
};

std::unique_ptr<kel::test::TempDir> DemoReply::folder;
std::shared_ptr<const Model> DemoReply::model;

constexpr const char* kCapital = "The capital of Canada is Ottawa.";

TEST_F(DemoReply, AnswersAndGoesOn) {
  std::vector<Message> messages = {user("What is your name?")};
  messages.push_back(ask(messages).message);
  EXPECT_EQ("I have no real name. Call me the demo model.", messages.back().content);
  EXPECT_EQ(Role::Assistant, messages.back().role);
  messages.push_back(user("What is a chat turn?"));
  messages.push_back(ask(messages).message);
  messages.push_back(user("What is 1 + 1?"));
  const Reply reply = ask(messages);
  EXPECT_EQ("1 + 1 = 2.", reply.message.content);
  EXPECT_EQ(ReplyEnd::Stop, reply.end);
  EXPECT_FALSE(reply.message.reasoningContent.has_value());
}

// The turns of this model stay open, so that a reply is in place as history, too.
TEST_F(DemoReply, EachTokenOfAConversationIsFedOnce) {
  std::vector<Message> messages;
  for (const char* question : {"What is your name?", "What is a chat turn?", "What is 1 + 1?"}) {
    messages.push_back(user(question));
    const Reply reply = ask(messages);
    messages.push_back(reply.message);
  }
  EXPECT_EQ(context->position(),
            context->statistics().promptTokens + context->statistics().generatedTokens);
}

TEST_F(DemoReply, ARetryFeedsTheGenerationPromptAlone) {
  const std::vector<Message> messages = {user("What is the capital of Canada?")};
  const Reply first = ask(messages);
  EXPECT_EQ(0U, first.reusedTokens);
  ChatTokens chat;
  ASSERT_TRUE(encodeChat(*model, {.messages = messages}, chat).ok());
  const Reply again = ask(messages);
  EXPECT_EQ(kCapital, again.message.content);
  EXPECT_EQ(chat.ends.back(), again.reusedTokens);
  EXPECT_EQ(chat.tokens.size(), again.promptTokens);
}

TEST_F(DemoReply, GuessesChangeNeitherTextNorDraws) {
  const std::vector<Message> messages = {user("Say it again: the capital of Canada is Ottawa.")};
  for (const float temperature : {0.0F, 0.9F}) {
    ReplyOptions options{.sampling = {.temperature = temperature, .topP = 0.95F},
                         .maxTokens = kel::test::kInstrumented ? 20U : 60U};
    std::string texts[2];
    int32_t next[2];
    for (const bool guesses : {false, true}) {
      options.guesses = guesses;
      sampler.seed(7);
      context->reset();
      texts[guesses] = ask(messages, options).message.content;
      next[guesses] = sampler.next(context->logits(), {.temperature = 1});
    }
    EXPECT_EQ(texts[0], texts[1]);
    EXPECT_EQ(next[0], next[1]);
  }
}

TEST_F(DemoReply, EndsAtTheLimit) {
  const Reply reply = ask({user("What is the capital of Canada?")}, {.maxTokens = 3});
  EXPECT_EQ(ReplyEnd::Limit, reply.end);
  EXPECT_EQ(3U, reply.tokens);
  EXPECT_TRUE(std::string(kCapital).starts_with(reply.message.content));
}

TEST_F(DemoReply, EndsBeforeAStopString) {
  const Reply reply = ask({user("What is the capital of Canada?")}, {.stops = {"zzz", " Canada"}});
  EXPECT_EQ(ReplyEnd::StopString, reply.end);
  EXPECT_EQ(" Canada", reply.stopString);
  EXPECT_EQ("The capital of", reply.message.content);
}

TEST_F(DemoReply, WhatMightHaveBeenAStopStringIsToldAfterAll) {
  EXPECT_EQ(kCapital,
            ask({user("What is the capital of Canada?")}, {.stops = {"Ottawa.?"}}).message.content);
}

TEST_F(DemoReply, EndsWhereTheContextIsFull) {
  ChatTokens chat;
  const std::vector<Message> messages = {user("What is the capital of Canada?")};
  ASSERT_TRUE(encodeChat(*model, {.messages = messages}, chat).ok());
  context = contextOf(model, {.positions = chat.tokens.size() + 4});
  const Reply reply = ask(messages);
  EXPECT_EQ(ReplyEnd::ContextFull, reply.end);
  EXPECT_EQ(5U, reply.tokens);  // the last one needs no position
  context = contextOf(model, {.positions = chat.tokens.size() - 1});
  Reply none;
  const kel::Status status = generateReply(*context, sampler, {.messages = messages}, {}, {}, none);
  EXPECT_EQ("the text takes " + std::to_string(chat.tokens.size()) + " tokens, the context has " +
                std::to_string(chat.tokens.size() - 1) + " positions",
            status.message);
  EXPECT_TRUE(none.lacksRoom);
  EXPECT_FALSE(reply.lacksRoom);
  EXPECT_EQ(0U, context->position());
}

TEST_F(DemoReply, StopsWhenItIsAskedTo) {
  volatile int cancel = 0;
  std::string shown;
  ReplySinks sinks;
  sinks.cancel = &cancel;
  sinks.event = [&](const ReplyEvent& event) {
    shown += event.text;
    cancel = 1;
  };
  const Reply reply = ask({user("What is the capital of Canada?")}, {}, sinks);
  EXPECT_EQ(ReplyEnd::Cancelled, reply.end);
  EXPECT_EQ(shown, reply.message.content);
  EXPECT_EQ(1U, reply.tokens);
  const Reply before = ask({user("Who are you?")}, {}, sinks);
  EXPECT_EQ(ReplyEnd::Cancelled, before.end);
  EXPECT_EQ(0U, before.tokens);
}

TEST_F(DemoReply, ContentsThatSpellMarksAreText) {
  ChatTokens spelt;
  ChatTokens marked;
  const std::vector<Message> messages = {user("a<|im_end|>b")};
  ASSERT_TRUE(encodeChat(*model, {.messages = messages}, spelt).ok());
  ASSERT_TRUE(encodeChat(*model, {.messages = messages, .readsMarks = true}, marked).ok());
  const int32_t end = model->tokenizer().tokenToId("<|im_end|>");
  const auto count = [end](const ChatTokens& chat) {
    return std::count(chat.tokens.begin(), chat.tokens.end(), Token{end, false});
  };
  EXPECT_EQ(1, count(spelt));
  EXPECT_EQ(2, count(marked));
}

TEST_F(DemoReply, TextGoesOnWithoutFraming) {
  std::vector<int32_t> ids;
  model->textEncoder().encodeWithSpecials(
      "<|im_start|>user\nWhat is the capital of Canada?<|im_end|>\n<|im_start|>assistant\n", ids);
  Reply reply;
  ASSERT_TRUE(generateText(*context, sampler, ids, {}, {}, reply).ok());
  EXPECT_EQ(kCapital, reply.message.content);
  EXPECT_EQ("there is no text to go on with",
            generateText(*context, sampler, {}, {}, {}, reply).message);
}

TEST_F(DemoReply, SettingsOutOfRangeAreRefused) {
  Reply reply;
  const std::vector<Message> messages = {user("Hello!")};
  EXPECT_FALSE(generateReply(*context, sampler, {.messages = messages},
                             {.sampling = {.temperature = -1}}, {}, reply)
                   .ok());
}

// Letters, marks, and nothing learned.
class RandomReply : public testing::Test {
 protected:
  static constexpr uint64_t kVocab = 300;

  RandomReply()
      : opened({.hidden = 8,
                .ffn = 16,
                .vocab = kVocab,
                .shape = kel::test::oddShape(),
                .statesShape = true,
                .tokenizer = kel::test::alphabetVocabulary(kVocab)}) {}

  // Only letters: no reply ends by itself.
  ReplyOptions lettersOnly(uint64_t maxTokens) const {
    ReplyOptions options{.sampling = {.temperature = 1}, .maxTokens = maxTokens};
    for (int32_t id = 0; id < kel::test::kAlphabetMarks; ++id) {
      options.sampling.logitBias[id] = -std::numeric_limits<float>::infinity();
    }
    return options;
  }

  testing_support::OpenedModel opened;
  std::unique_ptr<Context> context = opened.context({});
  Sampler sampler{3};
};

TEST_F(RandomReply, ReasoningIsClosedWhereItsBudgetEnds) {
  ReplyOptions options = lettersOnly(40);
  options.thinkingTokens = 10;
  const std::vector<Message> messages = {user("Hi")};
  Reply reply;
  ASSERT_TRUE(
      generateReply(*context, sampler, {.messages = messages, .thinking = true}, options, {}, reply)
          .ok());
  EXPECT_TRUE(reply.message.reasoningContent.has_value());
  EXPECT_FALSE(reply.message.content.empty());
  const int32_t end = opened.model->tokenizer().tokenToId("</think>");
  EXPECT_EQ(1, std::count(context->tokens().begin(), context->tokens().end(), Token{end, true}));
  EXPECT_EQ(10U + 2U, reply.reasoningTokens) << "with the line feed and the mark that close it";
  EXPECT_EQ(40U, reply.tokens);
}

TEST_F(RandomReply, ABudgetOfNothingClosesReasoningAtOnce) {
  ReplyOptions options = lettersOnly(20);
  options.thinkingTokens = 0;
  const std::vector<Message> messages = {user("Hi")};
  Reply reply;
  ASSERT_TRUE(
      generateReply(*context, sampler, {.messages = messages, .thinking = true}, options, {}, reply)
          .ok());
  EXPECT_EQ("", reply.message.reasoningContent.value_or(""));
  EXPECT_FALSE(reply.message.content.empty());
}

TEST_F(RandomReply, WithoutThinkingTheAnswerBeginsAtOnce) {
  const std::vector<Message> messages = {user("Hi")};
  Reply reply;
  ASSERT_TRUE(
      generateReply(*context, sampler, {.messages = messages}, lettersOnly(10), {}, reply).ok());
  EXPECT_FALSE(reply.message.reasoningContent.has_value());
  EXPECT_EQ(0U, reply.reasoningTokens);
  EXPECT_FALSE(reply.message.content.empty());
}

// Of a history that the family's format frames otherwise than the reply itself, the answer is read
// as what the model wrote; the numbers are those of a fresh context.
TEST_F(RandomReply, TurnsAreTheSameFromAFreshContext) {
  std::vector<Message> messages;
  for (int turn = 0; turn < 4; ++turn) {
    messages.push_back(user("Turn " + std::to_string(turn)));
    ReplyOptions options = lettersOnly(12);
    Reply warm;
    sampler.seed(9);
    ASSERT_TRUE(generateReply(*context, sampler, {.messages = messages}, options, {}, warm).ok());
    const auto fresh = opened.context({});
    Reply cold;
    sampler.seed(9);
    ASSERT_TRUE(generateReply(*fresh, sampler, {.messages = messages}, options, {}, cold).ok());
    EXPECT_EQ(cold.message.content, warm.message.content);
    EXPECT_EQ(0U, cold.reusedTokens);
    EXPECT_EQ(turn > 0, warm.reusedTokens > 0);
    messages.push_back(warm.message);
  }
}

TEST_F(RandomReply, WhereEverythingIsBannedTheReplyFails) {
  ReplyOptions options;
  for (int32_t id = 0; id < static_cast<int32_t>(kVocab); ++id) {
    options.sampling.logitBias[id] = -std::numeric_limits<float>::infinity();
  }
  const std::vector<Message> messages = {user("Hi")};
  Reply reply;
  EXPECT_EQ("no token can be chosen: all are banned",
            generateReply(*context, sampler, {.messages = messages}, options, {}, reply).message);
}

TEST(Reply, AVocabularyWithoutTurnsIsNoneForConversations) {
  const testing_support::OpenedModel opened(
      {.hidden = 8, .ffn = 16, .vocab = 40, .shape = kel::test::oddShape(), .statesShape = true});
  Sampler sampler(1);
  Reply reply;
  const std::vector<Message> messages = {user("Hi")};
  EXPECT_EQ(
      "the vocabulary has no \"<|im_start|>\": the model was not made for conversations",
      generateReply(*opened.context(), sampler, {.messages = messages}, {}, {}, reply).message);
}

}  // namespace
}  // namespace engine
