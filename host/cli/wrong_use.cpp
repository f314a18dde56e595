#include "host/cli/wrong_use.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <CLI/CLI.hpp>

#include <string_view>
#include <vector>

#include "host/terminal/nearest_word.h"

namespace zym {
namespace {

bool isOption(std::string_view word) {
  return word.size() > 1 && word.starts_with('-');
}

bool isModel(std::string_view word) {
  return word.ends_with(".zym") || word.ends_with(".gguf");
}

std::vector<std::string> commandNames(const CLI::App& program) {
  std::vector<std::string> names;
  for (const CLI::App* command : program.get_subcommands(nullptr)) {
    names.push_back(command->get_name());
  }
  return names;
}

// Without the dashes that they begin with.
void appendLongNames(const CLI::App& command, std::vector<std::string>& names) {
  for (const CLI::Option* option : command.get_options()) {
    names.insert(names.end(), option->get_lnames().begin(), option->get_lnames().end());
  }
}

std::string question(std::string_view meant) {
  return meant.empty() ? "" : fmt::format(" (did you mean {}?)", meant);
}

std::string unknownOption(const CLI::App& program, const CLI::App& command,
                          std::string_view typed) {
  typed = typed.substr(0, typed.find('='));
  std::vector<std::string> names;
  appendLongNames(command, names);
  appendLongNames(program, names);
  const size_t dashes = typed.find_first_not_of('-');
  const std::string nearest =
      dashes == std::string_view::npos ? "" : nearestWord(typed.substr(dashes), names);
  return fmt::format("no option \"{}\"{}", typed, question(nearest.empty() ? "" : "--" + nearest));
}

std::string unknownCommand(const CLI::App& program, std::string_view typed) {
  const std::string meant = isModel(typed) ? fmt::format("zym chat {}", typed)
                                           : nearestWord(typed, commandNames(program));
  return fmt::format("no command \"{}\"{}", typed, question(meant));
}

// The first of the examples below the help.
std::string exampleOf(const CLI::App& command) {
  const std::string footer = command.get_footer();
  const size_t at = footer.find("\n  ");
  return at == std::string::npos ? "" : footer.substr(at + 3, footer.find('\n', at + 1) - at - 3);
}

std::string missing(const CLI::App& program, const CLI::App* command, const char* what) {
  if (command == nullptr) {
    return fmt::format("a command is required: {}", fmt::join(commandNames(program), ", "));
  }
  return fmt::format("{}, as in: {}", what, exampleOf(*command));
}

std::string faultText(const CLI::App& program, const CLI::App* command,
                      const CLI::ParseError& error) {
  // A word that nothing takes comes first: its value, or what follows it, may have been taken for
  // something else, which is what the error is about.
  for (const std::string& word : program.remaining(true)) {
    if (isOption(word)) {
      return unknownOption(program, command == nullptr ? program : *command, word);
    }
    if (command == nullptr) {
      return unknownCommand(program, word);
    }
  }
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError)) {
    return missing(program, command, error.what());
  }
  return error.what();
}

}  // namespace

std::string wrongUseText(const CLI::App& program, const CLI::ParseError& error) {
  const auto chosen = program.get_subcommands();
  const CLI::App* command = chosen.empty() ? nullptr : chosen.front();
  const std::string name = command == nullptr ? "zym" : "zym " + command->get_name();
  return fmt::format("{}; see {} --help", faultText(program, command, error), name);
}

}  // namespace zym
