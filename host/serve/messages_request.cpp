// The request of POST /v1/messages.
#include <fmt/core.h>

#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "host/serve/conversation_fields.h"
#include "host/serve/harmless_fields.h"
#include "host/serve/messages_api.h"
#include "host/serve/request_fields.h"
#include "host/serve/tool_fields.h"

namespace zym {

namespace {

using engine::JsonKind;
using engine::Message;

// Marks of what may be kept between requests; here that is found by itself.
constexpr std::string_view kCacheControl = "cache_control";

// Blocks of a content are texts of their own: each begins a line.
void appendBlock(std::string text, std::string& content) {
  if (!content.empty()) {
    content += '\n';
  }
  content += text;
}

class MessageReader {
 public:
  MessageReader(const ApiLimits& apiLimits, ApiError& firstError)
      : limits(apiLimits), error(firstError), conversation(firstError) {}

  // A string, or text blocks.
  void readSystem(Fields& body) {
    if (body.has("system")) {
      conversation.addSystem(textOf(body, "system"), "system");
    }
  }

  void read(std::string_view json, const std::string& path) {
    static constexpr std::array<std::string_view, 2> kRoles = {"user", "assistant"};
    Fields fields(json, path, error);
    fields.require("role");
    fields.require("content");
    const bool isReply = fields.word("role", kRoles).value_or(0) == 1;
    const std::string_view content = fields.value("content").value_or("\"\"");
    if (kindOf(content) == JsonKind::String) {
      user = fields.string("content").value_or("");
      reply.content = user;
      hasText = true;
    } else if (const auto blocks = fields.array("content", limits.parts)) {
      for (size_t i = 0; i < blocks->size() && !error; ++i) {
        Fields block((*blocks)[i], fmt::format("{}[{}]", fields.pathOf("content"), i), error);
        isReply ? readReplyBlock(block) : readUserBlock(block);
        static constexpr std::array<std::string_view, 2> kHarmless = {kCacheControl, "citations"};
        block.finish(kHarmless);
      }
    }
    fields.finish();
    isReply ? endReply() : endUser();
    endsWithReply = isReply;
  }

  bool hasOpenReply() const { return endsWithReply; }
  std::vector<Message> take() { return conversation.take(); }

 private:
  std::string textOf(Fields& fields, std::string_view key) {
    const std::string_view value = fields.value(key).value_or("\"\"");
    if (kindOf(value) == JsonKind::String) {
      return fields.string(key).value_or("");
    }
    std::string text;
    const auto blocks = fields.array(key, limits.parts);
    for (size_t i = 0; blocks && i < blocks->size() && !error; ++i) {
      Fields block((*blocks)[i], fmt::format("{}[{}]", fields.pathOf(key), i), error);
      appendBlock(readText(block), text);
      static constexpr std::array<std::string_view, 2> kHarmless = {kCacheControl, "citations"};
      block.finish(kHarmless);
    }
    return text;
  }

  std::string readText(Fields& block) {
    block.require("type");
    const std::string type = block.string("type").value_or("");
    if (type != "text") {
      refuseType(block, type);
    }
    block.require("text");
    return block.string("text").value_or("");
  }

  static void refuseType(Fields& block, const std::string& type) {
    block.fail("type", fmt::format("\"{}\" is not supported here: contents are text", type));
  }

  void readUserBlock(Fields& block) {
    block.require("type");
    const std::string type = block.string("type").value_or("");
    if (type == "text") {
      appendBlock(readText(block), user);
      hasText = true;
    } else if (type == "tool_result") {
      endUser();
      block.require("tool_use_id");
      // What went wrong stands in the result; the framing has no word for it.
      (void)block.boolean("is_error");
      conversation.addResult(block.string("tool_use_id").value_or(""), textOf(block, "content"),
                             block.pathOf("tool_use_id"));
    } else {
      refuseType(block, type);
    }
  }

  void readReplyBlock(Fields& block) {
    block.require("type");
    const std::string type = block.string("type").value_or("");
    if (type == "text") {
      appendBlock(readText(block), reply.content);
    } else if (type == "thinking") {
      block.require("thinking");
      std::string thoughts = reply.reasoningContent.value_or("");
      appendBlock(block.string("thinking").value_or(""), thoughts);
      reply.reasoningContent = std::move(thoughts);
      (void)block.string("signature");
    } else if (type == "tool_use") {
      block.require("id");
      block.require("name");
      block.require("input");
      callIds.push_back(block.string("id").value_or(""));
      reply.toolCalls.push_back(
          {block.string("name").value_or(""), std::string(block.object("input").value_or("{}"))});
    } else {
      refuseType(block, type);
    }
  }

  void endUser() {
    if (hasText) {
      conversation.addUser(std::move(user));
    }
    user.clear();
    reply = {};
    hasText = false;
  }

  void endReply() {
    conversation.addAssistant(std::move(reply), callIds);
    reply = {};
    callIds.clear();
    user.clear();
    hasText = false;
  }

  const ApiLimits& limits;
  ApiError& error;
  ConversationBuilder conversation;
  std::string user;  // text of the message that is being read
  bool hasText = false;
  Message reply;  // or the reply that it is
  std::vector<std::string> callIds;
  bool endsWithReply = false;
};

Thinking readThinking(Fields& body, const ServedModel& served) {
  static constexpr std::array<std::string_view, 3> kTypes = {"disabled", "enabled", "adaptive"};
  enum : size_t { Disabled = 0, Enabled = 1 };
  Thinking thinking;
  const auto object = body.object("thinking");
  if (!object) {
    return thinking;
  }
  Fields fields(*object, "thinking", body.errors());
  fields.require("type");
  const size_t type = fields.word("type", kTypes).value_or(Disabled);
  if (type != Disabled && !served.canThink) {
    fields.fail("type", "asks for reasoning, which this model does not do");
  }
  thinking.enabled = type != Disabled;
  if (type == Enabled) {
    fields.require("budget_tokens");
    thinking.tokens = readTokenLimit(fields, "budget_tokens");
  }
  // Whether thoughts are told as they are, which is what happens, or in short.
  static constexpr std::array<std::string_view, 1> kHarmless = {"display"};
  fields.finish(kHarmless);
  return thinking;
}

// output_config: how much effort, and the form of the answer.
std::optional<AnswerForm> readOutputConfig(Fields& body, const ServedModel& served,
                                           Thinking& thinking) {
  std::optional<AnswerForm> form;
  if (const auto object = body.object("output_config")) {
    Fields config(*object, "output_config", body.errors());
    if (thinking.enabled) {
      const std::optional<uint64_t> budget = thinking.tokens;
      readEffort(config, "effort", served, thinking);
      thinking.tokens = budget ? budget : thinking.tokens;
    } else {
      config.refuse("effort", "has no effect without thinking");
    }
    form = readAnswerForm(config, "format", SchemaPlace::Inside, served.services.limits);
    config.finish();
  }
  return form;
}

}  // namespace

ApiError readMessageRequest(std::string_view text, const ServedModel& served,
                            MessagePurpose purpose, MessageRequest& out) {
  const ApiLimits& limits = served.services.limits;
  ApiError error;
  if (!isJsonObject(text, limits.depth, error)) {
    return error;
  }
  Fields body(text, "", error);
  GenerationRequest& request = out.request;
  readModelName(body, served);
  MessageReader reader(limits, error);
  reader.readSystem(body);
  body.require("messages");
  const auto messages = body.array("messages", limits.messages);
  if (messages && messages->empty()) {
    body.fail("messages", "must not be empty");
  }
  for (size_t i = 0; messages && i < messages->size() && !error; ++i) {
    reader.read((*messages)[i], fmt::format("messages[{}]", i));
  }
  if (reader.hasOpenReply() && purpose == MessagePurpose::Answer) {
    body.fail("messages", "must end with one of the user: replies cannot be begun for the model");
  }
  request.messages = reader.take();
  Thinking thinking = readThinking(body, served);
  const auto form = readOutputConfig(body, served, thinking);
  readTemplateArguments(body, served, thinking);
  applyThinking(thinking, request);
  readSampling(body, served, request.thinking, request);
  if (purpose == MessagePurpose::Answer) {
    body.require("max_tokens");
  }
  request.options.maxTokens = readTokenLimit(body, "max_tokens");
  readStops(body, "stop_sequences", limits, request);
  out.streams = body.boolean("stream").value_or(false);
  const ToolUse tools = readTools(body, ToolPlace::InputSchema, served);
  body.finish(kHarmlessInMessages);
  applyTools(tools, form, served, error, request);
  return error;
}

}  // namespace zym
