// POST /v1/messages: what a request becomes, and what its answers look like.
#include "host/serve/messages_api.h"

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
using engine::Role;

const std::string kHello = R"("max_tokens": 9, "messages": [{"role": "user", "content": "hello"}])";
const std::string kTools =
    R"(, "tools": [{"name": "look_up", "input_schema": {"type": "object"}}])";

class MessagesApi : public testing::Test {
 protected:
  std::shared_ptr<FakeExchange> ask(const std::string& fields) {
    return service.ask("POST", "/v1/messages", "{" + fields + "}");
  }
  Json answerTo(const std::string& fields, const std::vector<engine::ReplyEvent>& events,
                const engine::Reply& reply) {
    const auto exchange = ask(fields);
    play(*service.queue.sink, events, reply);
    return parseOrderedJson(exchange->written);
  }

  FakeService service;
};

TEST_F(MessagesApi, WholeAnswer) {
  const auto exchange = ask(kHello);
  EXPECT_EQ(9U, service.queue.request.options.maxTokens);
  play(*service.queue.sink,
       {reasoning("Hm"), reasoning("m"), answer("Hel"), answer("lo"),
        call("look_up", R"({"b": 1, "a": "x"})")},
       reply(ReplyEnd::Stop, 6));
  EXPECT_EQ(
      R"({"id":"msg_000000000000000200000000","type":"message","role":"assistant",)"
      R"("model":"small","content":[{"type":"thinking","thinking":"Hmm","signature":""},)"
      R"({"type":"text","text":"Hello"},{"type":"tool_use","id":"toolu_000000000000000400000000",)"
      R"("name":"look_up","input":{"a":"x","b":1}}],"stop_reason":"tool_use",)"
      R"("stop_sequence":null,"usage":{"input_tokens":6,"cache_creation_input_tokens":0,)"
      R"("cache_read_input_tokens":4,"output_tokens":6}})",
      exchange->written);
}

std::string event(const std::string& type, const std::string& fields) {
  return "event: " + type + "\ndata: {\"type\":\"" + type + "\"" +
         (fields.empty() ? "" : "," + fields) + "}\n\n";
}

TEST_F(MessagesApi, StreamedAnswer) {
  const auto exchange = ask(kHello + R"(, "stream": true)" + kTools);
  EXPECT_EQ(0, exchange->status);
  play(*service.queue.sink,
       {reasoning("Hm"), answer("Hel"), answer("lo"), call("look_up", R"({"a": 1})")},
       reply(ReplyEnd::Stop, 6));
  EXPECT_EQ("text/event-stream", exchange->type);
  const std::string usage = R"("usage":{"input_tokens":6,"cache_creation_input_tokens":0,)"
                            R"("cache_read_input_tokens":4,"output_tokens":)";
  EXPECT_EQ(
      event("message_start",
            R"("message":{"id":"msg_000000000000000200000000","type":"message",)"
            R"("role":"assistant","model":"small","content":[],"stop_reason":null,)"
            R"("stop_sequence":null,)" +
                usage + "0}}") +
          event("ping", "") +
          event("content_block_start",
                R"("index":0,"content_block":{"type":"thinking","thinking":"","signature":""})") +
          event("content_block_delta",
                R"("index":0,"delta":{"type":"thinking_delta","thinking":"Hm"})") +
          event("content_block_stop", R"("index":0)") +
          event("content_block_start", R"("index":1,"content_block":{"type":"text","text":""})") +
          event("content_block_delta", R"("index":1,"delta":{"type":"text_delta","text":"Hel"})") +
          event("content_block_delta", R"("index":1,"delta":{"type":"text_delta","text":"lo"})") +
          event("content_block_stop", R"("index":1)") +
          event("content_block_start",
                R"("index":2,"content_block":{"type":"tool_use",)"
                R"("id":"toolu_000000000000000400000000","name":"look_up","input":{}})") +
          event("content_block_delta",
                R"("index":2,"delta":{"type":"input_json_delta","partial_json":"{\"a\": 1}"})") +
          event("content_block_stop", R"("index":2)") +
          event("message_delta",
                R"("delta":{"stop_reason":"tool_use","stop_sequence":null},)" + usage + "6}") +
          event("message_stop", ""),
      exchange->written);
  EXPECT_TRUE(exchange->ended);
}

TEST_F(MessagesApi, ReasonsToStop) {
  Json body = answerTo(kHello, {answer("a")}, reply(ReplyEnd::Stop, 1));
  EXPECT_EQ("end_turn", body["stop_reason"]);
  body = answerTo(kHello, {answer("a")}, reply(ReplyEnd::Limit, 1));
  EXPECT_EQ("max_tokens", body["stop_reason"]);
  body = answerTo(kHello + R"(, "stop_sequences": ["b"])", {answer("a")},
                  reply(ReplyEnd::StopString, 1, "b"));
  EXPECT_EQ((std::vector<std::string>{"b"}), service.queue.request.options.stops);
  EXPECT_EQ("stop_sequence", body["stop_reason"]);
  EXPECT_EQ("b", body["stop_sequence"]);
}

TEST_F(MessagesApi, Errors) {
  auto exchange = ask(kHello + R"(, "odd": 1)");
  EXPECT_EQ(400, exchange->status);
  EXPECT_EQ(R"({"type":"error","error":{"type":"invalid_request_error",)"
            R"("message":"odd is not known here"}})",
            exchange->written);
  exchange = ask(kHello + R"(, "model": "larger")");
  EXPECT_EQ(404, exchange->status);
  EXPECT_EQ("not_found_error", parseOrderedJson(exchange->written)["error"]["type"]);
  exchange = ask(kHello);
  service.queue.sink->failed(GenerationFault::Numbers, "numbers went wrong");
  EXPECT_EQ("api_error", parseOrderedJson(exchange->written)["error"]["type"]);
  service.queue.answer = Submission::QueueFull;
  exchange = ask(kHello);
  EXPECT_EQ(503, exchange->status);
  EXPECT_EQ((HttpHeaders{{"Retry-After", "1"}}), exchange->headers);
  EXPECT_EQ("overloaded_error", parseOrderedJson(exchange->written)["error"]["type"]);
}

TEST_F(MessagesApi, FailureInTheMiddleOfAStream) {
  const auto exchange = ask(kHello + R"(, "stream": true)");
  service.queue.sink->started({10, 4});
  exchange->written.clear();
  service.queue.sink->failed(GenerationFault::Numbers, "numbers went wrong");
  EXPECT_EQ(
      "event: error\ndata: {\"type\":\"error\",\"error\":{\"type\":\"api_error\","
      "\"message\":\"numbers went wrong\"}}\n\n",
      exchange->written);
  EXPECT_TRUE(exchange->ended);
}

// The model writes the arguments, as deep as its context is long.
TEST_F(MessagesApi, ArgumentsWithoutBottom) {
  const auto nested = [](size_t depth) {
    return R"({"a":)" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
  };
  for (const bool isDeep : {false, true}) {
    const auto exchange =
        ask(R"("max_tokens": 9, "messages": [{"role": "user", "content": "hello"}])");
    const std::string arguments = nested(isDeep ? 400'000 : 64);
    play(*service.queue.sink, {call("f", arguments)}, reply(ReplyEnd::Stop, 1));
    const Json block = parseOrderedJson(exchange->written)["content"][0];
    EXPECT_EQ(isDeep ? "{}" : arguments, block["input"].dump());
  }
}

TEST_F(MessagesApi, BlocksOfAllKinds) {
  const auto exchange = ask(R"("max_tokens": 9,
    "system": [{"type": "text", "text": "Be brief.", "cache_control": {"type": "ephemeral"}},
               {"type": "text", "text": "Be kind."}],
    "messages": [
      {"role": "user", "content": [{"type": "text", "text": "a"}, {"type": "text", "text": "b",
        "cache_control": {"type": "ephemeral"}}]},
      {"role": "assistant", "content": [
        {"type": "thinking", "thinking": "hm", "signature": ""},
        {"type": "text", "text": "Let me see."},
        {"type": "tool_use", "id": "t1", "name": "f", "input": {"b": 1, "a": 2}},
        {"type": "tool_use", "id": "t2", "name": "g", "input": {}}]},
      {"role": "user", "content": [
        {"type": "tool_result", "tool_use_id": "t2", "content": [{"type": "text", "text": "two"}]},
        {"type": "tool_result", "tool_use_id": "t1", "content": "one", "is_error": true},
        {"type": "text", "text": "and?"}]}])");
  ASSERT_NE(nullptr, service.queue.sink) << exchange->written;
  const std::vector<engine::Message>& messages = service.queue.request.messages;
  ASSERT_EQ(6U, messages.size());
  EXPECT_EQ(Role::System, messages[0].role);
  EXPECT_EQ("Be brief.\nBe kind.", messages[0].content);
  EXPECT_EQ("a\nb", messages[1].content);
  EXPECT_EQ("hm", messages[2].reasoningContent);
  EXPECT_EQ("Let me see.", messages[2].content);
  ASSERT_EQ(2U, messages[2].toolCalls.size());
  EXPECT_EQ(R"({"b": 1, "a": 2})", messages[2].toolCalls[0].arguments);
  EXPECT_EQ(Role::Tool, messages[3].role);
  EXPECT_EQ("one", messages[3].content);
  EXPECT_EQ("two", messages[4].content);
  EXPECT_EQ(Role::User, messages[5].role);
  EXPECT_EQ("and?", messages[5].content);
}

TEST_F(MessagesApi, Reasoning) {
  ask(kHello);
  EXPECT_FALSE(service.queue.request.thinking);
  ask(kHello + R"(, "thinking": {"type": "enabled", "budget_tokens": 2048})");
  EXPECT_TRUE(service.queue.request.thinking);
  EXPECT_EQ(2048U, service.queue.request.options.thinkingTokens);
  ask(kHello + R"(, "thinking": {"type": "adaptive"}, "output_config": {"effort": "low"})");
  EXPECT_TRUE(service.queue.request.thinking);
  EXPECT_EQ(1024U, service.queue.request.options.thinkingTokens);
  ask(kHello + R"(, "thinking": {"type": "disabled"})");
  EXPECT_FALSE(service.queue.request.thinking);
}

TEST_F(MessagesApi, RefusedFields) {
  struct Case {
    std::string fields;
    std::string message;
  };
  const auto content = [](const std::string& block) {
    return R"("max_tokens": 9, "messages": [{"role": "user", "content": [)" + block + "]}]";
  };
  const std::vector<Case> cases = {
      {R"("messages": [{"role": "user", "content": "a"}])", "max_tokens is required"},
      {R"("max_tokens": 9)", "messages is required"},
      {R"("max_tokens": 9, "messages": [])", "messages must not be empty"},
      {R"("max_tokens": 9, "messages": [{"role": "system", "content": "a"}])",
       "messages[0].role must be one of: user, assistant"},
      {content(R"({"type": "image", "source": {}})"),
       "messages[0].content[0].type \"image\" is not supported here: contents are text"},
      {content(R"({"type": "document"})"),
       "messages[0].content[0].type \"document\" is not supported here: contents are text"},
      {content(R"({"type": "tool_use", "id": "a", "name": "f", "input": {}})"),
       "messages[0].content[0].type \"tool_use\" is not supported here: contents are text"},
      {content(R"({"type": "tool_result", "tool_use_id": "x"})"),
       "messages[0].content[0].tool_use_id is the id of no call before it"},
      {content(R"({"type": "text"})"), "messages[0].content[0].text is required"},
      {content(R"({"type": "text", "text": "", "odd": 1})"),
       "messages[0].content[0].odd is not known here"},
      {R"("max_tokens": 9, "messages": [{"role": "user", "content": "a"},)"
       R"( {"role": "assistant", "content": "{"}])",
       "messages must end with one of the user: replies cannot be begun for the model"},
      {kHello + R"(, "system": 1)", "system must be an array"},
      {kHello + R"(, "thinking": {"type": "enabled"})", "thinking.budget_tokens is required"},
      {kHello + R"(, "output_config": {"effort": "low"})",
       "output_config.effort has no effect without thinking"},
      {kHello + R"(, "mcp_servers": [])", "mcp_servers is not known here"},
      {kHello + R"(, "stop": "a")", "stop is not known here"},
  };
  for (const Case& refused : cases) {
    const auto exchange = ask(refused.fields);
    EXPECT_EQ(400, exchange->status) << refused.fields;
    EXPECT_EQ(nullptr, service.queue.sink) << refused.fields;
    EXPECT_EQ(refused.message, parseOrderedJson(exchange->written)["error"]["message"]);
  }
}

TEST_F(MessagesApi, HarmlessFields) {
  const auto exchange =
      ask(kHello + R"(, "metadata": {"user_id": "me"}, "service_tier": "auto",)"
                   R"( "cache_control": {"type": "ephemeral"}, "inference_geo": "x")");
  EXPECT_NE(nullptr, service.queue.sink) << exchange->written;
}

TEST_F(MessagesApi, Forms) {
  ask(kHello + R"(, "output_config": {"format": {"type": "json_schema", "schema": {"a": 1}}})");
  EXPECT_EQ(R"({"a": 1})", service.constraint.schema);
  EXPECT_NE(nullptr, service.queue.request.makeConstraint);
}

TEST_F(MessagesApi, CountsTokens) {
  const auto count = [&](const std::string& fields) {
    const auto exchange =
        service.ask("POST", "/v1/messages/count_tokens",
                    R"({"messages": [{"role": "user", "content": "hello"}])" + fields + "}");
    EXPECT_EQ(200, exchange->status) << exchange->written;
    return parseOrderedJson(exchange->written)["input_tokens"].get<int>();
  };
  // Of the vocabulary's characters: <|im_start|>user\nhello<|im_end|>\n<|im_start|>assistant\n
  // <think>\n\n</think>\n\n
  EXPECT_EQ(1 + 5 + 5 + 1 + 1 + 1 + 10 + 1 + 2 + 1 + 2, count(""));
  EXPECT_EQ(count("") + 1 + 7 + 3 + 1 + 1, count(R"(, "system": "abc")"));
  const auto exchange = service.ask("POST", "/v1/messages/count_tokens", R"({"messages": []})");
  EXPECT_EQ(400, exchange->status);
}

}  // namespace
}  // namespace zym
