// POST /v1/completions: what a request becomes, and what its answers look like.
#include "host/serve/completion_api.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/serve/api_output.h"
#include "tests/host/serve/fake_service.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using kel::test::parseOrderedJson;
using namespace testing_support;
using engine::ReplyEnd;

class CompletionApi : public testing::Test {
 protected:
  std::shared_ptr<FakeExchange> ask(const std::string& fields) {
    return service.ask("POST", "/v1/completions", "{" + fields + "}");
  }
  std::vector<int32_t> promptOf(const std::string& prompt) {
    const auto exchange = ask(R"("prompt": )" + prompt);
    EXPECT_NE(nullptr, service.queue.sink) << exchange->written;
    return service.queue.request.prompt;
  }

  FakeService service;
};

const std::string kHead =
    R"({"id":"cmpl-000000000000000200000000","object":"text_completion","created":1700000001,)"
    R"("model":"small","system_fingerprint":"fp_1","choices":[)";

TEST_F(CompletionApi, WholeAnswer) {
  const auto exchange = ask(R"("prompt": "ab", "echo": true, "stop": "x")");
  EXPECT_EQ((std::vector<std::string>{"x"}), service.queue.request.options.stops);
  play(*service.queue.sink, {answer("c"), answer("d")}, reply(ReplyEnd::Stop, 3));
  EXPECT_EQ(kHead + R"({"index":0,"text":"abcd","logprobs":null,"finish_reason":"stop"}],)"
                    R"("usage":{"prompt_tokens":10,"completion_tokens":3,"total_tokens":13,)"
                    R"("prompt_tokens_details":{"cached_tokens":4}}})",
            exchange->written);
}

TEST_F(CompletionApi, StreamedAnswer) {
  const auto exchange = ask(
      R"("prompt": "ab", "echo": true, "stream": true, "stream_options": {"include_usage": true})");
  play(*service.queue.sink, {answer("c")}, reply(ReplyEnd::Limit, 3));
  const auto chunk = [](const std::string& choices, const std::string& usage) {
    return "data: " + kHead + choices + R"(],"usage":)" + usage + "}\n\n";
  };
  EXPECT_EQ(chunk(R"({"index":0,"text":"ab","logprobs":null,"finish_reason":null})", "null") +
                chunk(R"({"index":0,"text":"c","logprobs":null,"finish_reason":null})", "null") +
                chunk(R"({"index":0,"text":"","logprobs":null,"finish_reason":"length"})", "null") +
                chunk("", R"({"prompt_tokens":10,"completion_tokens":3,"total_tokens":13,)"
                          R"("prompt_tokens_details":{"cached_tokens":4}})") +
                "data: [DONE]\n\n",
            exchange->written);
}

TEST_F(CompletionApi, LogProbabilities) {
  const auto exchange = ask(R"("prompt": "ab", "logprobs": 1)");
  EXPECT_EQ(1U, service.queue.request.logProbabilities);
  GenerationSink& sink = *service.queue.sink;
  const int32_t a = kel::test::chatId("a");
  sink.started({2, 0});
  sink.token(0, {{a, -0.5}, {{a + 1, -0.25}}});
  sink.token(0, {{a + 1, -1}, {}});
  sink.event(0, answer("ab"));
  sink.token(0, {{a + 2, -1}, {}});  // of a stop string
  sink.finished(0, reply(ReplyEnd::StopString, 3));
  sink.done();
  EXPECT_EQ(R"({"tokens":["a","b"],"token_logprobs":[-0.5,-1.0],"top_logprobs":[{"b":-0.25},{}],)"
            R"("text_offset":[0,1]})",
            parseOrderedJson(exchange->written)["choices"][0]["logprobs"].dump());
}

TEST_F(CompletionApi, Prompts) {
  const int32_t a = kel::test::chatId("a");
  const std::string ids = std::to_string(a) + ", " + std::to_string(a + 1);
  const std::vector<int32_t> wanted = {a, a + 1};
  EXPECT_EQ(wanted, promptOf("\"ab\""));
  EXPECT_EQ(wanted, promptOf("[\"ab\"]"));
  EXPECT_EQ(wanted, promptOf("[" + ids + "]"));
  EXPECT_EQ(wanted, promptOf("[[" + ids + "]]"));
  EXPECT_EQ((std::vector<int32_t>{a, kel::test::chatId("<|im_end|>")}),
            promptOf("\"a<|im_end|>\""));
  EXPECT_TRUE(service.queue.request.messages.empty());
}

TEST_F(CompletionApi, TextThatHasNoRoomIsThePromptsFault) {
  const auto exchange = ask(R"("prompt": "ab")");
  service.queue.sink->failed(GenerationFault::TooLong, "there is no room for it");
  EXPECT_EQ("prompt", parseOrderedJson(exchange->written)["error"]["param"]);
}

TEST_F(CompletionApi, RefusedFields) {
  struct Case {
    std::string fields;
    std::string param;
  };
  const std::vector<Case> cases = {
      {R"("n": 1)", "prompt"},
      {R"("prompt": 1)", "prompt"},
      {R"("prompt": "")", "prompt"},
      {R"("prompt": [])", "prompt"},
      {R"("prompt": ["a", "b"])", "prompt"},
      {R"("prompt": [1, "b"])", "prompt"},
      {R"("prompt": [120])", "prompt"},
      {R"("prompt": [-1])", "prompt"},
      {R"("prompt": "a", "suffix": "b")", "suffix"},
      {R"("prompt": "a", "best_of": 2)", "best_of"},
      {R"("prompt": "a", "logprobs": 21)", "logprobs"},
      {R"("prompt": "a", "logprobs": true)", "logprobs"},
      {R"("prompt": "a", "echo": true, "logprobs": 1)", "echo"},
      {R"("prompt": "a", "messages": [])", "messages"},
      {R"("prompt": "a", "n": 5)", "n"},
  };
  for (const Case& refused : cases) {
    const auto exchange = ask(refused.fields);
    EXPECT_EQ(400, exchange->status) << refused.fields;
    EXPECT_EQ(nullptr, service.queue.sink) << refused.fields;
    EXPECT_EQ(refused.param, parseOrderedJson(exchange->written)["error"]["param"])
        << refused.fields;
  }
}

TEST_F(CompletionApi, LimitIsTheInterfacesWhereNoneIsStated) {
  ask(R"("prompt": "a")");
  EXPECT_EQ(16U, service.queue.request.options.maxTokens);
  ask(R"("prompt": "a", "max_tokens": 99, "best_of": 1, "suffix": null, "user": "me")");
  ASSERT_NE(nullptr, service.queue.sink);
  EXPECT_EQ(99U, service.queue.request.options.maxTokens);
}

}  // namespace
}  // namespace zym
