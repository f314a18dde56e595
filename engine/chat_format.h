// Conversations as the text that models of this family are trained on.
//
// The text is made of control tokens, which frame turns, reasoning, calls and results, and of plain
// text between them. The two stay apart as segments: framing reaches the model by the ids of its
// tokens, and a message that spells "<|im_end|>" stays text, whoever wrote it.
//
//   Conversation conversation;
//   kel::Status status = renderConversation(messages, tools, {}, conversation);
//   for (const Segment& segment : conversation.segments) ...
//
// Anything here may be called on any thread. All text is UTF-8.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"

namespace engine {

constexpr std::string_view kTurnBegin = "<|im_start|>";
constexpr std::string_view kTurnEnd = "<|im_end|>";
constexpr std::string_view kThinkBegin = "<think>";
constexpr std::string_view kThinkEnd = "</think>";
constexpr std::string_view kCallBegin = "<tool_call>";
constexpr std::string_view kCallEnd = "</tool_call>";
constexpr std::string_view kResultBegin = "<tool_response>";
constexpr std::string_view kResultEnd = "</tool_response>";

// Every control token that segments name.
constexpr std::array<std::string_view, 8> kControlTokens = {
    kTurnBegin, kTurnEnd, kThinkBegin, kThinkEnd, kCallBegin, kCallEnd, kResultBegin, kResultEnd};

// Ends a reply as kTurnEnd does; no part of a conversation.
constexpr std::string_view kTextEnd = "<|endoftext|>";

enum class Role : uint8_t { System, User, Assistant, Tool };

// By the name that clients use; "developer" counts as system. "Unexpected message role."
kel::Status roleOf(std::string_view name, Role& out);

// Arguments: a JSON object; nothing but white space stands for an empty one.
struct ToolCall {
  std::string name;
  std::string arguments;
};

struct Message {
  Role role = Role::User;
  std::string content;
  // Of assistant messages alone. Without reasoningContent, reasoning that the content encloses in
  // "<think>" and "</think>" is taken out of it.
  std::optional<std::string> reasoningContent;
  std::vector<ToolCall> toolCalls;
};

// A function that the model may call: a JSON object as the client gave it.
struct Tool {
  std::string json;
};

struct ChatOptions {
  bool thinking = true;           // the reply begins with reasoning
  bool preserveThinking = false;  // earlier turns keep theirs
  bool generationPrompt = true;   // what opens the reply follows the messages
};

// Whether models of this embedding width think unless told not to: those of 4B and up.
constexpr bool thinksByDefault(uint64_t embeddingWidth) {
  return embeddingWidth >= 2560;
}

// One control token, or text that is encoded without looking for any. The original text is one
// string, cut into words as such: two segments of text stand side by side only where the framing
// ends and what the model wrote begins.
struct Segment {
  static constexpr size_t kNoMessage = std::numeric_limits<size_t>::max();

  std::string text;
  bool control = false;
  size_t message = kNoMessage;  // index of the message that it renders
  // The model wrote it: reasoning, answer and calls of an assistant message with the control tokens
  // inside. Not the end of the turn, which a reply stops at.
  bool generated = false;

  bool operator==(const Segment&) const = default;
};

struct Conversation {
  std::vector<Segment> segments;
  // Segments up to the end of each message. The turn of consecutive tool messages ends with the
  // last of them.
  std::vector<size_t> messageEnds;
  size_t preambleEnd = 0;  // segments of the tools' turn where no system message shares it
  size_t promptBegin = 0;  // where the generation prompt begins; all segments where there is none
};

// Replaces out. Failures carry InvalidFormat and leave out unspecified:
//   "No messages provided.", "No user query found in messages." (a user message that is a tool
//   result as a whole is none), "System message must be at the beginning.",
//   "chat: a tool is not a JSON object", "chat: the arguments of a tool call are not a JSON
//   object".
//
// White space at both ends of contents and reasoning is left out. Reasoning is kept after the last
// user message that is no tool result, or everywhere with preserveThinking.
kel::Status renderConversation(std::span<const Message> messages, std::span<const Tool> tools,
                               const ChatOptions& options, Conversation& out);

// The text that the segments make up.
std::string plainText(std::span<const Segment> segments);

// What closes reasoning: appended to a reply whose tokens for thinking are used up.
std::vector<Segment> thinkingEnd();

// A part of a content that is a list. Only the type "text" has a text.
struct ContentPart {
  std::string type;
  std::string text;
};

// The content that text parts make up. "chat: image and video parts are not supported" for types
// that begin so, "chat: unknown type of content part" for others.
kel::Status joinContentParts(std::span<const ContentPart> parts, std::string& out);

}  // namespace engine
