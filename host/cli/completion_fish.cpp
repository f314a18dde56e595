#include <fmt/format.h>
#include <fmt/ranges.h>

#include <iterator>
#include <string_view>

#include "host/cli/completion_scripts.h"

namespace zym {
namespace {

// Files are offered only where a definition says so.
constexpr std::string_view kHead = R"(# fish completion of zym
function __zym_models -d 'Folders and model files'
    __fish_complete_path (commandline -ct) | string match -r '^.*(?:/|\.zym|\.gguf)(?:\t.*)?$'
end

complete -c zym -f
)";

std::string inQuotes(std::string_view text) {
  std::string out = "'";
  for (const char c : text) {
    if (c == '\'' || c == '\\') {
      out += '\\';
    }
    out += c;
  }
  return out + "'";
}

// The part of a definition that tells of a value.
std::string completionOf(const Value& value) {
  switch (value.kind) {
    case ValueKind::Word:
      return fmt::format(" -x -a '{}'", fmt::join(value.words, " "));
    case ValueKind::File:
      return " -r -F";
    case ValueKind::Model:
      return " -a '(__zym_models)'";
    case ValueKind::Text:
      return " -x";
    case ValueKind::None:
      break;
  }
  return "";
}

// One definition. condition: a fish command that says where it holds; empty: everywhere.
void append(std::string_view condition, std::string_view what, std::string& out) {
  out += "complete -c zym";
  if (!condition.empty()) {
    fmt::format_to(std::back_inserter(out), " -n '{}'", condition);
  }
  fmt::format_to(std::back_inserter(out), "{}\n", what);
}

void appendOption(const OptionLine& option, std::string_view condition, std::string& out) {
  std::string what;
  if (!option.shortName.empty()) {
    what += " -s " + option.shortName;
  }
  what += " -l " + option.longName + completionOf(option.value) + " -d " + inQuotes(option.help);
  append(condition, what, out);
}

void appendCommand(const CommandLine& program, const CommandLine& command, std::string& out) {
  append("__fish_use_subcommand",
         fmt::format(" -a {} -d {}", command.name,
                     inQuotes(command.help.substr(0, command.help.find('\n')))),
         out);
  const std::string here = "__fish_seen_subcommand_from " + command.name;
  for (const OptionLine& option : command.options) {
    if (!hasOption(program, option.longName)) {
      appendOption(option, here, out);
    }
  }
  if (!command.commands.empty()) {
    append(here, fmt::format(" -a '{}'", fmt::join(commandNames(command), " ")), out);
  }
  bool hasModel = false;  // one definition serves all words of the command
  for (const Value& value : command.positionals) {
    if (value.kind == ValueKind::Model && hasModel) {
      continue;
    }
    hasModel = hasModel || value.kind == ValueKind::Model;
    if (value.kind == ValueKind::File) {
      append(here, " -F", out);
    } else if (value.kind != ValueKind::Text) {
      append(here, completionOf(value), out);
    }
  }
}

}  // namespace

std::string fishCompletion(const CommandLine& program) {
  std::string out(kHead);
  for (const OptionLine& option : program.options) {
    appendOption(option, "", out);
  }
  for (const CommandLine& command : program.commands) {
    appendCommand(program, command, out);
  }
  return out;
}

}  // namespace zym
