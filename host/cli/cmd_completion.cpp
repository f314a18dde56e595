// zym completion: what makes a shell complete the program's command lines.
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "host/cli/commands.h"
#include "host/cli/completion_scripts.h"

namespace zym {
namespace {

using Script = std::string (*)(const CommandLine& program);

const std::map<std::string, Script>& scripts() {
  static const std::map<std::string, Script> byShell = {
      {"bash", bashCompletion}, {"fish", fishCompletion}, {"zsh", zshCompletion}};
  return byShell;
}

}  // namespace

void addCompletion(const Command& program, Action& action) {
  auto shell = std::make_shared<std::string>();
  const Command command =
      program.addCommand("completion", "Print a shell's completion script for zym");
  command.addOption("SHELL", *shell, "Whose script")
      .required()
      .typeName("bash|fish|zsh")
      .check([](const std::string& name) {
        return scripts().count(name) == 1
                   ? std::string()
                   : "\"" + name + "\" is no shell that it knows: bash, fish or zsh";
      });
  addExamples(command,
              "  zym completion fish >~/.config/fish/completions/zym.fish\n"
              "  source <(zym completion bash)");
  command.onCall([shell, program, &action] {
    action = [shell, program] {
      std::fputs(scripts().at(*shell)(commandLineOf(program.parsed())).c_str(), stdout);
      return 0;
    };
  });
}

}  // namespace zym
