#include "engine/chat_format.h"

#include <algorithm>
#include <utility>

#include "engine/json_text.h"

namespace engine {

namespace {

using kel::Status;

// Every character of white space. Models have seen contents stripped of these, separators (1C to
// 1F) included.
constexpr std::array<std::string_view, 29> kWhiteSpace = {" ",
                                                          "\t",
                                                          "\n",
                                                          "\v",
                                                          "\f",
                                                          "\r",
                                                          "\x1C",
                                                          "\x1D",
                                                          "\x1E",
                                                          "\x1F",
                                                          "\xC2\x85",
                                                          "\xC2\xA0",
                                                          "\xE1\x9A\x80",
                                                          "\xE2\x80\x80",
                                                          "\xE2\x80\x81",
                                                          "\xE2\x80\x82",
                                                          "\xE2\x80\x83",
                                                          "\xE2\x80\x84",
                                                          "\xE2\x80\x85",
                                                          "\xE2\x80\x86",
                                                          "\xE2\x80\x87",
                                                          "\xE2\x80\x88",
                                                          "\xE2\x80\x89",
                                                          "\xE2\x80\x8A",
                                                          "\xE2\x80\xA8",
                                                          "\xE2\x80\xA9",
                                                          "\xE2\x80\xAF",
                                                          "\xE2\x81\x9F",
                                                          "\xE3\x80\x80"};

constexpr std::string_view kToolsIntro =
    "# Tools\n\nYou have access to the following functions:\n\n<tools>";

// Calls are spelt with their control tokens here, as in replies.
constexpr std::string_view kToolsInstructions =
    "\n</tools>\n\n"
    "If you choose to call a function ONLY reply in the following format with NO suffix:\n\n"
    "<tool_call>\n"
    "<function=example_function_name>\n"
    "<parameter=example_parameter_1>\n"
    "value_1\n"
    "</parameter>\n"
    "<parameter=example_parameter_2>\n"
    "This is the value for the second parameter\n"
    "that can span\n"
    "multiple lines\n"
    "</parameter>\n"
    "</function>\n"
    "</tool_call>\n\n"
    "<IMPORTANT>\n"
    "Reminder:\n"
    "- Function calls MUST follow the specified format: an inner <function=...></function> block "
    "must be nested within <tool_call></tool_call> XML tags\n"
    "- Required parameters MUST be specified\n"
    "- You may provide optional reasoning for your function call in natural language BEFORE the "
    "function call, but NOT after\n"
    "- If there is no function call available, answer the question like normal with your current "
    "knowledge and do not tell the user about function calls\n"
    "</IMPORTANT>";

// Bytes of the white space at one end of text, 0 without any.
size_t spaceAtFront(std::string_view text) {
  for (const std::string_view space : kWhiteSpace) {
    if (text.starts_with(space)) {
      return space.size();
    }
  }
  return 0;
}

size_t spaceAtBack(std::string_view text) {
  for (const std::string_view space : kWhiteSpace) {
    if (text.ends_with(space)) {
      return space.size();
    }
  }
  return 0;
}

std::string_view trimmed(std::string_view text) {
  while (const size_t bytes = spaceAtFront(text)) {
    text.remove_prefix(bytes);
  }
  while (const size_t bytes = spaceAtBack(text)) {
    text.remove_suffix(bytes);
  }
  return text;
}

std::string_view withoutLeadingLineFeeds(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of('\n'), text.size()));
}

// What an assistant message says, its reasoning apart; views into the message.
struct SplitReply {
  std::string_view reasoning;
  std::string_view answer;
};

SplitReply splitReply(const Message& message) {
  const std::string_view content = trimmed(message.content);
  if (message.reasoningContent) {
    return {trimmed(*message.reasoningContent), content};
  }
  const size_t firstEnd = content.find(kThinkEnd);
  if (firstEnd == std::string_view::npos) {
    return {{}, content};
  }
  std::string_view reasoning = content.substr(0, firstEnd);
  if (reasoning.starts_with(kThinkBegin)) {
    reasoning.remove_prefix(kThinkBegin.size());
  }
  const size_t lastEnd = content.rfind(kThinkEnd);
  return {trimmed(reasoning), withoutLeadingLineFeeds(content.substr(lastEnd + kThinkEnd.size()))};
}

bool isUserQuery(const Message& message) {
  const std::string_view content = trimmed(message.content);
  return message.role == Role::User &&
         !(content.starts_with(kResultBegin) && content.ends_with(kResultEnd));
}

// An argument as it stands in a call: strings bare, words for the other scalars as the models have
// seen them, the rest as JSON.
std::string argumentText(std::string_view json) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kWords = {
      {{"true", "True"}, {"false", "False"}, {"null", "None"}}};
  for (const auto& [word, written] : kWords) {
    if (json == word) {
      return std::string(written);
    }
  }
  return json.starts_with('"') ? unquotedJson(json) : spacedJson(json);
}

class Renderer {
 public:
  Renderer(std::span<const Message> conversationMessages, const ChatOptions& chatOptions,
           Conversation& conversation)
      : messages(conversationMessages), options(chatOptions), out(conversation) {
    out = {};
  }

  Status render(std::span<const Tool> tools) {
    if (Status status = findLastQuery(); !status.ok()) {
      return status;
    }
    if (Status status = addTools(tools); !status.ok()) {
      return status;
    }
    for (size_t i = 0; i < messages.size(); ++i) {
      at = i;
      if (Status status = addMessage(messages[i]); !status.ok()) {
        return status;
      }
      out.messageEnds.push_back(out.segments.size());
    }
    at = Segment::kNoMessage;
    out.promptBegin = out.segments.size();
    if (options.generationPrompt) {
      addGenerationPrompt();
    }
    return Status::success();
  }

 private:
  Status findLastQuery() {
    if (messages.empty()) {
      return Status::invalid("No messages provided.");
    }
    const auto found = std::find_if(messages.rbegin(), messages.rend(), isUserQuery);
    if (found == messages.rend()) {
      return Status::invalid("No user query found in messages.");
    }
    lastQuery = static_cast<size_t>(messages.rend() - found) - 1;
    return Status::success();
  }

  bool systemFirst() const { return messages.front().role == Role::System; }

  // The tools' turn, up to where the content of a system message follows.
  Status addTools(std::span<const Tool> tools) {
    withTools = !tools.empty();
    if (!withTools) {
      return Status::success();
    }
    at = systemFirst() ? 0 : Segment::kNoMessage;
    beginTurn("system\n");
    text(kToolsIntro);
    for (const Tool& tool : tools) {
      if (jsonKind(tool.json) != JsonKind::Object) {
        return Status::invalid("chat: a tool is not a JSON object");
      }
      text("\n");
      text(spacedJson(tool.json));
    }
    framing(kToolsInstructions);
    if (!systemFirst()) {
      endTurn();
      out.preambleEnd = out.segments.size();
    }
    return Status::success();
  }

  Status addMessage(const Message& message) {
    switch (message.role) {
      case Role::System:
        return addSystem(message);
      case Role::User:
        beginTurn("user\n");
        text(trimmed(message.content));
        endTurn();
        return Status::success();
      case Role::Assistant:
        return addAssistant(message);
      case Role::Tool:
        addResult(message);
        return Status::success();
    }
    return Status::invalid("Unexpected message role.");
  }

  Status addSystem(const Message& message) {
    if (at != 0) {
      return Status::invalid("System message must be at the beginning.");
    }
    const std::string_view content = trimmed(message.content);
    if (!withTools) {
      beginTurn("system\n");
    } else if (!content.empty()) {
      text("\n\n");
    }
    text(content);
    endTurn();
    return Status::success();
  }

  Status addAssistant(const Message& message) {
    const SplitReply reply = splitReply(message);
    beginTurn("assistant\n");
    if (!reply.reasoning.empty() && (options.preserveThinking || at > lastQuery)) {
      control(kThinkBegin);
      text("\n");
      generated = true;
      text(reply.reasoning);
      text("\n");
      control(kThinkEnd);
      text("\n\n");
    }
    generated = true;
    text(reply.answer);
    Status status = Status::success();
    for (size_t i = 0; i < message.toolCalls.size() && status.ok(); ++i) {
      const bool afterText = i == 0 && !reply.answer.empty();
      text(i > 0 ? "\n" : afterText ? "\n\n" : "");
      status = addCall(message.toolCalls[i]);
    }
    generated = false;
    endTurn();
    return status;
  }

  Status addCall(const ToolCall& call) {
    const bool none = trimmed(call.arguments).empty();
    if (!none && jsonKind(call.arguments) != JsonKind::Object) {
      return Status::invalid("chat: the arguments of a tool call are not a JSON object");
    }
    control(kCallBegin);
    text("\n<function=" + call.name + ">\n");
    for (const JsonMember& argument : jsonMembers(call.arguments)) {
      text("<parameter=" + argument.key + ">\n");
      text(argumentText(argument.value));
      text("\n</parameter>\n");
    }
    text("</function>\n");
    control(kCallEnd);
    return Status::success();
  }

  void addResult(const Message& message) {
    if (at == 0 || messages[at - 1].role != Role::Tool) {
      beginTurn("user");
    }
    text("\n");
    control(kResultBegin);
    text("\n");
    text(trimmed(message.content));
    text("\n");
    control(kResultEnd);
    if (at + 1 == messages.size() || messages[at + 1].role != Role::Tool) {
      endTurn();
    }
  }

  void addGenerationPrompt() {
    beginTurn("assistant\n");
    framing(options.thinking ? "<think>\n" : "<think>\n\n</think>\n\n");
  }

  void beginTurn(std::string_view role) {
    control(kTurnBegin);
    text(role);
  }

  void endTurn() {
    control(kTurnEnd);
    text("\n");
  }

  // Text of the format itself: control tokens that it spells are control tokens.
  void framing(std::string_view written) {
    while (!written.empty()) {
      size_t next = written.size();
      std::string_view token;
      for (const std::string_view candidate : kControlTokens) {
        if (const size_t found = written.find(candidate); found < next) {
          next = found;
          token = candidate;
        }
      }
      text(written.substr(0, next));
      if (!token.empty()) {
        control(token);
      }
      written.remove_prefix(next + token.size());
    }
  }

  void control(std::string_view token) { append(token, true); }

  void text(std::string_view plain) {
    if (plain.empty()) {
      return;
    }
    if (!out.segments.empty()) {
      Segment& last = out.segments.back();
      if (!last.control && last.message == at && last.generated == generated) {
        last.text += plain;
        return;
      }
    }
    append(plain, false);
  }

  void append(std::string_view words, bool isControl) {
    out.segments.push_back({std::string(words), isControl, at, generated});
  }

  std::span<const Message> messages;
  const ChatOptions& options;
  Conversation& out;
  size_t lastQuery = 0;
  bool withTools = false;
  size_t at = 0;  // the message that segments belong to
  bool generated = false;
};

}  // namespace

Status roleOf(std::string_view name, Role& out) {
  constexpr std::array<std::pair<std::string_view, Role>, 5> kRoles = {
      {{"system", Role::System},
       {"developer", Role::System},
       {"user", Role::User},
       {"assistant", Role::Assistant},
       {"tool", Role::Tool}}};
  for (const auto& [known, role] : kRoles) {
    if (name == known) {
      out = role;
      return Status::success();
    }
  }
  return Status::invalid("Unexpected message role.");
}

Status renderConversation(std::span<const Message> messages, std::span<const Tool> tools,
                          const ChatOptions& options, Conversation& out) {
  return Renderer(messages, options, out).render(tools);
}

std::string plainText(std::span<const Segment> segments) {
  std::string text;
  for (const Segment& segment : segments) {
    text += segment.text;
  }
  return text;
}

std::vector<Segment> thinkingEnd() {
  const auto part = [](std::string_view text, bool control) {
    return Segment{std::string(text), control, Segment::kNoMessage, true};
  };
  return {part("\n", false), part(kThinkEnd, true), part("\n\n", false)};
}

Status joinContentParts(std::span<const ContentPart> parts, std::string& out) {
  std::string joined;
  for (const ContentPart& part : parts) {
    if (part.type.starts_with("image") || part.type.starts_with("video")) {
      return Status::invalid("chat: image and video parts are not supported");
    }
    if (part.type != "text") {
      return Status::invalid("chat: unknown type of content part");
    }
    joined += part.text;
  }
  out = std::move(joined);
  return Status::success();
}

}  // namespace engine
