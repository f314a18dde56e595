// What a conversation reads and what it has in place already, counted by the context.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tests/engine/talking.h"
#include "tests/support/family_shapes.h"

namespace engine {
namespace {

using testing_support::ask;
using testing_support::lettersOnly;
using testing_support::OpenedModel;
using testing_support::tokensOf;
using testing_support::user;

constexpr uint64_t kReplyTokens = 100;
constexpr int kTurns = 10;

const OpenedModel& opened() {
  static const OpenedModel model([] {
    kel::test::RandomModelSpec spec = testing_support::talkingModel(kel::test::oddShape());
    spec.shape.contextLength = 5000;
    return spec;
  }());
  return model;
}

// Of some 80 tokens with its framing.
std::string question(int turn) {
  return "question " + std::to_string(turn) + std::string(50, static_cast<char>('a' + turn));
}

uint64_t generatedOf(std::span<const Token> tokens) {
  return static_cast<uint64_t>(std::count_if(tokens.begin(), tokens.end(),
                                             [](const Token& token) { return token.isGenerated; }));
}

uint64_t readOf(std::span<const Token> tokens) {
  return tokens.size() - generatedOf(tokens);
}

// The tokens that open a reply.
uint64_t generationPrompt(const ChatTokens& chat) {
  return chat.tokens.size() - chat.ends.back();
}

// What has been fed since it was made.
class Counter {
 public:
  explicit Counter(const Context& counted) : context(counted), before(counted.statistics()) {}

  uint64_t read() const { return context.statistics().promptTokens - before.promptTokens; }
  uint64_t generated() const {
    return context.statistics().generatedTokens - before.generatedTokens;
  }

 private:
  const Context& context;
  ContextStatistics before;
};

// The family's format frames an answer otherwise once it is history: an empty reasoning opens it,
// and the history has none. So an answer is fed a second time, and nothing else is.
TEST(ConversationReuse, WithoutThinkingAnAnswerAloneIsFedAgainAsHistory) {
  const auto context = opened().context({});
  std::vector<Message> messages;
  size_t lastEnd = 0;
  uint64_t opening = 0;
  uint64_t generated = 0;
  ChatTokens chat;
  for (int turn = 0; turn < kTurns; ++turn) {
    messages.push_back(user(question(turn)));
    chat = tokensOf(*opened().model, {.messages = messages});
    const Counter fed(*context);
    const Reply reply = ask(*context, {.messages = messages}, lettersOnly(kReplyTokens));
    ASSERT_EQ(kReplyTokens, reply.tokens);
    // Everything up to the end of the message before the last answer is in place.
    EXPECT_EQ(lastEnd, reply.reusedTokens);
    EXPECT_EQ(chat.tokens.size(), reply.promptTokens);
    EXPECT_EQ(readOf(std::span(chat.tokens).subspan(lastEnd)), fed.read());
    // The last token of a reply that is cut is not fed.
    const uint64_t again = turn == 0 ? 0 : kReplyTokens;
    EXPECT_EQ(again + kReplyTokens - 1, fed.generated());
    generated += fed.generated();
    lastEnd = chat.ends.back();
    opening += generationPrompt(chat);
    messages.push_back(reply.message);
  }
  EXPECT_GT(context->position(), 1800U);
  const ContextStatistics& counts = context->statistics();
  // All that is not the model's own, once; and what opened the replies, which is no history.
  EXPECT_EQ(readOf(chat.tokens) + opening - generationPrompt(chat), counts.promptTokens);
  EXPECT_EQ(kTurns * (kReplyTokens - 1) + (kTurns - 1) * kReplyTokens, counts.generatedTokens);
  EXPECT_EQ(generated, counts.generatedTokens);
}

// Where the reasoning of earlier turns is kept, a reply is its own history.
TEST(ConversationReuse, WithReasoningThatIsKeptEveryTokenIsFedOnce) {
  const auto context = opened().context({});
  std::vector<Message> messages;
  ReplyOptions options = lettersOnly(kReplyTokens);
  options.thinkingTokens = 30;
  ChatTokens chat;
  for (int turn = 0; turn < kTurns; ++turn) {
    messages.push_back(user(question(turn)));
    const ChatRequest request{.messages = messages, .thinking = true, .preserveThinking = true};
    chat = tokensOf(*opened().model, request);
    const uint64_t held = context->position();
    const Reply reply = ask(*context, request, options);
    ASSERT_EQ(kReplyTokens, reply.tokens);
    ASSERT_TRUE(reply.message.reasoningContent.has_value());
    EXPECT_EQ(30U, reply.message.reasoningContent->size());
    EXPECT_FALSE(reply.message.content.empty());
    EXPECT_EQ(held, reply.reusedTokens);
    messages.push_back(reply.message);
  }
  EXPECT_GT(context->position(), 1700U);
  const ContextStatistics& counts = context->statistics();
  EXPECT_EQ(context->position(), counts.promptTokens + counts.generatedTokens);
  EXPECT_EQ(readOf(chat.tokens), counts.promptTokens);
  EXPECT_EQ(kTurns * kReplyTokens - 1, counts.generatedTokens);
}

// A history of three turns, and the context that holds it.
struct Talk {
  explicit Talk(uint64_t snapshotBytes = kDefaultSnapshotBytes)
      : context(opened().context({.snapshotBytes = snapshotBytes})) {
    for (int turn = 0; turn < 3; ++turn) {
      messages.push_back(user(question(turn)));
      messages.push_back(ask(*context, {.messages = messages}, lettersOnly(20)).message);
    }
  }

  std::vector<Message> with(const std::string& text) const {
    std::vector<Message> asked = messages;
    asked.push_back(user(text));
    return asked;
  }

  std::unique_ptr<Context> context;
  std::vector<Message> messages;
};

TEST(ConversationReuse, ARetryFeedsWhatOpensTheReplyAlone) {
  const Talk talk;
  const std::vector<Message> asked = talk.with("once more");
  const Reply first = ask(*talk.context, {.messages = asked}, lettersOnly(20), 5);
  const ChatTokens chat = tokensOf(*opened().model, {.messages = asked});
  for (const uint64_t seed : {5, 6}) {
    const Counter fed(*talk.context);
    const Reply again = ask(*talk.context, {.messages = asked}, lettersOnly(20), seed);
    EXPECT_EQ(generationPrompt(chat), fed.read());
    EXPECT_EQ(19U, fed.generated());
    EXPECT_EQ(seed == 5, first.message.content == again.message.content);
  }
}

TEST(ConversationReuse, BranchesOfAHistoryShareIt) {
  const Talk talk;
  const std::vector<Message> one = talk.with("one way");
  const std::vector<Message> two = talk.with("another way, that is longer");
  const Reply first = ask(*talk.context, {.messages = one}, lettersOnly(20));
  // The history ends with the last answer, whose framing the branches have in common.
  const ChatTokens history = tokensOf(*opened().model, {.messages = one});
  const size_t fork = history.ends[history.ends.size() - 2];
  for (const std::vector<Message>& branch : {two, one}) {
    const ChatTokens chat = tokensOf(*opened().model, {.messages = branch});
    const Counter fed(*talk.context);
    const Reply reply = ask(*talk.context, {.messages = branch}, lettersOnly(20));
    EXPECT_EQ(fork, reply.reusedTokens);
    EXPECT_EQ(chat.tokens.size() - fork, fed.read());
    EXPECT_EQ(19U, fed.generated());
    EXPECT_EQ(branch.back().content == "one way", reply.message.content == first.message.content);
  }
}

TEST(ConversationReuse, AnEditedMessageCostsWhatIsBehindIt) {
  const Talk talk;
  std::vector<Message> edited = talk.messages;
  edited[2] = user("something else");
  const ChatTokens before = tokensOf(*opened().model, {.messages = talk.with("next")});
  edited.push_back(user("next"));
  const ChatTokens chat = tokensOf(*opened().model, {.messages = edited});
  const Counter fed(*talk.context);
  const Reply reply = ask(*talk.context, {.messages = edited}, lettersOnly(20));
  EXPECT_EQ(before.ends[1], reply.reusedTokens);
  EXPECT_EQ(readOf(std::span(chat.tokens).subspan(before.ends[1])), fed.read());
  EXPECT_EQ(20U + 20 + 19, fed.generated());
}

// The numbers of a text do not depend on what was read before and what was only remembered. A
// context whose budget is used up remembers two places.
TEST(ConversationReuse, TextsAreThoseOfContextsThatRememberLittleOrNothing) {
  const Talk talk;
  const Talk forgetful(0);
  EXPECT_EQ(talk.messages.back().content, forgetful.messages.back().content);
  std::vector<Message> early = {talk.messages[0], talk.messages[1], user("back to the beginning")};
  for (const std::vector<Message>& asked :
       {talk.with("one way"), talk.with("another way"), early}) {
    const Reply warm = ask(*talk.context, {.messages = asked}, lettersOnly(30));
    const Reply less = ask(*forgetful.context, {.messages = asked}, lettersOnly(30));
    const auto fresh = opened().context({});
    const Reply cold = ask(*fresh, {.messages = asked}, lettersOnly(30));
    EXPECT_EQ(cold.message.content, warm.message.content);
    EXPECT_EQ(cold.message.content, less.message.content);
    EXPECT_EQ(0U, cold.reusedTokens);
    EXPECT_GT(warm.reusedTokens, 0U);
    if (asked.size() == early.size()) {
      EXPECT_GT(warm.reusedTokens, less.reusedTokens);
    }
  }
}

}  // namespace
}  // namespace engine
