// The interfaces over the scheduler and a model that runs: small, and nothing learned.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/serve/answer_constraints.h"
#include "host/serve/api_output.h"
#include "host/serve/api_routes.h"
#include "host/serve/scheduler.h"
#include "tests/engine/engine_models.h"
#include "tests/host/serve/fake_service.h"
#include "tests/support/alphabet_vocabulary.h"
#include "tests/support/family_shapes.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using engine::testing_support::OpenedModel;
using kel::test::parseOrderedJson;
using testing_support::FakeExchange;

constexpr uint64_t kVocab = 110;
constexpr uint64_t kPositions = 2000;

const OpenedModel& sharedModel() {
  static const OpenedModel opened([] {
    kel::test::RandomModelSpec spec = {.vocab = kVocab,
                                       .shape = kel::test::oddShape(),
                                       .statesShape = true,
                                       .tokenizer = kel::test::alphabetVocabulary(kVocab)};
    spec.shape.contextLength = kPositions;
    return spec;
  }());
  return opened;
}

// Tells when it has been answered.
class AwaitedExchange : public FakeExchange {
 public:
  using FakeExchange::FakeExchange;

  void end() override {
    FakeExchange::end();
    answered.set_value();
  }
  void wait() { answered.get_future().wait(); }

 private:
  std::promise<void> answered;
};

class ServedReplies : public testing::Test {
 protected:
  ServedReplies() {
    const kel::Status status = Scheduler::create(
        sharedModel().model, {.parallel = 2, .context = {.positions = kPositions}}, scheduler);
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
    ApiServices services;
    services.model = sharedModel().model;
    services.queue = scheduler.get();
    services.positions = kPositions;
    services.names = {"small"};
    services.constrain = answerConstraints(*services.model);
    services.random = [this] { return ++randomNumber; };
    services.now = [] { return int64_t{0}; };
    addApi(services, routes);
  }

  std::shared_ptr<AwaitedExchange> ask(const std::string& path, const std::string& fields) {
    auto exchange = std::make_shared<AwaitedExchange>("POST", path, "{" + fields + "}");
    (*routes.find("POST", path).handler)(exchange);
    exchange->wait();
    return exchange;
  }
  Json chat(const std::string& fields) {
    const auto exchange = ask("/v1/chat/completions", fields);
    EXPECT_EQ(200, exchange->status) << exchange->written;
    return parseOrderedJson(exchange->written);
  }

  std::unique_ptr<Scheduler> scheduler;
  std::atomic<uint64_t> randomNumber = 0;
  HttpRoutes routes;
};

const std::string kHello = R"("messages": [{"role": "user", "content": "hello"}])";
const std::string kLimits = kHello + R"(, "max_tokens": 20, "seed": 7)";
// Neither the end of a turn nor any other mark is chosen.
const std::string kLettersOnly = R"(, "logit_bias": {"0": -100, "1": -100, "2": -100, "3": -100,)"
                                 R"( "4": -100, "5": -100, "6": -100, "7": -100, "8": -100})";

// What the chunks of a stream say, one after the other.
std::string streamedContent(const std::string& stream) {
  std::string content;
  size_t at = 0;
  while ((at = stream.find("data: {", at)) != std::string::npos) {
    const size_t end = stream.find("\n\n", at);
    const Json chunk = parseOrderedJson(stream.substr(at + 6, end - at - 6));
    for (const Json& choice : chunk["choices"]) {
      content += choice["delta"].value("content", "");
    }
    at = end;
  }
  return content;
}

TEST_F(ServedReplies, SayTheSameWholeStreamedAndAgain) {
  const Json cold = chat(kLimits + kLettersOnly);
  EXPECT_EQ(20, cold["usage"]["completion_tokens"]);
  EXPECT_EQ(0, cold["usage"]["prompt_tokens_details"]["cached_tokens"]);
  const Json warm = chat(kLimits + kLettersOnly);
  EXPECT_LT(0, warm["usage"]["prompt_tokens_details"]["cached_tokens"]);
  const Json& message = cold["choices"][0]["message"];
  EXPECT_NE("", message["content"]);
  EXPECT_EQ(message.dump(), warm["choices"][0]["message"].dump());
  const auto stream = ask("/v1/chat/completions", kLimits + kLettersOnly + R"(, "stream": true)");
  EXPECT_EQ(message["content"].get<std::string>(), streamedContent(stream->written));
  EXPECT_TRUE(stream->written.ends_with("data: [DONE]\n\n"));
}

TEST_F(ServedReplies, LogProbabilitiesSpellTheAnswer) {
  const Json body = chat(kLimits + R"(, "logprobs": true, "top_logprobs": 3,)"
                                   R"( "chat_template_kwargs": {"enable_thinking": true},)"
                                   R"( "logit_bias": {"4": 5})");
  const Json& choice = body["choices"][0];
  std::string spelt;
  for (const Json& token : choice["logprobs"]["content"]) {
    spelt += token["token"].get<std::string>();
    EXPECT_EQ(3U, token["top_logprobs"].size());
    EXPECT_GE(0.0, token["logprob"].get<double>());
  }
  EXPECT_EQ(choice["message"]["content"].get<std::string>(), spelt);
}

TEST_F(ServedReplies, ReasoningIsCounted) {
  // Nothing but the budget ends reasoning of letters alone.
  const Json body =
      chat(kHello + R"(, "max_tokens": 12, "chat_template_kwargs": {"enable_thinking": true})" +
           kLettersOnly);
  EXPECT_EQ(12, body["usage"]["completion_tokens_details"]["reasoning_tokens"]);
  EXPECT_EQ("", body["choices"][0]["message"]["content"]);
  EXPECT_NE("", body["choices"][0]["message"]["reasoning_content"]);
}

TEST_F(ServedReplies, LongPromptsAreNamedAsSuch) {
  const std::string words(2 * kPositions, 'x');
  const auto exchange =
      ask("/v1/chat/completions",
          R"("stream": true, "messages": [{"role": "user", "content": ")" + words + "\"}]");
  EXPECT_EQ(400, exchange->status);
  EXPECT_EQ("context_length_exceeded", parseOrderedJson(exchange->written)["error"]["code"]);
}

TEST_F(ServedReplies, ConversationsThatCannotBeFramed) {
  const auto exchange =
      ask("/v1/messages", R"("max_tokens": 5, "messages": [{"role": "user", "content":)"
                          R"( "<tool_response>a</tool_response>"}])");
  EXPECT_EQ(400, exchange->status);
  EXPECT_EQ("No user query found in messages.",
            parseOrderedJson(exchange->written)["error"]["message"]);
}

TEST_F(ServedReplies, FollowASchema) {
  const Json body =
      chat(kHello +
           R"(, "n": 4, "temperature": 2, "top_k": 0, "top_p": 1, "max_tokens": 200,)"
           R"( "response_format": {"type": "json_schema", "json_schema": {"name": "n", "schema":)"
           R"( {"type": "object", "properties": {"fine": {"type": "boolean"}, "word": {"enum":)"
           R"( ["red", "blue"]}}, "required": ["fine", "word"], "additionalProperties": false}}})");
  ASSERT_EQ(4U, body["choices"].size());
  for (const Json& choice : body["choices"]) {
    const Json answer = parseOrderedJson(choice["message"]["content"].get<std::string>());
    EXPECT_TRUE(answer["fine"].is_boolean());
    EXPECT_EQ(1U, (std::set<std::string>{"red", "blue"}.count(answer["word"])));
    EXPECT_EQ("stop", choice["finish_reason"]);
  }
}

TEST_F(ServedReplies, SchemasThatAreNotSupported) {
  const auto exchange =
      ask("/v1/chat/completions",
          kHello + R"(, "response_format": {"type": "json_schema", "json_schema": {"schema":)"
                   R"( {"type": "string", "pattern": "a"}}})");
  EXPECT_EQ(400, exchange->status);
  const Json error = parseOrderedJson(exchange->written)["error"];
  EXPECT_EQ("response_format.json_schema.schema", error["param"]);
  EXPECT_NE(std::string::npos, error["message"].get<std::string>().find("\"pattern\""));
}

const std::string kTools =
    R"(, "tools": [{"type": "function", "function": {"name": "look_up", "parameters":)"
    R"( {"type": "object", "properties": {"exact": {"type": "boolean"}}, "required": ["exact"]}}},)"
    R"( {"type": "function", "function": {"name": "other", "parameters": {"type": "object"}}}])";

TEST_F(ServedReplies, CallTheToolThatIsNamed) {
  const Json body =
      chat(kHello + kTools +
           R"(, "temperature": 2, "top_k": 0, "top_p": 1, "parallel_tool_calls": false,)"
           R"( "chat_template_kwargs": {"enable_thinking": true}, "logit_bias": {"4": 10},)"
           R"( "tool_choice": {"type": "function", "function": {"name": "look_up"}})");
  const Json& choice = body["choices"][0];
  EXPECT_EQ("tool_calls", choice["finish_reason"]);
  ASSERT_EQ(1U, choice["message"]["tool_calls"].size());
  const Json& call = choice["message"]["tool_calls"][0]["function"];
  EXPECT_EQ("look_up", call["name"]);
  EXPECT_TRUE(parseOrderedJson(call["arguments"].get<std::string>())["exact"].is_boolean());
}

TEST_F(ServedReplies, CallNothingWhereTheyMustNot) {
  // The mark of a call would be drawn every time.
  const std::string wish = kLimits + kTools + R"(, "logit_bias": {"5": 100})";
  EXPECT_FALSE(
      chat(wish + R"(, "tool_choice": "none")")["choices"][0]["message"].contains("tool_calls"));
}

TEST_F(ServedReplies, CallOrFollowAForm) {
  const std::string fields = kHello + kTools +
                             R"(, "max_tokens": 300, "response_format": {"type": "json_schema",)"
                             R"( "json_schema": {"name": "n", "schema": {"const": "done"}}})";
  const Json answer = chat(fields + R"(, "logit_bias": {"5": -100})");
  EXPECT_EQ("\"done\"", answer["choices"][0]["message"]["content"]);
  const Json call = chat(fields + R"(, "logit_bias": {"5": 100}, "max_tokens": 1)");
  EXPECT_EQ("length", call["choices"][0]["finish_reason"]);
  EXPECT_NE("\"done\"", call["choices"][0]["message"]["content"]);
}

TEST_F(ServedReplies, OtherInterfacesSayTheSame) {
  const std::string settings = R"(, "temperature": 0, "presence_penalty": 0)" + kLettersOnly;
  const std::string content =
      chat(kHello + R"(, "max_tokens": 20)" + settings)["choices"][0]["message"]["content"];
  const Json message =
      parseOrderedJson(ask("/v1/messages", kHello + R"(, "max_tokens": 20)" + settings)->written);
  EXPECT_EQ(content, message["content"][0]["text"]);
  EXPECT_EQ("max_tokens", message["stop_reason"]);
  const Json response = parseOrderedJson(
      ask("/v1/responses", R"("input": "hello", "max_output_tokens": 20)" + settings)->written);
  EXPECT_EQ(content, response["output"][0]["content"][0]["text"]);
  const Json text = parseOrderedJson(
      ask("/v1/completions",
          R"("prompt": "<|im_start|>user\nhello<|im_end|>\n<|im_start|>assistant\n<think>\n\n)"
          R"(</think>\n\n", "max_tokens": 20)" +
              settings)
          ->written);
  EXPECT_EQ(content, text["choices"][0]["text"]);
}

}  // namespace
}  // namespace zym
