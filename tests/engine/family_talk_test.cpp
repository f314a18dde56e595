// A conversation with models of the heads of every size of the family: nothing learned, every rule
// of a reply.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/engine/talking.h"
#include "tests/support/family_shapes.h"
#include "tests/support/instrumented.h"

namespace engine {
namespace {

using kel::test::NamedShape;
using testing_support::ask;
using testing_support::kTalkingVocab;
using testing_support::lettersOnly;
using testing_support::message;
using testing_support::OpenedModel;
using testing_support::tokensOf;
using testing_support::user;

struct Size {
  std::string name;
  kel::ModelShape shape;
  uint64_t hidden;
};

void PrintTo(const Size& size, std::ostream* out) {
  *out << size.name;
}

// Four, as all fours are alike and those of 27B would take minutes; or one of each kind.
constexpr uint32_t kLayers = kel::test::kInstrumented ? 2 : 4;

// Heads and output heads of the sizes; hidden sizes in their proportion where two have the same
// heads.
std::vector<Size> sizes() {
  std::vector<Size> all;
  for (const NamedShape& named : kel::test::familyShapes()) {
    kel::ModelShape shape = named.shape;
    shape.layers = kLayers;
    shape.fullLayers = kel::LayerSet::every(kLayers, kLayers);
    all.push_back({named.name, shape, named.name == "9B" ? 96U : 32U});
    if (named.name == "08B") {
      all.push_back({"2B", shape, 64});
    }
  }
  return all;
}

class FamilyTalk : public testing::TestWithParam<Size> {
 protected:
  static std::vector<Message> opening() {
    return {message(Role::System, "Be brief."), user("How many?")};
  }

  static ReplyOptions thinkingOptions() {
    ReplyOptions options = lettersOnly(16);
    options.thinkingTokens = 6;
    return options;
  }

  const OpenedModel model{{.hidden = GetParam().hidden,
                           .ffn = 64,
                           .vocab = kTalkingVocab,
                           .types = {kel::QuantType::Q8_0},
                           .shape = GetParam().shape,
                           .statesShape = true,
                           .tokenizer = kel::test::alphabetVocabulary(kTalkingVocab)}};
  std::unique_ptr<Context> context = model.context({.positions = 3000, .threads = 2});
};

// Turns of every kind, each also from a context without a past; what comes in pieces is the whole.
TEST_P(FamilyTalk, TurnsAreTheSameWithAndWithoutAPast) {
  std::vector<Message> messages = opening();
  for (const bool thinking : {true, false, true}) {
    const ChatRequest request{.messages = messages, .thinking = thinking};
    std::string answer;
    std::string reasoning;
    size_t pieces = 0;
    ReplySinks sinks;
    sinks.event = [&](const ReplyEvent& event) {
      (event.kind == ReplyEvent::Kind::Reasoning ? reasoning : answer) += event.text;
      ++pieces;
    };
    const Reply reply = ask(*context, request, thinkingOptions(), 7, sinks);
    EXPECT_EQ(16U, reply.tokens);
    EXPECT_EQ(ReplyEnd::Limit, reply.end);
    EXPECT_EQ(reply.message.content, answer);
    EXPECT_EQ(reply.message.reasoningContent.value_or(""), reasoning);
    EXPECT_EQ(thinking ? 6U : 0U, reasoning.size());
    EXPECT_GT(pieces, 10U);
    const auto fresh = model.context({.positions = 3000, .threads = 1});
    const Reply cold = ask(*fresh, request, thinkingOptions(), 7);
    EXPECT_EQ(cold.message.content, reply.message.content);
    EXPECT_EQ(cold.message.reasoningContent, reply.message.reasoningContent);
    messages.push_back(reply.message);
    messages.push_back(user("And then?"));
  }
}

TEST_P(FamilyTalk, TheSeedDecides) {
  const std::vector<Message> messages = opening();
  const ChatRequest request{.messages = messages};
  const Reply one = ask(*context, request, lettersOnly(16), 1);
  EXPECT_EQ(one.message.content, ask(*context, request, lettersOnly(16), 1).message.content);
  EXPECT_NE(one.message.content, ask(*context, request, lettersOnly(16), 2).message.content);
}

// However the messages came to be read: at once, or cut anywhere between two tokens.
TEST_P(FamilyTalk, HowMessagesAreCutChangesNothing) {
  const std::vector<Message> messages = opening();
  const ChatRequest request{.messages = messages};
  const Reply whole = ask(*context, request, lettersOnly(16));
  const std::vector<Token> tokens = tokensOf(*model.model, request).tokens;
  for (const size_t cut : {size_t{1}, tokens.size() / 2, tokens.size() - 1}) {
    context->reset();
    kel::Status status;
    ASSERT_EQ(Context::Fed::All,
              context->feed(std::span(tokens).first(cut), nullptr, nullptr, status));
    const Reply reply = ask(*context, request, lettersOnly(16));
    EXPECT_EQ(cut, reply.reusedTokens);
    EXPECT_EQ(whole.message.content, reply.message.content) << cut;
  }
}

// A call that is read off the reply, its result, and a reply to that. The model has learned
// nothing: a mask lets through one token at a time, which spell a call.
TEST_P(FamilyTalk, CallsAreReadAndTheirResultsAnswered) {
  const std::vector<Tool> tools = {{R"({"type": "function", "function": {"name": "f"}})"}};
  std::vector<Message> messages = opening();
  const ChatRequest request{.messages = messages, .tools = tools};
  const size_t asked = tokensOf(*model.model, request).ends.back();
  const std::string call = "<function=f>\n<parameter=a>\nb\n</parameter>\n</function>\n";
  std::vector<int32_t> ids = {model.model->tokenizer().tokenToId("<tool_call>")};
  model.model->textEncoder().encode(call, ids);
  ids.push_back(model.model->tokenizer().tokenToId("</tool_call>"));
  ids.push_back(model.model->tokenizer().tokenToId("<|im_end|>"));
  TokenMask next(kTalkingVocab, false);
  size_t at = 0;
  next.allow(static_cast<size_t>(ids[0]));
  ReplyOptions options;
  options.guesses = false;
  options.sampling.mask = &next;
  ReplySinks sinks;
  sinks.token = [&](int32_t, std::span<const float>) {
    next.setAll(false);
    next.allow(static_cast<size_t>(ids[++at]));
  };
  const Reply reply = ask(*context, request, options, 1, sinks);
  EXPECT_EQ(ReplyEnd::Stop, reply.end);
  EXPECT_EQ("", reply.message.content);
  ASSERT_EQ(1U, reply.message.toolCalls.size());
  EXPECT_EQ("f", reply.message.toolCalls[0].name);
  EXPECT_EQ(R"({"a": "b"})", reply.message.toolCalls[0].arguments);
  messages.push_back(reply.message);
  messages.push_back(message(Role::Tool, "42"));
  const ChatRequest answered{.messages = messages, .tools = tools};
  const Reply answer = ask(*context, answered, lettersOnly(12));
  EXPECT_EQ(12U, answer.message.content.size());
  // The tools and the question are in place.
  EXPECT_EQ(asked, answer.reusedTokens);
}

INSTANTIATE_TEST_SUITE_P(Sizes, FamilyTalk, testing::ValuesIn(sizes()),
                         [](const auto& size) { return size.param.name; });

}  // namespace
}  // namespace engine
