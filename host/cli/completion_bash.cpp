#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <string_view>
#include <vector>

#include "host/cli/completion_scripts.h"

namespace zym {
namespace {

constexpr std::string_view kHead = R"(# bash completion of zym
_zym_models() {
  compgen -d -- "$1"
  compgen -f -X '!*.zym' -- "$1"
  compgen -f -X '!*.gguf' -- "$1"
}

_zym() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word
  # To bash, "--type=q8_0" is three words.
  if [[ $current == = ]]; then
    current=''
  elif [[ $previous == = ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi

)";

constexpr std::string_view kTail = R"(}
complete -o filenames -F _zym zym
)";

std::string reply(std::string_view generator) {
  return fmt::format("mapfile -t COMPREPLY < <({})", generator);
}

std::string wordsReply(const std::vector<std::string>& words) {
  return reply(fmt::format("compgen -W '{}' -- \"$current\"", fmt::join(words, " ")));
}

std::string valueReply(const Value& value) {
  switch (value.kind) {
    case ValueKind::Word:
      return wordsReply(value.words);
    case ValueKind::File:
      return reply("compgen -f -- \"$current\"");
    case ValueKind::Model:
      return reply("_zym_models \"$current\"");
    case ValueKind::None:
    case ValueKind::Text:
      break;
  }
  return "COMPREPLY=()";
}

// What may stand behind each option that takes a value. Options that are completed alike share a
// case.
void appendValues(const CommandLine& command, std::string_view name, std::string& out) {
  std::map<std::string, std::vector<std::string>> patterns;
  for (const OptionLine& option : command.options) {
    if (option.value.kind == ValueKind::None) {
      continue;
    }
    for (const std::string& typed : typedNames(option)) {
      patterns[valueReply(option.value)].push_back(fmt::format("{}:{}", name, typed));
    }
  }
  for (const auto& [answer, alike] : patterns) {
    fmt::format_to(std::back_inserter(out), "    {})\n      {}\n      return\n      ;;\n",
                   fmt::join(alike, " | "), answer);
  }
}

// By their long names.
std::vector<std::string> optionWords(const std::vector<OptionLine>& options) {
  std::vector<std::string> words(options.size());
  std::transform(options.begin(), options.end(), words.begin(),
                 [](const OptionLine& option) { return typedNames(option).back(); });
  return words;
}

// Every word that is no option is completed alike: as a file where a file stands behind MODEL,
// which is one too.
std::string positionalReply(const CommandLine& command) {
  if (!command.commands.empty()) {
    return wordsReply(commandNames(command));
  }
  const auto firstThat = [&](const auto& fits) {
    return std::find_if(command.positionals.begin(), command.positionals.end(), fits);
  };
  auto found = firstThat([](const Value& value) { return value.kind == ValueKind::File; });
  if (found == command.positionals.end()) {
    found = firstThat([](const Value& value) { return value.kind != ValueKind::Text; });
  }
  return found == command.positionals.end() ? "COMPREPLY=()" : valueReply(*found);
}

}  // namespace

std::string bashCompletion(const CommandLine& program) {
  std::string out(kHead);
  const auto add = std::back_inserter(out);
  fmt::format_to(add,
                 "  for word in \"${{COMP_WORDS[@]:1:COMP_CWORD-1}}\"; do\n"
                 "    case $word in\n"
                 "      {})\n"
                 "        command=$word\n"
                 "        break\n"
                 "        ;;\n"
                 "    esac\n"
                 "  done\n"
                 "\n"
                 "  case $command:$previous in\n",
                 fmt::join(commandNames(program), " | "));
  appendValues(program, "*", out);
  for (const CommandLine& command : program.commands) {
    appendValues(command, command.name, out);
  }
  out += "  esac\n\n  case $command:$current in\n";
  const auto addCase = [&](std::string_view pattern, const std::string& action) {
    fmt::format_to(add, "    {})\n      {}\n      ;;\n", pattern, action);
  };
  for (const CommandLine& command : program.commands) {
    addCase(command.name + ":-*", wordsReply(optionWords(optionsBehind(program, command))));
    addCase(command.name + ":*", positionalReply(command));
  }
  addCase(":-*", wordsReply(optionWords(program.options)));
  addCase("*", wordsReply(commandNames(program)));
  return out.append("  esac\n").append(kTail);
}

}  // namespace zym
