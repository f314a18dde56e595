// What a line at the chat prompt means.
#pragma once

#include <string>
#include <string_view>

#include "container/status.h"
#include "host/chat/backend.h"

namespace zym {

enum class ChatCommandKind { Message, Nothing, Reset, Stats, Set, Multiline, Help, Quit, Unknown };

struct ChatCommand {
  ChatCommandKind kind = ChatCommandKind::Nothing;
  Sampling sampling;  // for Set: the one setting that was given
  std::string text;   // for Message: the line; for Unknown: what is wrong with it
};

// A line that begins with "/" is a command, any other one a message; a line of white space is
// neither. "//" begins a message with a slash of its own.
ChatCommand parseChatCommand(std::string_view line);

// What /help prints.
extern const char* const kChatHelp;

}  // namespace zym
