// What cannot be answered is refused with a message that says why, and the conversation that the
// context holds is none the worse for it.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/engine/talking.h"
#include "tests/support/family_shapes.h"

namespace engine {
namespace {

using testing_support::ask;
using testing_support::kTalkingVocab;
using testing_support::lettersOnly;
using testing_support::message;
using testing_support::OpenedModel;
using testing_support::talkingModel;
using testing_support::user;

const OpenedModel& opened() {
  static const OpenedModel model(talkingModel(kel::test::oddShape()));
  return model;
}

class RefusedRequests : public testing::Test {
 protected:
  RefusedRequests() { messages.push_back(ask(*context, {.messages = messages}, usual).message); }

  // The refusal of one request; the conversation before it then goes on as if it had not been made,
  // with nothing read again.
  std::string refusal(const std::function<kel::Status(Context&, Sampler&, Reply&)>& request) {
    const std::vector<Token> before = context->tokens();
    const ContextStatistics counts = context->statistics();
    Sampler sampler(1);
    Reply reply;
    const kel::Status status = request(*context, sampler, reply);
    EXPECT_FALSE(status.ok());
    EXPECT_EQ("", reply.message.content);
    EXPECT_EQ(before, context->tokens());
    EXPECT_EQ(counts.promptTokens, context->statistics().promptTokens);
    EXPECT_EQ(counts.generatedTokens, context->statistics().generatedTokens);
    std::vector<Message> next = messages;
    next.push_back(user("and then?"));
    const Reply warm = ask(*context, {.messages = next}, usual);
    const auto fresh = opened().context({});
    EXPECT_EQ(ask(*fresh, {.messages = next}, usual).message.content, warm.message.content);
    EXPECT_GT(warm.reusedTokens, 0U);
    return status.message;
  }
  std::string refusalOf(const ChatRequest& request, const ReplyOptions& options) {
    return refusal([&](Context& used, Sampler& sampler, Reply& reply) {
      return generateReply(used, sampler, request, options, {}, reply);
    });
  }
  std::string refusalOf(const std::vector<Message>& asked, const std::vector<Tool>& tools = {}) {
    return refusalOf({.messages = asked, .tools = tools}, usual);
  }
  std::string refusalOf(const SamplerSettings& sampling) {
    return refusalOf({.messages = messages}, {.sampling = sampling, .maxTokens = 3});
  }

  const ReplyOptions usual = lettersOnly(8);
  std::unique_ptr<Context> context = opened().context({});
  std::vector<Message> messages = {user("Hello")};
};

TEST_F(RefusedRequests, MessagesOutOfOrder) {
  EXPECT_EQ("No messages provided.", refusalOf(std::vector<Message>{}));
  EXPECT_EQ("System message must be at the beginning.",
            refusalOf({user("a"), message(Role::System, "b")}));
  EXPECT_EQ("No user query found in messages.", refusalOf({message(Role::Assistant, "a")}));
  EXPECT_EQ("No user query found in messages.",
            refusalOf({user("<tool_response>\n1\n</tool_response>")}));
}

TEST_F(RefusedRequests, ToolsAndCallsThatAreNoObjects) {
  EXPECT_EQ("chat: a tool is not a JSON object", refusalOf({user("a")}, {{"[1]"}}));
  Message caller = message(Role::Assistant, "");
  caller.toolCalls = {{"f", "1"}};
  EXPECT_EQ("chat: the arguments of a tool call are not a JSON object",
            refusalOf({user("a"), caller, message(Role::Tool, "2")}));
}

TEST_F(RefusedRequests, SettingsOutOfRange) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ("sampler: temperature must be a number from 0, not nan",
            refusalOf(SamplerSettings{.temperature = nan}));
  EXPECT_EQ("sampler: top-p must be a number above 0, at most 1, not 0",
            refusalOf(SamplerSettings{.topP = 0}));
  EXPECT_EQ("sampler: min-p must be a number from 0 to 1, not 1.5",
            refusalOf(SamplerSettings{.minP = 1.5F}));
  EXPECT_EQ("sampler: presence penalty must be a number from -2 to 2, not 3",
            refusalOf(SamplerSettings{.presencePenalty = 3}));
  EXPECT_EQ("sampler: frequency penalty must be a number from -2 to 2, not -3",
            refusalOf(SamplerSettings{.frequencyPenalty = -3}));
  EXPECT_EQ("sampler: repetition penalty must be a number above 0, not 0",
            refusalOf(SamplerSettings{.repetitionPenalty = 0}));
  EXPECT_EQ("sampler: repetition window must be a whole number from 0, not -1",
            refusalOf(SamplerSettings{.repetitionWindow = -1}));
  EXPECT_EQ("sampler: logit bias for token 300, but the ids go from 0 to 299",
            refusalOf(SamplerSettings{.logitBias = {{300, 1}}}));
  const TokenMask mask(7);
  EXPECT_EQ("sampler: the token mask is for 7 tokens, the vocabulary has 300",
            refusalOf(SamplerSettings{.mask = &mask}));
}

TEST_F(RefusedRequests, ATextThatHasNoRoom) {
  // Each letter is a token, also of the words that frame them.
  EXPECT_EQ("the text takes 315 tokens, the context has 300 positions",
            refusalOf({user(std::string(290, 'a'))}));
}

TEST_F(RefusedRequests, TextsToGoOnWith) {
  const auto goOn = [&](const std::vector<int32_t>& ids) {
    return refusal([&](Context& used, Sampler& sampler, Reply& reply) {
      return generateText(used, sampler, ids, usual, {}, reply);
    });
  };
  EXPECT_EQ("there is no text to go on with", goOn({}));
  EXPECT_EQ("token 300 is none of the model's 300", goOn({20, 300, 21}));
  EXPECT_EQ("token -1 is none of the model's 300", goOn({-1}));
}

TEST_F(RefusedRequests, ATextOfTheModelsWithoutAnyTokenLeft) {
  SamplerSettings nothing;
  for (int32_t id = 0; id < static_cast<int32_t>(kTalkingVocab); ++id) {
    nothing.logitBias[id] = -std::numeric_limits<float>::infinity();
  }
  Sampler sampler(1);
  Reply reply;
  EXPECT_EQ(
      "no token can be chosen: all are banned",
      generateReply(*context, sampler, {.messages = messages}, {.sampling = nothing}, {}, reply)
          .message);
  const auto fresh = opened().context({});
  EXPECT_EQ(ask(*fresh, {.messages = messages}, usual).message.content,
            ask(*context, {.messages = messages}, usual).message.content);
}

// Each mark that frames turns, and those without which a model can still talk.
TEST(RefusedVocabularies, AreThoseThatCannotFrameTurns) {
  const auto without = [](const std::string& mark) {
    kel::test::RandomModelSpec spec = talkingModel(kel::test::oddShape());
    for (std::string& token : spec.tokenizer.tokens) {
      token = token == mark ? "[GONE]" : token;
    }
    const OpenedModel model(spec);
    const auto context = model.context({});
    Sampler sampler(1);
    Reply reply;
    const std::vector<Message> messages = {user("Hi")};
    return generateReply(*context, sampler, {.messages = messages, .thinking = true},
                         lettersOnly(4), {}, reply)
        .message;
  };
  for (const char* mark : {"<|im_start|>", "<|im_end|>"}) {
    EXPECT_EQ("the vocabulary has no \"" + std::string(mark) +
                  "\": the model was not made for conversations",
              without(mark));
  }
  for (const char* mark : {"<|endoftext|>", "<think>", "</think>", "<tool_call>"}) {
    EXPECT_EQ("", without(mark)) << mark;
  }
}

}  // namespace
}  // namespace engine
