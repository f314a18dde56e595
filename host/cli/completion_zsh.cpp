#include <fmt/format.h>
#include <fmt/ranges.h>

#include <iterator>
#include <string_view>

#include "host/cli/completion_scripts.h"

namespace zym {
namespace {

constexpr std::string_view kHead = R"(#compdef zym
_zym_models() {
  _files -g '*.(zym|gguf)'
}

_zym() {
  local context state state_descr line
  typeset -A opt_args
)";

// Loaded from $fpath, the file is the function's first call; sourced, it only defines it.
constexpr std::string_view kTail = R"(}

if [[ $funcstack[1] == _zym ]]; then
  _zym "$@"
else
  compdef _zym zym
fi
)";

// text in single quotes, with a backslash before each of the marks in `special`.
std::string inQuotes(std::string_view text, std::string_view special = "") {
  std::string out = "'";
  for (const char c : text) {
    if (c == '\'') {
      out += "'\\''";
      continue;
    }
    if (special.find(c) != std::string_view::npos) {
      out += '\\';
    }
    out += c;
  }
  return out + "'";
}

// What completes a value, as the last part of a specification. Of free text there is nothing.
std::string actionOf(const Value& value) {
  switch (value.kind) {
    case ValueKind::Word:
      return fmt::format("({})", fmt::join(value.words, " "));
    case ValueKind::File:
      return "_files";
    case ValueKind::Model:
      return "_zym_models";
    case ValueKind::None:
    case ValueKind::Text:
      break;
  }
  return " ";
}

std::string nameOf(const Value& value) {
  const bool isWord = value.kind == ValueKind::Word;
  return isWord || value.name.empty() ? "value" : value.name.substr(0, value.name.find(':'));
}

// Specifications of one option, one for each of its names: '(-f --file)--file=[help]:FILE:_files'.
void appendOption(const OptionLine& option, std::string_view indent, std::string& out) {
  const std::vector<std::string> names = typedNames(option);
  const bool endsAll = option.longName == "help" || option.longName == "version";
  for (const std::string& name : names) {
    std::string text = endsAll             ? "(- : *)"
                       : option.repeatable ? "*"
                                           : fmt::format("({})", fmt::join(names, " "));
    text += name;
    const bool hasValue = option.value.kind != ValueKind::None;
    if (hasValue) {
      text += name.starts_with("--") ? "=" : "+";
    }
    std::string help = inQuotes(option.help, "[]\\");
    text += "[" + help.substr(1, help.size() - 2) + "]";
    if (hasValue) {
      text += fmt::format(":{}:{}", nameOf(option.value), actionOf(option.value));
    }
    fmt::format_to(std::back_inserter(out), "{}'{}' \\\n", indent, text);
  }
}

void appendCommand(const CommandLine& program, const CommandLine& command, std::string& out) {
  const auto add = std::back_inserter(out);
  fmt::format_to(add, "        {})\n          _arguments -s \\\n", command.name);
  for (const OptionLine& option : optionsBehind(program, command)) {
    appendOption(option, "            ", out);
  }
  if (!command.commands.empty()) {
    fmt::format_to(add, "            '1:command:({})' \\\n", fmt::join(commandNames(command), " "));
  }
  for (size_t i = 0; i < command.positionals.size(); ++i) {
    const Value& value = command.positionals[i];
    fmt::format_to(add, "            '{}::{}:{}' \\\n", i + 1, nameOf(value), actionOf(value));
  }
  fmt::format_to(add, "            && return 0\n          ;;\n");
}

}  // namespace

std::string zshCompletion(const CommandLine& program) {
  std::string out(kHead);
  const auto add = std::back_inserter(out);
  out += "  _arguments -C \\\n";
  for (const OptionLine& option : program.options) {
    appendOption(option, "    ", out);
  }
  out +=
      "    '1:command:->command' \\\n"
      "    '*::argument:->argument' \\\n"
      "    && return 0\n"
      "  case $state in\n"
      "    command)\n"
      "      local -a commands=(\n";
  for (const CommandLine& command : program.commands) {
    fmt::format_to(add, "        {}\n",
                   inQuotes(command.name + ":" + command.help.substr(0, command.help.find('\n'))));
  }
  out +=
      "      )\n"
      "      _describe command commands\n"
      "      ;;\n"
      "    argument)\n"
      "      case $words[1] in\n";
  for (const CommandLine& command : program.commands) {
    appendCommand(program, command, out);
  }
  return out.append("      esac\n      ;;\n  esac\n").append(kTail);
}

}  // namespace zym
