#include "host/cli/command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>

namespace zym {
namespace {

// What names a model, or becomes one.
constexpr std::array<std::string_view, 3> kModels = {"MODEL", "SRC", "DST"};

ValueKind kindByName(std::string_view name) {
  if (std::find(kModels.begin(), kModels.end(), name) != kModels.end()) {
    return ValueKind::Model;
  }
  return name == "FILE" ? ValueKind::File : ValueKind::Text;
}

Value valueOf(const CLI::Option& option) {
  Value value;
  const std::string type = option.get_type_name();
  const bool positional = option.get_positional();
  value.name = positional ? option.get_name(true) : type;
  if (option.get_items_expected_max() == 0) {
    value.kind = ValueKind::None;
  } else if (type.find('|') != std::string::npos) {
    value.kind = ValueKind::Word;
    value.words = CLI::detail::split(type, '|');
  } else {
    value.kind = kindByName(value.name);
  }
  return value;
}

OptionLine lineOf(const CLI::Option& option) {
  const auto& longNames = option.get_lnames();
  const auto& shortNames = option.get_snames();
  return {.shortName = shortNames.empty() ? "" : shortNames.front(),
          .longName = longNames.empty() ? "" : longNames.front(),
          .help = option.get_description(),
          .repeatable = option.get_trigger_on_parse(),
          .value = valueOf(option)};
}

}  // namespace

CommandLine commandLineOf(const CLI::App& program) {
  CommandLine line;
  line.name = program.get_name();
  line.help = program.get_description();
  for (const CLI::Option* option : program.get_options()) {
    if (option->get_positional()) {
      line.positionals.push_back(valueOf(*option));
    } else {
      line.options.push_back(lineOf(*option));
    }
  }
  for (const CLI::App* command : program.get_subcommands(nullptr)) {
    line.commands.push_back(commandLineOf(*command));
  }
  return line;
}

bool hasOption(const CommandLine& command, std::string_view longName) {
  return std::any_of(command.options.begin(), command.options.end(),
                     [&](const OptionLine& option) { return option.longName == longName; });
}

std::vector<OptionLine> optionsBehind(const CommandLine& program, const CommandLine& command) {
  std::vector<OptionLine> options = command.options;
  for (const OptionLine& option : program.options) {
    if (!hasOption(command, option.longName)) {
      options.push_back(option);
    }
  }
  return options;
}

std::vector<std::string> typedNames(const OptionLine& option) {
  std::vector<std::string> names;
  if (!option.shortName.empty()) {
    names.push_back("-" + option.shortName);
  }
  if (!option.longName.empty()) {
    names.push_back("--" + option.longName);
  }
  return names;
}

std::vector<std::string> commandNames(const CommandLine& program) {
  std::vector<std::string> names;
  for (const CommandLine& command : program.commands) {
    names.push_back(command.name);
  }
  return names;
}

}  // namespace zym
