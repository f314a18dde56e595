// What a line at the chat prompt means.
#pragma once

#include <string>
#include <string_view>

#include "container/status.h"
#include "host/chat/backend.h"

namespace zym {

enum class ChatCommandKind {
  Message,
  Nothing,
  Reset,
  Stats,
  Set,
  ShowSettings,
  Multiline,
  Help,
  Quit,
  Unknown
};

struct ChatCommand {
  ChatCommandKind kind = ChatCommandKind::Nothing;
  Sampling sampling;  // for Set: the one setting that was given
  std::string text;   // for Message: the line; for Unknown: what is wrong with it
};

// Whether text is one line that begins with a slash of its own: "//" begins a message. A text of
// several lines, which was pasted or typed as one message, is never a command.
bool isChatCommand(std::string_view text);
// What is no command is a message, as it is, except that a single line loses the first slash of
// "//"; white space is neither.
ChatCommand parseChatCommand(std::string_view line);

// What /help prints.
extern const char* const kChatHelp;

}  // namespace zym
