#include "host/chat/conversation_note.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace zym {
namespace {

using Json = nlohmann::ordered_json;
using kel::Status;

constexpr const char* kFormat = "zym chat 1";

const char* nameOf(engine::Role role) {
  switch (role) {
    case engine::Role::System:
      return "system";
    case engine::Role::User:
      return "user";
    case engine::Role::Assistant:
      return "assistant";
    case engine::Role::Tool:
      break;
  }
  return "tool";
}

Json jsonOf(const engine::Message& message) {
  Json json = {{"role", nameOf(message.role)}, {"content", message.content}};
  if (message.reasoningContent) {
    json["reasoning"] = *message.reasoningContent;
  }
  for (const engine::ToolCall& call : message.toolCalls) {
    json["calls"].push_back({{"name", call.name}, {"arguments", call.arguments}});
  }
  return json;
}

// Throws what the library throws where a part is missing or of another kind.
engine::Message messageOf(const Json& json) {
  engine::Message message;
  if (!engine::roleOf(json.at("role").get<std::string>(), message.role).ok()) {
    throw Json::other_error::create(501, "no role", &json);
  }
  message.content = json.at("content").get<std::string>();
  if (json.contains("reasoning")) {
    message.reasoningContent = json["reasoning"].get<std::string>();
  }
  if (json.contains("calls")) {
    for (const Json& call : json["calls"]) {
      message.toolCalls.push_back(
          {call.at("name").get<std::string>(), call.at("arguments").get<std::string>()});
    }
  }
  return message;
}

}  // namespace

std::string noteOf(std::span<const engine::Message> messages) {
  Json json = {{"format", kFormat}, {"messages", Json::array()}};
  for (const engine::Message& message : messages) {
    json["messages"].push_back(jsonOf(message));
  }
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Status readNote(std::string_view note, std::vector<engine::Message>& messages) {
  std::vector<engine::Message> found;
  try {
    const Json json = Json::parse(note);
    if (json.at("format") != kFormat) {
      return Status::invalid("the session was not made by a chat of this version");
    }
    for (const Json& message : json.at("messages")) {
      found.push_back(messageOf(message));
    }
  } catch (const Json::exception&) {
    return Status::invalid("the session was not made by a chat");
  }
  messages = std::move(found);
  return Status::success();
}

}  // namespace zym
