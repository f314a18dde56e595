// What may be typed after `zym`, read off the options that the program parses with.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace zym {

enum class ValueKind {
  None,   // a flag
  Text,   // nothing that could be suggested
  File,   // any file
  Model,  // a model file, or a folder
  Word    // one of a few words
};

struct Value {
  ValueKind kind = ValueKind::None;
  std::string name;                // as the help names it
  std::vector<std::string> words;  // for Word
};

struct OptionLine {
  std::string shortName;  // "p", or empty
  std::string longName;   // "prompt"
  std::string help;
  bool repeatable = false;
  Value value;
};

struct CommandLine {
  std::string name;
  std::string help;
  std::vector<OptionLine> options;
  std::vector<Value> positionals;
  std::vector<CommandLine> commands;
};

CommandLine commandLineOf(const CLI::App& program);

bool hasOption(const CommandLine& command, std::string_view longName);
// All options that may stand behind a command: its own, and those of the program.
std::vector<OptionLine> optionsBehind(const CommandLine& program, const CommandLine& command);
// The names as they are typed, the long one last: "-p", "--prompt".
std::vector<std::string> typedNames(const OptionLine& option);
std::vector<std::string> commandNames(const CommandLine& program);

}  // namespace zym
