// What a line at the chat prompt means.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "container/status.h"
#include "host/chat/backend.h"

namespace zym {

enum class ChatCommandKind {
  Message,
  Nothing,
  Retry,
  Edit,
  System,
  Think,
  Save,
  Load,
  Context,
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
  // For Message: the line; for Unknown: what is wrong with it; for Edit, System, Think ("on" or
  // "off"), Save and Load: what follows the name, perhaps nothing but for the last two.
  std::string text;
};

// Whether text is one line that begins with a slash of its own: "//" begins a message. A text of
// several lines, which was pasted or typed as one message, is never a command.
bool isChatCommand(std::string_view text);
// The first name of a command, without its slash; empty for what is none.
std::string_view chatCommandName(ChatCommandKind kind);
// What is no command is a message, as it is, except that a single line loses the first slash of
// "//"; white space is neither.
ChatCommand parseChatCommand(std::string_view line);

// What /help prints, for a terminal of so many columns; 0: not known.
std::string chatHelp(size_t columns);

}  // namespace zym
