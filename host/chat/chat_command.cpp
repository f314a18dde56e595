#include "host/chat/chat_command.h"

#include <array>
#include <sstream>

#include "host/chat/sampling_settings.h"

namespace zym {
namespace {

struct Name {
  std::string_view text;
  ChatCommandKind kind;
};

constexpr std::array<Name, 6> kPlainCommands = {{
    {"/reset", ChatCommandKind::Reset},
    {"/stats", ChatCommandKind::Stats},
    {"/multiline", ChatCommandKind::Multiline},
    {"/help", ChatCommandKind::Help},
    {"/quit", ChatCommandKind::Quit},
    {"/exit", ChatCommandKind::Quit},
}};

ChatCommand unknown(std::string text) {
  return {ChatCommandKind::Unknown, {}, std::move(text)};
}

ChatCommand parseSet(std::istringstream& words) {
  std::string name;
  std::string value;
  std::string surplus;
  words >> name >> value;
  if (name.empty()) {
    return {ChatCommandKind::ShowSettings, {}, {}};
  }
  if (value.empty() || words >> surplus) {
    return unknown("/set takes a name and a value, as in /set temperature 0.7");
  }
  ChatCommand command{ChatCommandKind::Set, {}, {}};
  const kel::Status status = setSampling(name, value, command.sampling);
  return status.ok() ? command : unknown(status.message);
}

}  // namespace

const char* const kChatHelp =
    "/reset                 forget the conversation\n"
    "/stats                 positions in use and speed\n"
    "/set                   the settings in force\n"
    "/set NAME VALUE        temperature, top-k, top-p, min-p, presence-penalty, "
    "frequency-penalty,\n"
    "                       repetition-penalty or seed\n"
    "/multiline             messages of several lines, ended by a line with a single dot; again: "
    "off\n"
    "/quit, /exit           leave (Ctrl-D does it too)\n"
    "//TEXT                 a message that begins with a slash\n"
    "Ctrl-C                 stop the reply\n"
    "A pasted text of several lines is one message, which Enter sends.";

bool isChatCommand(std::string_view text) {
  return text.starts_with('/') && !text.starts_with("//") &&
         text.find('\n') == std::string_view::npos;
}

ChatCommand parseChatCommand(std::string_view line) {
  if (line.find_first_not_of(" \t\r\n") == std::string_view::npos) {
    return {};
  }
  if (!isChatCommand(line)) {
    const bool isDoubled = line.starts_with("//") && line.find('\n') == std::string_view::npos;
    return {ChatCommandKind::Message, {}, std::string(line.substr(isDoubled ? 1 : 0))};
  }
  std::istringstream words{std::string(line)};
  std::string name;
  words >> name;
  if (name == "/set") {
    return parseSet(words);
  }
  for (const Name& known : kPlainCommands) {
    if (known.text == name) {
      return {known.kind, {}, {}};
    }
  }
  return unknown("no command " + name + "; /help lists them");
}

}  // namespace zym
