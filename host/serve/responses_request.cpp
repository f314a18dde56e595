// The request of POST /v1/responses.
#include <fmt/core.h>

#include <array>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include "host/serve/conversation_fields.h"
#include "host/serve/harmless_fields.h"
#include "host/serve/request_fields.h"
#include "host/serve/responses_api.h"
#include "host/serve/stream_options.h"
#include "host/serve/tool_fields.h"

namespace zym {

namespace {

using engine::Message;

constexpr std::array<std::string_view, 3> kTextParts = {"input_text", "output_text", "text"};
constexpr std::array<std::string_view, 2> kReasoningParts = {"reasoning_text", "summary_text"};

// Of items that come back as they were given out.
// Clients add what they have parsed.
constexpr std::array<std::string_view, 4> kHarmlessInItems = {"id", "status", "phase",
                                                              "parsed_arguments"};

// Reasoning, text and calls of one turn come as items of their own; together they are one message.
class InputReader {
 public:
  InputReader(const ApiLimits& apiLimits, ApiError& firstError)
      : limits(apiLimits), error(firstError), conversation(firstError) {}

  ConversationBuilder& builder() { return conversation; }

  void read(std::string_view json, const std::string& path) {
    Fields item(json, path, error);
    const std::string type = item.string("type").value_or("message");
    if (type == "message") {
      readMessage(item);
    } else if (type == "function_call") {
      readCall(item);
    } else if (type == "function_call_output") {
      endReply();
      item.require("call_id");
      item.require("output");
      conversation.addResult(item.string("call_id").value_or(""),
                             readContent(item, "output", kTextParts, limits),
                             item.pathOf("call_id"));
    } else if (type == "reasoning") {
      readReasoning(item);
    } else {
      item.fail("type", fmt::format("\"{}\" is not supported: items are messages, function calls, "
                                    "their outputs and reasoning",
                                    type));
    }
    item.finish(kHarmlessInItems);
  }

  std::vector<Message> take() {
    endReply();
    return conversation.take();
  }

 private:
  void readMessage(Fields& item) {
    static constexpr std::array<std::string_view, 4> kRoles = {"assistant", "user", "system",
                                                               "developer"};
    enum : size_t { Assistant = 0, User = 1 };
    item.require("role");
    item.require("content");
    const size_t role = item.word("role", kRoles).value_or(User);
    std::string content = readContent(item, "content", kTextParts, limits);
    if (role == Assistant) {
      beginReply(hasAnswer());
      reply->content = std::move(content);
      return;
    }
    endReply();
    if (role == User) {
      conversation.addUser(std::move(content));
    } else {
      conversation.addSystem(std::move(content), item.pathOf("role"));
    }
  }

  void readCall(Fields& item) {
    item.require("call_id");
    item.require("name");
    item.require("arguments");
    engine::ToolCall call{item.string("name").value_or(""), item.string("arguments").value_or("")};
    if (call.arguments.find_first_not_of(" \t\r\n") != std::string::npos &&
        engine::jsonKind(call.arguments) != engine::JsonKind::Object) {
      item.fail("arguments", "must be a JSON object, as a string");
    }
    beginReply(false);
    reply->toolCalls.push_back(std::move(call));
    callIds.push_back(item.string("call_id").value_or(""));
  }

  void readReasoning(Fields& item) {
    item.refuse("encrypted_content", "was not made here");
    std::string text = readContent(item, "content", kReasoningParts, limits);
    std::string summary = readContent(item, "summary", kReasoningParts, limits);
    beginReply(hasAnswer() || (reply && reply->reasoningContent));
    reply->reasoningContent = text.empty() ? std::move(summary) : std::move(text);
  }

  bool hasAnswer() const { return reply && (!reply->content.empty() || !reply->toolCalls.empty()); }

  void beginReply(bool anew) {
    if (anew) {
      endReply();
    }
    if (!reply) {
      reply.emplace();
    }
  }

  void endReply() {
    if (reply) {
      conversation.addAssistant(std::move(*reply), callIds);
      reply.reset();
      callIds.clear();
    }
  }

  const ApiLimits& limits;
  ApiError& error;
  ConversationBuilder conversation;
  std::optional<Message> reply;
  std::vector<std::string> callIds;
};

void readInput(Fields& body, const ServedModel& served, GenerationRequest& out) {
  const ApiLimits& limits = served.services.limits;
  InputReader reader(limits, body.errors());
  if (auto instructions = body.string("instructions")) {
    reader.builder().addSystem(std::move(*instructions), "instructions");
  }
  body.require("input");
  const std::optional<std::string_view> value = body.value("input");
  if (value && kindOf(*value) == engine::JsonKind::String) {
    reader.builder().addUser(body.string("input").value_or(""));
  } else if (value && kindOf(*value) == engine::JsonKind::Array) {
    const auto items = body.array("input", limits.messages);
    for (size_t i = 0; items && i < items->size() && body.ok(); ++i) {
      reader.read((*items)[i], fmt::format("input[{}]", i));
    }
  } else {
    body.fail("input", "must be a string or an array of items");
  }
  out.messages = reader.take();
}

Thinking readReasoning(Fields& body, const ServedModel& served) {
  // A summary would be another reply; the reasoning itself is shown.
  static constexpr std::array<std::string_view, 2> kHarmless = {"summary", "generate_summary"};
  Thinking thinking{.enabled = served.thinksByDefault};
  if (const auto object = body.object("reasoning")) {
    Fields reasoning(*object, "reasoning", body.errors());
    readEffort(reasoning, "effort", served, thinking);
    reasoning.finish(kHarmless);
  }
  readTemplateArguments(body, served, thinking);
  return thinking;
}

void readInclude(Fields& body, const ServedModel& served, GenerationRequest& out) {
  // There is no reasoning that would have to be hidden by encryption: nothing to include.
  constexpr std::string_view kEncrypted = "\"reasoning.encrypted_content\"";
  constexpr std::string_view kLogProbabilities = "\"message.output_text.logprobs\"";
  constexpr size_t kMost = 16;
  bool wanted = false;
  const auto include = body.array("include", kMost);
  for (size_t i = 0; include && i < include->size(); ++i) {
    const std::string_view what = (*include)[i];
    if (what == kLogProbabilities) {
      wanted = true;
    } else if (what != kEncrypted) {
      failAt(body.errors(), fmt::format("include[{}]", i), "is not supported");
    }
  }
  const auto best = body.whole("top_logprobs", 0,
                               static_cast<int64_t>(served.services.limits.topLogProbabilities));
  if (wanted) {
    out.logProbabilities = static_cast<size_t>(best.value_or(0));
  } else if (best.value_or(0) != 0) {
    body.fail("top_logprobs", "needs \"message.output_text.logprobs\" in include");
  }
}

std::optional<AnswerForm> readText(Fields& body, const ApiLimits& limits) {
  std::optional<AnswerForm> form;
  if (const auto object = body.object("text")) {
    Fields text(*object, "text", body.errors());
    form = readAnswerForm(text, "format", SchemaPlace::Inside, limits);
    readVerbosity(text);
    text.finish();
  }
  return form;
}

void refuseKept(Fields& body) {
  body.refuse("previous_response_id", "is not supported: nothing is stored; send the whole input");
  body.refuse("conversation", "is not supported: nothing is stored; send the whole input");
  body.refuse("prompt", "is not supported: nothing is stored");
  body.refuse("max_tool_calls", "is not supported: tools are called by the caller");
  if (body.boolean("background").value_or(false)) {
    body.fail("background", "must be false: nothing is stored");
  }
  if (const auto truncation = body.string("truncation"); truncation && *truncation != "disabled") {
    body.fail("truncation", "must be \"disabled\": inputs are not shortened");
  }
  // Deliberate: true is the interface's default and what clients send without meaning it; that
  // nothing has been stored shows where it would be used, at previous_response_id.
  (void)body.boolean("store");
}

// What a response says of its request. Parsed by sorted keys first: the parser of ordered ones
// takes time by the square of their number.
Json repeated(Fields& body, std::string_view key, Json otherwise) {
  const auto value = body.value(key);
  return value ? Json(nlohmann::json::parse(*value)) : std::move(otherwise);
}

// As people write it: 0.7, not the nearest float's digits in double precision.
double shortNumber(float value) {
  return std::strtod(fmt::format("{}", value).c_str(), nullptr);
}

Json settingsOf(Fields& body, const GenerationRequest& request, const ToolUse& tools) {
  const uint64_t limit = request.options.maxTokens;
  return {{"instructions", repeated(body, "instructions", nullptr)},
          {"max_output_tokens", limit == 0 ? Json() : Json(limit)},
          {"parallel_tool_calls", tools.allowsSeveral},
          {"previous_response_id", nullptr},
          {"reasoning", repeated(body, "reasoning", {{"effort", nullptr}, {"summary", nullptr}})},
          {"store", false},
          {"temperature", shortNumber(request.options.sampling.temperature)},
          {"text", repeated(body, "text", {{"format", {{"type", "text"}}}})},
          {"tool_choice", repeated(body, "tool_choice", "auto")},
          {"tools", repeated(body, "tools", Json::array())},
          {"top_p", shortNumber(request.options.sampling.topP)},
          {"truncation", "disabled"},
          {"metadata", repeated(body, "metadata", Json::object())}};
}

}  // namespace

ApiError readResponseRequest(std::string_view text, const ServedModel& served,
                             ResponseRequest& out) {
  const ApiLimits& limits = served.services.limits;
  ApiError error;
  if (!isJsonObject(text, limits.depth, error)) {
    return error;
  }
  Fields body(text, "", error);
  GenerationRequest& request = out.request;
  readModelName(body, served);
  refuseKept(body);
  readInput(body, served, request);
  applyThinking(readReasoning(body, served), request);
  readSampling(body, served, request.thinking, request);
  request.options.maxTokens = readTokenLimit(body, "max_output_tokens");
  readStops(body, "stop", limits, request);
  readInclude(body, served, request);
  out.streams = body.boolean("stream").value_or(false);
  readStreamOptions(body, out.streams);
  const ToolUse tools = readTools(body, ToolPlace::Parameters, served);
  const auto form = readText(body, limits);
  (void)readSchema(body, "metadata", limits);  // is repeated as a whole
  body.finish(kHarmlessInResponses);
  applyTools(tools, form, served, error, request);
  if (!error) {
    out.settings = std::make_shared<Json>(settingsOf(body, request, tools));
  }
  return error;
}

}  // namespace zym
