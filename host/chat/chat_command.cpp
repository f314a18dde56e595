#include "host/chat/chat_command.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>
#include <vector>

#include "host/chat/sampling_settings.h"
#include "host/terminal/nearest_word.h"
#include "host/terminal/reply_wrap.h"

namespace zym {
namespace {

struct Name {
  std::string_view text;
  ChatCommandKind kind;
};

constexpr std::array kCommands = {
    Name{"/retry", ChatCommandKind::Retry},         Name{"/edit", ChatCommandKind::Edit},
    Name{"/system", ChatCommandKind::System},       Name{"/think", ChatCommandKind::Think},
    Name{"/save", ChatCommandKind::Save},           Name{"/load", ChatCommandKind::Load},
    Name{"/context", ChatCommandKind::Context},     Name{"/reset", ChatCommandKind::Reset},
    Name{"/stats", ChatCommandKind::Stats},         Name{"/set", ChatCommandKind::Set},
    Name{"/multiline", ChatCommandKind::Multiline}, Name{"/help", ChatCommandKind::Help},
    Name{"/quit", ChatCommandKind::Quit},           Name{"/exit", ChatCommandKind::Quit},
};

struct HelpEntry {
  std::string_view typed;
  std::string_view what;
};

constexpr std::array kHelp = {
    HelpEntry{"/retry", "another reply to the last message"},
    HelpEntry{"/edit", "change the last message"},
    HelpEntry{"/edit TEXT", "put TEXT in its place"},
    HelpEntry{"/system", "the system message"},
    HelpEntry{"/system TEXT", "another one; - for none"},
    HelpEntry{"/think on|off", "reason before answering, or not"},
    HelpEntry{"/save FILE", "the conversation to a file"},
    HelpEntry{"/load FILE", "and back"},
    HelpEntry{"/context", "positions, memory, speed"},
    HelpEntry{"/reset", "forget the conversation"},
    HelpEntry{"/stats", "positions in use and speed"},
    HelpEntry{"/set", "the settings in force"},
    HelpEntry{"/set NAME VALUE",
              "temperature, top-k, top-p, min-p, presence-penalty, frequency-penalty, "
              "repetition-penalty, repetition-window, logit-bias or seed"},
    HelpEntry{"/multiline",
              "messages of several lines, up to a line with a single dot; again: off"},
    HelpEntry{"/help", "this list"},
    HelpEntry{"/quit, /exit", "leave (Ctrl-D does it too)"},
    HelpEntry{"//TEXT", "a message that begins with a slash"},
    HelpEntry{"Ctrl-C", "stop the reply"},
};

constexpr size_t kTypedColumns = 17;
constexpr size_t kNarrow = 60;  // columns, below which explanations have lines of their own
constexpr size_t kUsual = 80;

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

// What follows the name in a line, without the blanks around it.
std::string argumentOf(std::string_view line) {
  constexpr const char* kBlanks = " \t\r";
  const size_t begin =
      line.find_first_not_of(kBlanks, std::min(line.find_first_of(kBlanks), line.size()));
  if (begin == std::string_view::npos) {
    return {};
  }
  return std::string(line.substr(begin, line.find_last_not_of(kBlanks) + 1 - begin));
}

ChatCommand withArgument(ChatCommandKind kind, const std::string& name, std::string argument) {
  const bool namesFile = kind == ChatCommandKind::Save || kind == ChatCommandKind::Load;
  if (namesFile && argument.empty()) {
    return unknown(name + " takes the name of a file");
  }
  if (kind == ChatCommandKind::Think && !argument.empty() && argument != "on" &&
      argument != "off") {
    return unknown("/think takes on or off, not \"" + argument + "\"");
  }
  return {kind, {}, std::move(argument)};
}

ChatCommand noCommand(const std::string& name) {
  std::vector<std::string> names;
  names.reserve(kCommands.size());
  for (const Name& known : kCommands) {
    names.emplace_back(known.text.substr(1));
  }
  const std::string meant = nearestWord(std::string_view(name).substr(1), names);
  const std::string question = meant.empty() ? "" : " (did you mean /" + meant + "?)";
  return unknown("no command " + name + question + "; /help lists them");
}

// Its lines, each indented by so many columns.
std::string indented(std::string_view text, size_t columns, size_t indent) {
  std::istringstream lines(wrappedText(text, columns - indent));
  std::string out;
  for (std::string line; std::getline(lines, line);) {
    out += (out.empty() ? "" : "\n") + std::string(indent, ' ') + line;
  }
  return out;
}

}  // namespace

std::string chatHelp(size_t columns) {
  const size_t width = columns == 0 ? kUsual : columns;
  const bool isNarrow = width < kNarrow;
  std::string text;
  for (const HelpEntry& entry : kHelp) {
    if (isNarrow) {
      text += std::string(entry.typed) + "\n" +
              indented(entry.what, std::max<size_t>(width, 12), 2) + "\n";
    } else {
      std::string lines = indented(entry.what, width, kTypedColumns);
      lines.replace(0, entry.typed.size(), entry.typed);
      text += lines + "\n";
    }
  }
  return text +
         wrappedText("A pasted text of several lines is one message, which Enter sends.", width);
}

bool isChatCommand(std::string_view text) {
  return text.starts_with('/') && !text.starts_with("//") &&
         text.find('\n') == std::string_view::npos;
}

std::string_view chatCommandName(ChatCommandKind kind) {
  const auto* known = std::find_if(kCommands.begin(), kCommands.end(),
                                   [&](const Name& command) { return command.kind == kind; });
  return known == kCommands.end() ? std::string_view() : known->text.substr(1);
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
  const auto* known = std::find_if(kCommands.begin(), kCommands.end(),
                                   [&](const Name& command) { return command.text == name; });
  if (known == kCommands.end()) {
    return noCommand(name);
  }
  return known->kind == ChatCommandKind::Set ? parseSet(words)
                                             : withArgument(known->kind, name, argumentOf(line));
}

}  // namespace zym
