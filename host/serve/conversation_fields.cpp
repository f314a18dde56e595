#include "host/serve/conversation_fields.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <utility>

namespace zym {

using engine::Message;
using engine::Role;

void ConversationBuilder::addSystem(std::string content, const std::string& path) {
  results.clear();
  if (messages.empty()) {
    messages.push_back({Role::System, std::move(content), {}, {}});
  } else if (messages.size() == 1 && messages[0].role == Role::System) {
    messages[0].content += "\n\n" + content;
  } else {
    failAt(error, path, "stands behind other messages; instructions come first");
  }
}

void ConversationBuilder::addUser(std::string content) {
  results.clear();
  messages.push_back({Role::User, std::move(content), {}, {}});
}

void ConversationBuilder::addAssistant(Message message, std::span<const std::string> callIds) {
  results.clear();
  for (const std::string& id : callIds) {
    callNumbers.insert_or_assign(id, calls++);
  }
  message.role = Role::Assistant;
  messages.push_back(std::move(message));
}

void ConversationBuilder::addResult(const std::string& callId, std::string content,
                                    const std::string& idPath) {
  const auto call = callNumbers.find(callId);
  if (call == callNumbers.end()) {
    failAt(error, idPath, "is the id of no call before it");
    return;
  }
  const auto behind = std::upper_bound(results.begin(), results.end(), call->second);
  const auto offset = behind - results.end();
  results.insert(behind, call->second);
  messages.insert(messages.end() + offset, {Role::Tool, std::move(content), {}, {}});
}

std::string readContent(Fields& message, std::string_view key,
                        std::span<const std::string_view> textTypes, const ApiLimits& limits) {
  const std::optional<std::string_view> value = message.value(key);
  if (!value || kindOf(*value) == engine::JsonKind::String) {
    return message.string(key).value_or("");
  }
  if (kindOf(*value) != engine::JsonKind::Array) {
    message.fail(key, "must be a string or an array of parts");
    return {};
  }
  static constexpr std::array<std::string_view, 4> kHarmless = {"annotations", "logprobs",
                                                                "cache_control", "parsed"};
  const auto parts = message.array(key, limits.parts);
  std::string content;
  for (size_t i = 0; parts && i < parts->size() && message.ok(); ++i) {
    Fields part((*parts)[i], fmt::format("{}[{}]", message.pathOf(key), i), message.errors());
    part.require("type");
    const std::string type = part.string("type").value_or("");
    if (std::find(textTypes.begin(), textTypes.end(), type) == textTypes.end()) {
      part.fail("type", fmt::format("\"{}\" is not supported: contents are text", type));
      return {};
    }
    part.require("text");
    content += part.string("text").value_or("");
    part.finish(kHarmless);
  }
  return content;
}

namespace {

constexpr std::array<std::string_view, 1> kTextParts = {"text"};

// One message of a chat.
class ChatMessage {
 public:
  ChatMessage(std::string_view json, std::string messagePath, const ApiLimits& apiLimits,
              ApiError& firstError)
      : path(std::move(messagePath)),
        fields(json, path, firstError),
        limits(apiLimits),
        error(firstError) {}

  void addTo(ConversationBuilder& conversation) {
    // Turns are framed by role alone. Clients add what they have parsed to what they give back.
    static constexpr std::array<std::string_view, 1> kHarmless = {"name"};
    static constexpr std::array<std::string_view, 3> kOfReplies = {"name", "annotations", "parsed"};
    fields.require("role");
    Role role = Role::User;
    const kel::Status status = engine::roleOf(fields.string("role").value_or(""), role);
    if (!status.ok()) {
      fields.fail("role", "must be one of: system, developer, user, assistant, tool");
      return;
    }
    if (role == Role::Assistant) {
      addReply(conversation);
      fields.finish(kOfReplies);
      return;
    }
    fields.require("content");
    std::string content = readContent(fields, "content", kTextParts, limits);
    if (role == Role::System) {
      conversation.addSystem(std::move(content), fields.pathOf("role"));
    } else if (role == Role::User) {
      conversation.addUser(std::move(content));
    } else {
      fields.require("tool_call_id");
      conversation.addResult(fields.string("tool_call_id").value_or(""), std::move(content),
                             fields.pathOf("tool_call_id"));
    }
    fields.finish(kHarmless);
  }

 private:
  void addReply(ConversationBuilder& conversation) {
    Message message;
    message.content = readContent(fields, "content", kTextParts, limits);
    message.reasoningContent = fields.string("reasoning_content");
    if (!message.reasoningContent) {
      message.reasoningContent = fields.string("reasoning");
    }
    fields.refuse("refusal", "is not supported");
    fields.refuse("audio", "is not supported: contents are text");
    fields.refuse("function_call", "is not supported: use tool_calls");
    std::vector<std::string> ids;
    if (const auto calls = fields.array("tool_calls", limits.tools)) {
      for (size_t i = 0; i < calls->size() && !error; ++i) {
        readCall((*calls)[i], fmt::format("{}[{}]", fields.pathOf("tool_calls"), i), message, ids);
      }
    }
    if (message.content.empty() && message.toolCalls.empty()) {
      // A reply that was nothing but reasoning, or nothing at all, still has the field.
      if (!fields.has("content") && !message.reasoningContent) {
        fields.fail("content", "is required where there are no tool_calls");
      }
    }
    conversation.addAssistant(std::move(message), ids);
  }

  void readCall(std::string_view json, const std::string& callPath, Message& message,
                std::vector<std::string>& ids) {
    static constexpr std::array<std::string_view, 1> kTypes = {"function"};
    static constexpr std::array<std::string_view, 1> kHarmless = {"index"};
    Fields call(json, callPath, error);
    call.require("id");
    ids.push_back(call.string("id").value_or(""));
    call.word("type", kTypes);
    call.require("function");
    Fields function(call.object("function").value_or("{}"), call.pathOf("function"), error);
    function.require("name");
    engine::ToolCall made{function.string("name").value_or(""),
                          function.string("arguments").value_or("")};
    if (made.arguments.find_first_not_of(" \t\r\n") != std::string::npos &&
        engine::jsonKind(made.arguments) != engine::JsonKind::Object) {
      function.fail("arguments", "must be a JSON object, as a string");
    }
    message.toolCalls.push_back(std::move(made));
    static constexpr std::array<std::string_view, 1> kParsed = {"parsed_arguments"};
    function.finish(kParsed);
    call.finish(kHarmless);
  }

  std::string path;
  Fields fields;
  const ApiLimits& limits;
  ApiError& error;
};

}  // namespace

std::vector<Message> readChatMessages(Fields& body, const ServedModel& served) {
  const ApiLimits& limits = served.services.limits;
  ConversationBuilder conversation(body.errors());
  body.require("messages");
  const auto messages = body.array("messages", limits.messages);
  if (messages && messages->empty()) {
    body.fail("messages", "must not be empty");
  }
  for (size_t i = 0; messages && i < messages->size() && body.ok(); ++i) {
    ChatMessage((*messages)[i], fmt::format("{}[{}]", body.pathOf("messages"), i), limits,
                body.errors())
        .addTo(conversation);
  }
  return conversation.take();
}

}  // namespace zym
