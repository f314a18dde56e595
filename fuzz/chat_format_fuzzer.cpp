// Any conversation in the chat format. The first byte holds the options; the rest is fields that
// end with a zero byte each, by their first letter: a message of the (s)ystem, (u)ser, (a)ssistant
// or a (t)ool; the last message's (r)easoning or a (c)all, NAME up to a space and arguments; or a
// tool (f).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "engine/chat_format.h"
#include "engine/reply_parser.h"

namespace {

using namespace engine;

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

struct Input {
  std::vector<Message> messages;
  std::vector<Tool> tools;

  void add(char kind, std::string text) {
    switch (kind) {
      case 's':
        messages.push_back({Role::System, std::move(text), {}, {}});
        break;
      case 'u':
        messages.push_back({Role::User, std::move(text), {}, {}});
        break;
      case 'a':
        messages.push_back({Role::Assistant, std::move(text), {}, {}});
        break;
      case 't':
        messages.push_back({Role::Tool, std::move(text), {}, {}});
        break;
      case 'f':
        tools.push_back({std::move(text)});
        break;
      case 'r':
        if (!messages.empty()) {
          messages.back().reasoningContent = std::move(text);
        }
        break;
      case 'c':
        if (!messages.empty()) {
          const size_t space = std::min(text.find(' '), text.size());
          messages.back().toolCalls.push_back({text.substr(0, space), text.substr(space)});
        }
        break;
      default:
        break;
    }
  }
};

Input inputOf(std::string_view fields) {
  Input input;
  while (!fields.empty()) {
    const std::string_view field = fields.substr(0, fields.find('\0'));
    if (!field.empty()) {
      input.add(field.front(), std::string(field.substr(1)));
    }
    fields.remove_prefix(std::min(fields.size(), field.size() + 1));
  }
  return input;
}

// Tool messages in a row share a turn, tools that of a system message.
size_t turnsOf(const Input& input) {
  const std::vector<Message>& messages = input.messages;
  size_t turns = static_cast<size_t>(!input.tools.empty() && messages[0].role != Role::System);
  for (size_t i = 0; i < messages.size(); ++i) {
    const bool joins =
        i > 0 && messages[i].role == Role::Tool && messages[i - 1].role == Role::Tool;
    turns += static_cast<size_t>(!joins);
  }
  return turns;
}

size_t countOf(const std::vector<Segment>& segments, std::string_view token) {
  return static_cast<size_t>(std::count_if(
      segments.begin(), segments.end(),
      [&](const Segment& segment) { return segment.control && segment.text == token; }));
}

void checkSegments(const Conversation& conversation) {
  const Segment* last = nullptr;
  for (const Segment& segment : conversation.segments) {
    require(!segment.text.empty());
    require(!segment.control || std::find(kControlTokens.begin(), kControlTokens.end(),
                                          segment.text) != kControlTokens.end());
    const bool bothText = last != nullptr && !last->control && !segment.control;
    require(!bothText || (!last->generated && segment.generated));
    last = &segment;
  }
}

// Whatever a message says, reading it back comes to an end with one End.
void readBack(const Conversation& conversation) {
  ReplyParser parser(true);
  std::vector<ReplyEvent> events;
  for (const Segment& segment : conversation.segments) {
    if (segment.generated && segment.control) {
      parser.control(segment.text, events);
    } else if (segment.generated) {
      parser.text(segment.text, events);
    }
  }
  parser.finish(events);
  require(events.back().kind == ReplyEvent::Kind::End);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const ChatOptions options = {.thinking = (data[0] & 1U) != 0,
                               .preserveThinking = (data[0] & 2U) != 0,
                               .generationPrompt = (data[0] & 4U) != 0};
  const Input input = inputOf({reinterpret_cast<const char*>(data + 1), size - 1});
  Conversation conversation;
  const kel::Status status = renderConversation(input.messages, input.tools, options, conversation);
  require(status.ok() == status.message.empty());
  if (!status.ok()) {
    return 0;
  }
  checkSegments(conversation);
  const std::vector<Segment>& segments = conversation.segments;
  const size_t turns = turnsOf(input);
  require(countOf(segments, kTurnBegin) == turns + static_cast<size_t>(options.generationPrompt));
  require(countOf(segments, kTurnEnd) == turns);
  require(conversation.messageEnds.size() == input.messages.size());
  require(std::is_sorted(conversation.messageEnds.begin(), conversation.messageEnds.end()));
  require(conversation.messageEnds.back() == conversation.promptBegin);
  require((conversation.promptBegin < segments.size()) == options.generationPrompt);
  readBack(conversation);
  return 0;
}
