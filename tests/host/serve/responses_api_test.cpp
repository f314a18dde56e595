// POST /v1/responses: what a request becomes, and what its answers look like.
#include "host/serve/responses_api.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/host/serve/fake_service.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using kel::test::parseOrderedJson;
using namespace testing_support;
using engine::ReplyEnd;
using engine::Role;

const std::string kTools =
    R"("tools": [{"type": "function", "name": "look_up", "parameters": {"type": "object"}}])";

// The golden texts below begin so.
const std::string kId = R"("id":"resp_000000000000000200000000","object":"response",)"
                        R"("created_at":1700000001,"status":)";
const std::string kSettings =
    R"("instructions":null,"max_output_tokens":null,"parallel_tool_calls":true,)"
    R"("previous_response_id":null,"reasoning":{"effort":null,"summary":null},"store":false,)"
    R"("temperature":0.7,"text":{"format":{"type":"text"}},"tool_choice":"auto","tools":[],)"
    R"("top_p":0.8,"truncation":"disabled","metadata":{},"usage":)";
const std::string kUsage =
    R"({"input_tokens":10,"input_tokens_details":{"cached_tokens":4},"output_tokens":6,)"
    R"("output_tokens_details":{"reasoning_tokens":3},"total_tokens":16})";

std::string response(const std::string& status, const std::string& output,
                     const std::string& usage = "null") {
  return "{" + kId + "\"" + status +
         R"(","background":false,"error":null,"incomplete_details":null,"model":"small","output":)" +
         output + "," + kSettings + usage + "}";
}

class ResponsesApi : public testing::Test {
 protected:
  std::shared_ptr<FakeExchange> ask(const std::string& fields) {
    return service.ask("POST", "/v1/responses", "{" + fields + "}");
  }
  std::vector<engine::Message> messagesOf(const std::string& fields) {
    const auto exchange = ask(fields);
    EXPECT_NE(nullptr, service.queue.sink) << exchange->written;
    return service.queue.request.messages;
  }

  FakeService service;
};

std::string reasoningItem(const std::string& id, const std::string& text) {
  return R"({"id":")" + id + R"(","type":"reasoning","summary":[],"content":)" +
         R"([{"type":"reasoning_text","text":")" + text + R"("}],"status":"completed"})";
}
std::string textPart(const std::string& text) {
  return R"({"type":"output_text","text":")" + text + R"(","annotations":[],"logprobs":[]})";
}
std::string messageItem(const std::string& id, const std::string& text,
                        const std::string& status = "completed") {
  return R"({"id":")" + id + R"(","type":"message","status":")" + status +
         R"(","role":"assistant","content":[)" + textPart(text) + "]}";
}
std::string callItem(const std::string& status, const std::string& arguments) {
  return R"({"id":"fc_000000000000000400000000","type":"function_call","status":")" + status +
         R"(","call_id":"call_000000000000000600000000","name":"look_up","arguments":")" +
         arguments + "\"}";
}

TEST_F(ResponsesApi, WholeAnswer) {
  const auto exchange = ask(R"("input": "hello")");
  play(*service.queue.sink, {reasoning("Hm"), answer("Hel"), answer("lo")},
       reply(ReplyEnd::Stop, 6));
  EXPECT_EQ(200, exchange->status);
  EXPECT_EQ(response("completed",
                     "[" + reasoningItem("rs_000000000000000400000000", "Hm") + "," +
                         messageItem("msg_000000000000000600000000", "Hello") + "]",
                     kUsage),
            exchange->written);
}

// Streams as "TYPE DATA", one event a line, without what every event has.
std::string eventsOf(const std::string& stream) {
  std::string lines;
  size_t at = 0;
  uint64_t number = 0;
  while (at < stream.size()) {
    const size_t end = stream.find("\n\n", at);
    const std::string event = stream.substr(at, end - at);
    const size_t data = event.find("\ndata: ");
    const std::string type = event.substr(7, data - 7);
    const std::string head =
        R"({"type":")" + type + R"(","sequence_number":)" + std::to_string(number++) + ",";
    EXPECT_EQ("event: " + type, event.substr(0, data));
    EXPECT_EQ(head, event.substr(data + 7, head.size()));
    lines += type + " {" + event.substr(data + 7 + head.size()) + "\n";
    at = end + 2;
  }
  return lines;
}

TEST_F(ResponsesApi, StreamedAnswer) {
  const auto exchange = ask(R"("input": "hello", "stream": true)");
  GenerationSink& sink = *service.queue.sink;
  EXPECT_EQ(0, exchange->status);
  play(sink, {reasoning("Hm"), answer("Hel"), answer("lo")}, reply(ReplyEnd::Stop, 6));
  EXPECT_EQ("text/event-stream", exchange->type);
  const std::string rs = R"({"item_id":"rs_000000000000000400000000","output_index":0,)"
                         R"("content_index":0,)";
  const std::string msg = R"({"item_id":"msg_000000000000000600000000","output_index":1,)"
                          R"("content_index":0,)";
  const std::string started = R"({"response":)" + response("in_progress", "[]") + "}\n";
  const std::string thoughts = reasoningItem("rs_000000000000000400000000", "Hm");
  const std::string message = messageItem("msg_000000000000000600000000", "Hello");
  EXPECT_EQ(
      "response.created " + started + "response.in_progress " + started +
          R"(response.output_item.added {"output_index":0,"item":)"
          R"({"id":"rs_000000000000000400000000","type":"reasoning","summary":[],"content":[],)"
          R"("status":"in_progress"}})"
          "\n"
          "response.content_part.added " +
          rs +
          R"("part":{"type":"reasoning_text","text":""}})"
          "\n"
          "response.reasoning_text.delta " +
          rs +
          R"("delta":"Hm"})"
          "\n"
          "response.reasoning_text.done " +
          rs +
          R"("text":"Hm"})"
          "\n"
          "response.content_part.done " +
          rs +
          R"("part":{"type":"reasoning_text","text":"Hm"}})"
          "\n"
          R"(response.output_item.done {"output_index":0,"item":)" +
          thoughts +
          "}\n"
          R"(response.output_item.added {"output_index":1,"item":)"
          R"({"id":"msg_000000000000000600000000","type":"message","status":"in_progress",)"
          R"("role":"assistant","content":[]}})"
          "\n"
          "response.content_part.added " +
          msg + R"("part":)" + textPart("") +
          "}\n"
          "response.output_text.delta " +
          msg +
          R"("delta":"Hel","logprobs":[]})"
          "\n"
          "response.output_text.delta " +
          msg +
          R"("delta":"lo","logprobs":[]})"
          "\n"
          "response.output_text.done " +
          msg +
          R"("text":"Hello","logprobs":[]})"
          "\n"
          "response.content_part.done " +
          msg + R"("part":)" + textPart("Hello") +
          "}\n"
          R"(response.output_item.done {"output_index":1,"item":)" +
          message +
          "}\n"
          R"(response.completed {"response":)" +
          response("completed", "[" + thoughts + "," + message + "]", kUsage) + "}\n",
      eventsOf(exchange->written));
  EXPECT_TRUE(exchange->ended);
}

TEST_F(ResponsesApi, StreamedCall) {
  const auto exchange = ask(R"("input": "hello", "stream": true, )" + kTools);
  service.queue.sink->started({10, 4});
  const size_t begin = exchange->written.size();
  service.queue.sink->event(0, call("look_up", R"({"a": 1})"));
  const std::string stream = exchange->written;
  const std::string item = R"({"item_id":"fc_000000000000000400000000","output_index":0,)";
  const std::string lines = eventsOf(stream);
  EXPECT_EQ(R"(response.output_item.added {"output_index":0,"item":)" +
                callItem("in_progress", "") + "}\n" + "response.function_call_arguments.delta " +
                item + R"("delta":"{\"a\": 1}"})" + "\n" +
                "response.function_call_arguments.done " + item +
                R"("name":"look_up","arguments":"{\"a\": 1}"})" + "\n" +
                R"(response.output_item.done {"output_index":0,"item":)" +
                callItem("completed", R"({\"a\": 1})") + "}\n",
            lines.substr(lines.find("response.output_item.added")));
  EXPECT_LT(begin, stream.size());
}

TEST_F(ResponsesApi, CutShortAnswers) {
  const auto exchange = ask(R"("input": "hello", "stream": true, "max_output_tokens": 6)");
  EXPECT_EQ(6U, service.queue.request.options.maxTokens);
  play(*service.queue.sink, {answer("Hel")}, reply(ReplyEnd::Limit, 6));
  const std::string lines = eventsOf(exchange->written);
  const size_t last = lines.rfind("response.incomplete ");
  ASSERT_NE(std::string::npos, last);
  const Json body = parseOrderedJson(lines.substr(last + 20))["response"];
  EXPECT_EQ("incomplete", body["status"]);
  EXPECT_EQ(R"({"reason":"max_output_tokens"})", body["incomplete_details"].dump());
  EXPECT_EQ(6, body["max_output_tokens"]);
  EXPECT_EQ("[" + messageItem("msg_000000000000000400000000", "Hel", "incomplete") + "]",
            body["output"].dump());
}

TEST_F(ResponsesApi, FailureInTheMiddleOfAStream) {
  const auto exchange = ask(R"("input": "hello", "stream": true)");
  service.queue.sink->started({10, 4});
  service.queue.sink->failed(GenerationFault::Numbers, "numbers went wrong");
  const std::string lines = eventsOf(exchange->written);
  const size_t last = lines.rfind("response.failed ");
  ASSERT_NE(std::string::npos, last);
  const Json body = parseOrderedJson(lines.substr(last + 16))["response"];
  EXPECT_EQ("failed", body["status"]);
  EXPECT_EQ(R"({"code":"server_error","message":"numbers went wrong"})", body["error"].dump());
  EXPECT_TRUE(exchange->ended);
}

TEST_F(ResponsesApi, LogProbabilities) {
  const auto exchange = ask(R"("input": "hello", "include": ["message.output_text.logprobs",)"
                            R"( "reasoning.encrypted_content"], "top_logprobs": 0)");
  EXPECT_EQ(0U, service.queue.request.logProbabilities);
  GenerationSink& sink = *service.queue.sink;
  sink.started({10, 4});
  sink.token(0, {{kel::test::chatId("a"), -0.5}, {}});
  sink.event(0, answer("a"));
  sink.finished(0, reply(ReplyEnd::Stop, 1));
  sink.done();
  EXPECT_EQ(R"([{"token":"a","logprob":-0.5,"bytes":[97],"top_logprobs":[]}])",
            parseOrderedJson(exchange->written)["output"][0]["content"][0]["logprobs"].dump());
}

TEST_F(ResponsesApi, SettingsAreRepeated) {
  const auto exchange = ask(
      R"("input": "hello", "instructions": "Be brief.", "metadata": {"k": "v"},)"
      R"( "temperature": 0.25, "parallel_tool_calls": false, "reasoning": {"effort": "low"}, )" +
      kTools);
  play(*service.queue.sink, {}, reply(ReplyEnd::Stop, 1));
  const Json body = parseOrderedJson(exchange->written);
  EXPECT_EQ("Be brief.", body["instructions"]);
  EXPECT_EQ(R"({"k":"v"})", body["metadata"].dump());
  EXPECT_EQ(0.25, body["temperature"]);
  EXPECT_EQ(false, body["parallel_tool_calls"]);
  EXPECT_EQ("low", body["reasoning"]["effort"]);
  EXPECT_EQ("look_up", body["tools"][0]["name"]);
  EXPECT_EQ("[]", body["output"].dump());
}

TEST_F(ResponsesApi, ItemsOfATurnAreOneMessage) {
  const auto messages = messagesOf(R"("instructions": "Be brief.", "input": [
    {"role": "developer", "content": "Be kind."},
    {"type": "message", "role": "user", "content": [{"type": "input_text", "text": "hi"}]},
    {"type": "reasoning", "id": "rs_1", "summary": [], "encrypted_content": null,
     "content": [{"type": "reasoning_text", "text": "hm"}]},
    {"type": "message", "id": "msg_1", "status": "completed", "role": "assistant",
     "content": [{"type": "output_text", "text": "Let me see.", "annotations": [], "parsed": {}}]},
    {"type": "function_call", "id": "fc_1", "call_id": "c1", "name": "f", "arguments": "{\"b\": 1}",
     "parsed_arguments": {"b": 1}},
    {"type": "function_call", "call_id": "c2", "name": "g", "arguments": "{}"},
    {"type": "function_call_output", "call_id": "c2", "output": "two"},
    {"type": "function_call_output", "call_id": "c1", "output": [{"type": "input_text", "text": "one"}]},
    {"type": "reasoning", "summary": [{"type": "summary_text", "text": "so"}]},
    {"role": "assistant", "content": "Done."},
    {"role": "user", "content": "ok"}])");
  ASSERT_EQ(7U, messages.size());
  EXPECT_EQ("Be brief.\n\nBe kind.", messages[0].content);
  EXPECT_EQ("hi", messages[1].content);
  EXPECT_EQ("hm", messages[2].reasoningContent);
  EXPECT_EQ("Let me see.", messages[2].content);
  ASSERT_EQ(2U, messages[2].toolCalls.size());
  EXPECT_EQ(R"({"b": 1})", messages[2].toolCalls[0].arguments);
  EXPECT_EQ(Role::Tool, messages[3].role);
  EXPECT_EQ("one", messages[3].content);
  EXPECT_EQ("two", messages[4].content);
  EXPECT_EQ("so", messages[5].reasoningContent);
  EXPECT_EQ("Done.", messages[5].content);
  EXPECT_EQ("ok", messages[6].content);
}

TEST_F(ResponsesApi, RepliesInARowStayApart) {
  const auto messages = messagesOf(R"("input": [{"role": "user", "content": "hi"},
    {"role": "assistant", "content": "a"}, {"role": "assistant", "content": "b"},
    {"type": "reasoning", "summary": [{"type": "summary_text", "text": "r"}]},
    {"type": "function_call", "call_id": "c", "name": "f", "arguments": "{}"}])");
  ASSERT_EQ(4U, messages.size());
  EXPECT_EQ("a", messages[1].content);
  EXPECT_EQ("b", messages[2].content);
  EXPECT_EQ("r", messages[3].reasoningContent);
  EXPECT_EQ(1U, messages[3].toolCalls.size());
}

TEST_F(ResponsesApi, RefusedFields) {
  struct Case {
    std::string fields;
    std::string param;
  };
  const std::string hello = R"("input": "hello", )";
  const std::vector<Case> cases = {
      {R"("model": "small")", "input"},
      {R"("input": 1)", "input"},
      {R"("input": [{"type": "item_reference", "id": "x"}])", "input[0].type"},
      {R"("input": [{"role": "user", "content": [{"type": "input_image"}]}])",
       "input[0].content[0].type"},
      {R"("input": [{"role": "tool", "content": ""}])", "input[0].role"},
      {R"("input": [{"role": "user", "content": "a"}, {"role": "system", "content": "b"}])",
       "input[1].role"},
      {R"("input": [{"type": "function_call_output", "call_id": "c", "output": ""}])",
       "input[0].call_id"},
      {R"("input": [{"type": "function_call", "call_id": "c", "name": "f", "arguments": "1"}])",
       "input[0].arguments"},
      {R"("input": [{"type": "reasoning", "summary": [], "encrypted_content": "x"}])",
       "input[0].encrypted_content"},
      {R"("input": [{"role": "user", "content": "a", "odd": 1}])", "input[0].odd"},
      {hello + R"("previous_response_id": "resp_1")", "previous_response_id"},
      {hello + R"("conversation": "conv_1")", "conversation"},
      {hello + R"("background": true)", "background"},
      {hello + R"("truncation": "auto")", "truncation"},
      {hello + R"("prompt": {"id": "p"})", "prompt"},
      {hello + R"("max_tool_calls": 3)", "max_tool_calls"},
      {hello + R"("include": ["file_search_call.results"])", "include[0]"},
      {hello + R"("top_logprobs": 2)", "top_logprobs"},
      {hello + R"("text": {"verbosity": "low"})", "text.verbosity"},
      {hello + R"("text": {"format": {"type": "json_schema"}})", "text.format.schema"},
      {hello + R"("reasoning": {"effort": "huge"})", "reasoning.effort"},
      {hello + R"("tools": [{"type": "web_search"}])", "tools[0].type"},
      {hello + R"("store": 1)", "store"},
      {hello + R"("metadata": 1)", "metadata"},
      {hello + R"("messages": [])", "messages"},
  };
  for (const Case& refused : cases) {
    const auto exchange = ask(refused.fields);
    EXPECT_EQ(400, exchange->status) << refused.fields;
    EXPECT_EQ(nullptr, service.queue.sink) << refused.fields;
    EXPECT_EQ(refused.param, parseOrderedJson(exchange->written)["error"]["param"])
        << refused.fields;
  }
}

TEST_F(ResponsesApi, TextThatHasNoRoomIsTheInputsFault) {
  const auto exchange = ask(R"("input": "hello")");
  service.queue.sink->failed(GenerationFault::TooLong, "there is no room for it");
  EXPECT_EQ("input", parseOrderedJson(exchange->written)["error"]["param"]);
}

TEST_F(ResponsesApi, FieldsThatAgentsSend) {
  const auto exchange = ask(
      R"("model": "small", "input": "hello", "store": true, "stream": true,)"
      R"( "include": ["reasoning.encrypted_content"], "prompt_cache_key": "k",)"
      R"( "reasoning": {"effort": "medium", "summary": "auto"}, "parallel_tool_calls": true,)"
      R"( "tool_choice": "auto", "text": {"verbosity": "medium", "format": {"type": "text"}},)"
      R"( "truncation": "disabled", "service_tier": "auto", "user": "me", "background": false)");
  EXPECT_NE(nullptr, service.queue.sink) << exchange->written;
  EXPECT_TRUE(service.queue.request.thinking);
  EXPECT_EQ(8192U, service.queue.request.options.thinkingTokens);
}

TEST_F(ResponsesApi, Forms) {
  ask(R"("input": "a", "text": {"format": {"type": "json_schema", "name": "n", "strict": true,)"
      R"( "schema": {"type": "object"}}})");
  EXPECT_EQ(R"({"type": "object"})", service.constraint.schema);
  EXPECT_NE(nullptr, service.queue.request.makeConstraint);
}

}  // namespace
}  // namespace zym
