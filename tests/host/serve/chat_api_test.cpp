// POST /v1/chat/completions: what a request becomes, and what its answers look like.
#include "host/serve/chat_api.h"

#include <gtest/gtest.h>

#include <cmath>
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
using engine::Role;

const std::string kPath = "/v1/chat/completions";
const std::string kHello = R"("messages": [{"role": "user", "content": "hello"}])";

std::string bodyWith(const std::string& fields) {
  return "{" + kHello + (fields.empty() ? "" : ", ") + fields + "}";
}

const std::string kTools =
    R"("tools": [{"type": "function", "function": {"name": "look_up", "parameters": )"
    R"({"type": "object", "properties": {"word": {"type": "string"}}}}}])";

class ChatApi : public testing::Test {
 protected:
  std::shared_ptr<FakeExchange> ask(const std::string& fields) {
    return service.ask("POST", kPath, bodyWith(fields));
  }
  // The answer to a reply that has come as a whole.
  std::string answerTo(const std::string& fields, const std::vector<engine::ReplyEvent>& events,
                       const engine::Reply& reply) {
    const auto exchange = ask(fields);
    EXPECT_NE(nullptr, service.queue.sink) << exchange->written;
    if (service.queue.sink != nullptr) {
      play(*service.queue.sink, events, reply);
    }
    EXPECT_TRUE(exchange->ended);
    return exchange->written;
  }

  FakeService service;
};

TEST_F(ChatApi, WholeAnswer) {
  const auto exchange = ask("");
  EXPECT_EQ(0, exchange->status) << "not before the reply is complete";
  play(*service.queue.sink, {reasoning("Hm"), reasoning("m."), answer("Hel"), answer("lo")},
       reply(ReplyEnd::Stop, 6));
  EXPECT_EQ(200, exchange->status);
  EXPECT_EQ("application/json", exchange->type);
  EXPECT_EQ(
      R"({"id":"chatcmpl-000000000000000200000000","object":"chat.completion",)"
      R"("created":1700000001,"model":"small","system_fingerprint":"fp_1","choices":[{"index":0,)"
      R"("message":{"role":"assistant","content":"Hello","refusal":null,)"
      R"("reasoning_content":"Hmm."},"logprobs":null,"finish_reason":"stop"}],)"
      R"("usage":{"prompt_tokens":10,"completion_tokens":6,"total_tokens":16,)"
      R"("prompt_tokens_details":{"cached_tokens":4},)"
      R"("completion_tokens_details":{"reasoning_tokens":3}}})",
      exchange->written);
}

// One chunk of the golden streams below.
std::string chunk(const std::string& choice, const std::string& more = "") {
  return R"(data: {"id":"chatcmpl-000000000000000200000000","object":"chat.completion.chunk",)"
         R"("created":1700000001,"model":"small","system_fingerprint":"fp_1","choices":[)" +
         choice + "]" + more + "}\n\n";
}
std::string delta(const std::string& fields) {
  return R"({"index":0,"delta":)" + fields + R"(,"logprobs":null,"finish_reason":null})";
}

TEST_F(ChatApi, StreamedAnswer) {
  const auto exchange = ask(R"("stream": true)");
  GenerationSink& sink = *service.queue.sink;
  EXPECT_EQ(0, exchange->status) << "the prompt may yet be refused";
  sink.started({10, 4});
  EXPECT_EQ(200, exchange->status);
  EXPECT_EQ("text/event-stream", exchange->type);
  std::string expected = chunk(delta(R"({"role":"assistant","content":""})"));
  EXPECT_EQ(expected, exchange->written);
  sink.event(0, reasoning("Hm"));
  expected += chunk(delta(R"({"reasoning_content":"Hm"})"));
  sink.event(0, answer("Hel\n\"lo\""));
  expected += chunk(delta(R"({"content":"Hel\n\"lo\""})"));
  EXPECT_EQ(expected, exchange->written) << "as it comes";
  sink.finished(0, reply(ReplyEnd::Stop, 6));
  sink.done();
  expected += chunk(R"({"index":0,"delta":{},"logprobs":null,"finish_reason":"stop"})");
  EXPECT_EQ(expected + "data: [DONE]\n\n", exchange->written);
  EXPECT_TRUE(exchange->ended);
}

TEST_F(ChatApi, StreamsTellTheirUsageWhenAsked) {
  const std::string null = R"(,"usage":null)";
  EXPECT_EQ(chunk(delta(R"({"role":"assistant","content":""})"), null) +
                chunk(delta(R"({"content":"a"})"), null) +
                chunk(R"({"index":0,"delta":{},"logprobs":null,"finish_reason":"length"})", null) +
                chunk("", R"(,"usage":{"prompt_tokens":10,"completion_tokens":1,"total_tokens":11,)"
                          R"("prompt_tokens_details":{"cached_tokens":4},)"
                          R"("completion_tokens_details":{"reasoning_tokens":0}})") +
                "data: [DONE]\n\n",
            answerTo(R"("stream": true, "stream_options": {"include_usage": true})", {answer("a")},
                     reply(ReplyEnd::Limit, 1)));
}

TEST_F(ChatApi, StreamedCalls) {
  EXPECT_EQ(
      chunk(delta(R"({"role":"assistant","content":""})")) +
          chunk(delta(R"({"content":"Let me see."})")) +
          chunk(delta(R"({"tool_calls":[{"index":0,"id":"call_000000000000000400000000",)"
                      R"("type":"function","function":{"name":"look_up","arguments":""}}]})")) +
          chunk(delta(R"({"tool_calls":[{"index":0,"function":)"
                      R"({"arguments":"{\"word\": \"a\"}"}}]})")) +
          chunk(delta(R"({"tool_calls":[{"index":1,"id":"call_000000000000000600000000",)"
                      R"("type":"function","function":{"name":"look_up","arguments":""}}]})")) +
          chunk(delta(R"({"tool_calls":[{"index":1,"function":{"arguments":"{}"}}]})")) +
          chunk(R"({"index":0,"delta":{},"logprobs":null,"finish_reason":"tool_calls"})") +
          "data: [DONE]\n\n",
      answerTo(R"("stream": true, )" + kTools,
               {answer("Let me see."),
                {engine::ReplyEvent::Kind::CallBegin, {}, "look_up", {}},
                {engine::ReplyEvent::Kind::CallArgument, {}, "word", "\"a\""},
                call("look_up", R"({"word": "a"})"),
                call("look_up", "{}")},
               reply(ReplyEnd::Stop, 9)));
}

TEST_F(ChatApi, CallsOfAWholeAnswer) {
  const Json body = parseOrderedJson(
      answerTo(kTools, {call("look_up", R"({"word": "a"})")}, reply(ReplyEnd::Stop, 9)));
  EXPECT_EQ(R"({"role":"assistant","content":null,"refusal":null,"tool_calls":[)"
            R"({"id":"call_000000000000000400000000","type":"function",)"
            R"("function":{"name":"look_up","arguments":"{\"word\": \"a\"}"}}]})",
            body["choices"][0]["message"].dump());
  EXPECT_EQ("tool_calls", body["choices"][0]["finish_reason"]);
}

TEST_F(ChatApi, CallsThatAreCutShortAreNone) {
  const engine::ReplyEvent cut = {
      engine::ReplyEvent::Kind::CallIncomplete, "<tool_call>\n<function=lo", {}, "{}"};
  Json body = parseOrderedJson(answerTo(kTools, {answer("So: "), cut}, reply(ReplyEnd::Limit, 9)));
  EXPECT_EQ("So: ", body["choices"][0]["message"]["content"]);
  EXPECT_FALSE(body["choices"][0]["message"].contains("tool_calls"));
  EXPECT_EQ("length", body["choices"][0]["finish_reason"]);
  // Where the model itself ended there, its words are the answer.
  body = parseOrderedJson(answerTo(kTools, {answer("So: "), cut}, reply(ReplyEnd::Stop, 9)));
  EXPECT_EQ("So: <tool_call>\n<function=lo", body["choices"][0]["message"]["content"]);
  EXPECT_EQ("stop", body["choices"][0]["finish_reason"]);
}

TEST_F(ChatApi, SeveralChoices) {
  const auto exchange = ask(R"("n": 2, "stream": false)");
  EXPECT_EQ(2U, service.queue.request.choices);
  GenerationSink& sink = *service.queue.sink;
  sink.started({10, 0});
  sink.event(1, answer("b"));
  sink.event(0, answer("a"));
  sink.finished(1, reply(ReplyEnd::Stop, 3));
  sink.event(0, answer("A"));
  sink.finished(0, reply(ReplyEnd::ContextFull, 4));
  sink.done();
  const Json body = parseOrderedJson(exchange->written);
  ASSERT_EQ(2U, body["choices"].size());
  EXPECT_EQ("aA", body["choices"][0]["message"]["content"]);
  EXPECT_EQ("length", body["choices"][0]["finish_reason"]);
  EXPECT_EQ("b", body["choices"][1]["message"]["content"]);
  EXPECT_EQ(1, body["choices"][1]["index"]);
  EXPECT_EQ(7, body["usage"]["completion_tokens"]);
}

engine::LogProbabilities chosen(int32_t id, double logProbability) {
  return {{id, logProbability}, {{id, logProbability}, {id + 1, -INFINITY}}};
}

TEST_F(ChatApi, LogProbabilitiesOfTheAnswerAlone) {
  const auto exchange =
      ask(R"("logprobs": true, "top_logprobs": 2, "stream": true, "reasoning_effort": "high", )" +
          kTools);
  EXPECT_EQ(2U, service.queue.request.logProbabilities);
  GenerationSink& sink = *service.queue.sink;
  sink.started({10, 0});
  const int32_t a = kel::test::chatId("a");
  sink.token(0, chosen(a + 9, -1));  // reasoning
  sink.event(0, reasoning("j"));
  sink.token(0, chosen(kThinkEndId, -1));
  sink.token(0, chosen(kel::test::chatId("\n"), -1));
  sink.token(0, chosen(a, -0.5));
  exchange->written.clear();
  sink.event(0, answer("a"));
  EXPECT_EQ(
      chunk(
          R"({"index":0,"delta":{"content":"a"},"logprobs":{"content":[)"
          R"({"token":"a","logprob":-0.5,"bytes":[97],"top_logprobs":[)"
          R"({"token":"a","logprob":-0.5,"bytes":[97]},)"
          R"({"token":"b","logprob":-9999.0,"bytes":[98]}]}],"refusal":null},"finish_reason":null})"),
      exchange->written);
  sink.token(0, chosen(kCallId, -1));
  sink.token(0, chosen(a, -1));
  sink.token(0, chosen(kCallEndId, -1));
  sink.event(0, call("look_up", "{}"));
  sink.token(0, chosen(a + 2, -1));
  exchange->written.clear();
  sink.event(0, answer("c"));
  const Json event = parseOrderedJson(exchange->written.substr(6));
  const Json& content = event["choices"][0]["logprobs"]["content"];
  ASSERT_EQ(1U, content.size()) << "neither the framing of the call nor what is in it";
  EXPECT_EQ("c", content[0]["token"]);
}

TEST_F(ChatApi, LogProbabilitiesOfAWholeAnswer) {
  const auto exchange = ask(R"("logprobs": true)");
  GenerationSink& sink = *service.queue.sink;
  sink.started({10, 0});
  const int32_t a = kel::test::chatId("a");
  for (const int32_t id : {a, a + 1}) {
    sink.token(0, {{id, -0.5}, {}});
    sink.event(0, answer(std::string(1, static_cast<char>('a' + (id - a)))));
  }
  sink.token(0, {{a + 5, -0.5}, {}});  // of a stop string: no text of it is told
  sink.finished(0, reply(ReplyEnd::StopString, 3));
  sink.done();
  EXPECT_EQ(R"({"content":[{"token":"a","logprob":-0.5,"bytes":[97],"top_logprobs":[]},)"
            R"({"token":"b","logprob":-0.5,"bytes":[98],"top_logprobs":[]}],"refusal":null})",
            parseOrderedJson(exchange->written)["choices"][0]["logprobs"].dump());
}

TEST_F(ChatApi, LogProbabilitiesShowSpacesAsSuch) {
  const auto exchange = ask(R"("logprobs": true)");
  GenerationSink& sink = *service.queue.sink;
  sink.started({10, 0});
  sink.token(0, {{kel::test::chatId("\u2581"), -0.5}, {}});
  sink.event(0, answer(" "));
  sink.finished(0, reply(ReplyEnd::Stop, 3));
  sink.done();
  EXPECT_EQ(" ",
            parseOrderedJson(exchange->written)["choices"][0]["logprobs"]["content"][0]["token"]);
}

TEST_F(ChatApi, OutputIsValidUtf8) {
  const Json body = parseOrderedJson(answerTo("",
                                              {answer("a\xFF"
                                                      "b")},
                                              reply(ReplyEnd::Stop, 3)));
  EXPECT_EQ("a\uFFFDb", body["choices"][0]["message"]["content"]);
}

TEST_F(ChatApi, WhatCannotBeFulfilled) {
  auto exchange = ask("");
  service.queue.sink->failed(GenerationFault::Request, "No user query found in messages.");
  EXPECT_EQ(400, exchange->status);
  EXPECT_EQ(R"({"error":{"message":"No user query found in messages.",)"
            R"("type":"invalid_request_error","param":null,"code":null}})",
            exchange->written);

  exchange = ask(R"("stream": true)");
  service.queue.sink->failed(GenerationFault::TooLong, "there is no room for it");
  EXPECT_EQ(400, exchange->status) << "streams have a status of their own until they begin";
  EXPECT_EQ("context_length_exceeded", parseOrderedJson(exchange->written)["error"]["code"]);
  EXPECT_TRUE(exchange->ended);

  exchange = ask("");
  service.queue.sink->failed(GenerationFault::Numbers, "numbers went wrong");
  EXPECT_EQ(500, exchange->status);
  EXPECT_EQ("server_error", parseOrderedJson(exchange->written)["error"]["type"]);

  exchange = ask("");
  service.queue.sink->failed(GenerationFault::NoMemory, "no memory");
  EXPECT_EQ(503, exchange->status);
}

TEST_F(ChatApi, FailureInTheMiddleOfAStream) {
  const auto exchange = ask(R"("stream": true)");
  service.queue.sink->started({10, 0});
  exchange->written.clear();
  service.queue.sink->failed(GenerationFault::Numbers, "numbers went wrong");
  EXPECT_EQ(
      "data: {\"error\":{\"message\":\"numbers went wrong\",\"type\":\"server_error\","
      "\"param\":null,\"code\":null}}\n\n",
      exchange->written);
  EXPECT_TRUE(exchange->ended);
}

TEST_F(ChatApi, CutOffReplies) {
  auto exchange = ask("");
  play(*service.queue.sink, {answer("a")}, reply(ReplyEnd::Cancelled, 1));
  EXPECT_EQ(503, exchange->status);
  exchange = ask(R"("stream": true)");
  play(*service.queue.sink, {answer("a")}, reply(ReplyEnd::Cancelled, 1));
  EXPECT_NE(std::string::npos, exchange->written.find("the server is shutting down"));
  EXPECT_EQ(std::string::npos, exchange->written.find("[DONE]"));
  EXPECT_TRUE(exchange->ended);
}

TEST_F(ChatApi, NoRoomInTheQueue) {
  for (const Submission refusal : {Submission::QueueFull, Submission::ShuttingDown}) {
    service.queue.answer = refusal;
    const auto exchange = ask(R"("stream": true)");
    EXPECT_EQ(503, exchange->status);
    EXPECT_EQ("server_error", parseOrderedJson(exchange->written)["error"]["type"]);
  }
}

TEST_F(ChatApi, CallersThatGoAwayCancel) {
  const auto exchange = ask("");
  EXPECT_EQ(0, *service.queue.sink->cancel());
  exchange->callerGone = 1;
  EXPECT_EQ(1, *service.queue.sink->cancel());
}

TEST_F(ChatApi, MessagesOfAllRoles) {
  const auto exchange = service.ask("POST", kPath, R"({"messages": [
    {"role": "system", "content": "Be brief."},
    {"role": "developer", "content": [{"type": "text", "text": "Be "}, {"type": "text", "text": "kind."}]},
    {"role": "user", "content": "hi", "name": "kim"},
    {"role": "assistant", "content": null, "reasoning_content": "hm", "refusal": null, "parsed": {"a": 1},
     "tool_calls": [
       {"id": "c1", "type": "function", "function": {"name": "f", "arguments": "{\"b\": 1, \"a\": 2}"}},
       {"id": "c2", "type": "function", "index": 1, "function": {"name": "g", "arguments": "", "parsed_arguments": {}}}]},
    {"role": "tool", "tool_call_id": "c2", "content": "two"},
    {"role": "tool", "tool_call_id": "c1", "content": [{"type": "text", "text": "one"}]},
    {"role": "assistant", "content": "so"},
    {"role": "user", "content": "ok"}]})");
  ASSERT_NE(nullptr, service.queue.sink) << exchange->written;
  const std::vector<engine::Message>& messages = service.queue.request.messages;
  ASSERT_EQ(7U, messages.size());
  EXPECT_EQ(Role::System, messages[0].role);
  EXPECT_EQ("Be brief.\n\nBe kind.", messages[0].content);
  EXPECT_EQ(Role::User, messages[1].role);
  EXPECT_EQ("hi", messages[1].content);
  EXPECT_EQ(Role::Assistant, messages[2].role);
  EXPECT_EQ("", messages[2].content);
  EXPECT_EQ("hm", messages[2].reasoningContent);
  ASSERT_EQ(2U, messages[2].toolCalls.size());
  EXPECT_EQ("f", messages[2].toolCalls[0].name);
  EXPECT_EQ(R"({"b": 1, "a": 2})", messages[2].toolCalls[0].arguments);
  EXPECT_EQ(Role::Tool, messages[3].role);
  EXPECT_EQ("one", messages[3].content) << "in the order of the calls";
  EXPECT_EQ("two", messages[4].content);
  EXPECT_EQ("so", messages[5].content);
  EXPECT_EQ(std::nullopt, messages[5].reasoningContent);
}

TEST_F(ChatApi, RefusedMessages) {
  struct Case {
    std::string messages;
    std::string param;
  };
  const std::string user = R"({"role": "user", "content": "a"})";
  const auto called = [&](const std::string& id, const std::string& arguments) {
    return "[" + user + R"(, {"role": "assistant", "tool_calls": [{"id": )" + id +
           R"(, "type": "function", "function": {"name": "f", "arguments": )" + arguments + "}}]}]";
  };
  const std::vector<Case> cases = {
      {"[]", "messages"},
      {"{}", "messages"},
      {"[1]", "messages[0]"},
      {R"([{"content": "a"}])", "messages[0].role"},
      {R"([{"role": "function", "content": "a"}])", "messages[0].role"},
      {R"([{"role": "user"}])", "messages[0].content"},
      {R"([{"role": "user", "content": 1}])", "messages[0].content"},
      {R"([{"role": "user", "content": "a", "odd": 1}])", "messages[0].odd"},
      {R"([{"role": "user", "content": [{"type": "image_url", "image_url": {"url": "x"}}]}])",
       "messages[0].content[0].type"},
      {R"([{"role": "user", "content": [{"type": "input_audio"}]}])",
       "messages[0].content[0].type"},
      {R"([{"role": "user", "content": [{"type": "text"}]}])", "messages[0].content[0].text"},
      {"[" + user + R"(, {"role": "system", "content": "a"}])", "messages[1].role"},
      {R"([{"role": "assistant"}])", "messages[0].content"},
      {R"([{"role": "assistant", "content": "", "audio": {"id": "x"}}])", "messages[0].audio"},
      {called("1", "\"{}\""), "messages[1].tool_calls[0].id"},
      {called("\"c\"", "\"[]\""), "messages[1].tool_calls[0].function.arguments"},
      {called("\"c\"", "{}"), "messages[1].tool_calls[0].function.arguments"},
      {"[" + user + R"(, {"role": "tool", "tool_call_id": "c", "content": "a"}])",
       "messages[1].tool_call_id"},
      {"[" + user + R"(, {"role": "tool", "content": "a"}])", "messages[1].tool_call_id"},
  };
  for (const Case& refused : cases) {
    const auto exchange = service.ask("POST", kPath, R"({"messages": )" + refused.messages + "}");
    EXPECT_EQ(400, exchange->status) << refused.messages;
    EXPECT_EQ(nullptr, service.queue.sink) << refused.messages;
    EXPECT_EQ(refused.param, parseOrderedJson(exchange->written)["error"]["param"])
        << refused.messages;
  }
  EXPECT_EQ(R"({"error":{"message":"messages[0].content[0].type \"image_url\" is not supported: )"
            R"(contents are text","type":"invalid_request_error",)"
            R"("param":"messages[0].content[0].type","code":null}})",
            service
                .ask("POST", kPath,
                     R"({"messages": [{"role": "user", "content": [{"type": "image_url"}]}]})")
                ->written);
}

TEST_F(ChatApi, RefusedFields) {
  struct Case {
    std::string fields;
    std::string param;
  };
  const std::vector<Case> cases = {
      {R"("odd": 1)", "odd"},
      {R"("model": 1)", "model"},
      {R"("n": 5)", "n"},
      {R"("n": 0)", "n"},
      {R"("logprobs": 1)", "logprobs"},
      {R"("top_logprobs": 1)", "top_logprobs"},
      {R"("logprobs": true, "top_logprobs": 21)", "top_logprobs"},
      {R"("stream": "yes")", "stream"},
      {R"("stream_options": {"include_usage": true})", "stream_options"},
      {R"("stream": true, "stream_options": {"odd": true})", "stream_options.odd"},
      {R"("store": true)", "store"},
      {R"("functions": [])", "functions"},
      {R"("function_call": "auto")", "function_call"},
      {R"("modalities": ["audio"])", "modalities"},
      {R"("modalities": ["text", "audio"])", "modalities"},
      {R"("audio": {})", "audio"},
      {R"("verbosity": "low")", "verbosity"},
      {R"("max_tokens": 0)", "max_tokens"},
      {R"("max_completion_tokens": -1)", "max_completion_tokens"},
  };
  for (const Case& refused : cases) {
    const auto exchange = ask(refused.fields);
    EXPECT_EQ(400, exchange->status) << refused.fields;
    EXPECT_EQ(nullptr, service.queue.sink) << refused.fields;
    EXPECT_EQ(refused.param, parseOrderedJson(exchange->written)["error"]["param"])
        << refused.fields;
  }
}

TEST_F(ChatApi, OtherModels) {
  EXPECT_EQ(0, ask(R"("model": "other-name")")->status);
  EXPECT_EQ(0, ask(R"("model": null)")->status);
  const auto exchange = ask(R"("model": "larger")");
  EXPECT_EQ(404, exchange->status);
  EXPECT_EQ(R"({"error":{"message":"the model \"larger\" is not served here; \"small\" is",)"
            R"("type":"invalid_request_error","param":"model","code":"model_not_found"}})",
            exchange->written);
}

TEST_F(ChatApi, HarmlessFields) {
  const auto exchange =
      ask(R"("user": "me", "metadata": {"a": "b"}, "store": false, "safety_identifier": "x",)"
          R"( "prompt_cache_key": "k", "prompt_cache_retention": "24h", "service_tier": "auto",)"
          R"( "prediction": null, "modalities": ["text"], "verbosity": "medium")");
  EXPECT_NE(nullptr, service.queue.sink) << exchange->written;
}

TEST_F(ChatApi, TheLargerNameOfALimitCounts) {
  ask(R"("max_tokens": 5)");
  EXPECT_EQ(5U, service.queue.request.options.maxTokens);
  ask(R"("max_tokens": 5, "max_completion_tokens": 7)");
  EXPECT_EQ(7U, service.queue.request.options.maxTokens);
  ask("");
  EXPECT_EQ(0U, service.queue.request.options.maxTokens) << "as room allows";
}

}  // namespace
}  // namespace zym
