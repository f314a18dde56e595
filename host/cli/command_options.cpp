#include <string>

#include "host/chat/sampling_settings.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"

namespace zym {
namespace {

void addSetting(CLI::App& command, const char* name, const char* what, Sampling& sampling) {
  command
      .add_option_function<std::string>(
          std::string("--") + name,
          [name, &sampling](const std::string& value) {
            const kel::Status status = setSampling(name, value, sampling);
            if (!status.ok()) {
              throw CLI::ValidationError(status.message);
            }
          },
          what)
      ->type_name("VALUE");
}

}  // namespace

std::shared_ptr<ModelArgument> addModel(CLI::App& command, EngineOptions& options) {
  auto model = addModelArgument(command);
  command
      .add_option("--plugin", options.plugin,
                  "Runtime library to use instead of the program's own engine (else ZYM_PLUGIN)")
      ->type_name("FILE");
  return model;
}

void addSampling(CLI::App& command, Sampling& sampling) {
  addSetting(command, "temperature", "Randomness; 0, the default, always takes the best token",
             sampling);
  addSetting(command, "top-k", "Sample among this many best tokens", sampling);
  addSetting(command, "top-p",
             "Sample among the fewest best tokens with this share of the probability; 1: among all",
             sampling);
  addSetting(
      command, "min-p",
      "Sample among tokens with at least this share of the best one's probability; 0: among all",
      sampling);
  addSetting(command, "presence-penalty", "Against tokens that the reply holds, -2 to 2", sampling);
  addSetting(command, "frequency-penalty",
             "Against tokens for every time that the reply holds them, -2 to 2", sampling);
  addSetting(command, "repetition-penalty",
             "Against tokens of prompt and reply: divides their scores; 1: none", sampling);
  addSetting(command, "seed", "Start of the random numbers", sampling);
}

void addReply(CLI::App& command, EngineOptions& options) {
  command
      .add_option("--max-tokens", options.maxTokens,
                  "Tokens of a reply at most (default: as many as the context has room for)")
      ->check(CLI::Range(1, 262144))
      ->type_name("N");
  command.add_option("--system", options.system, "System message in front of the conversation")
      ->type_name("TEXT");
  command.add_flag("--think", options.thinking, "Let the model think before it answers");
}

void addRaw(CLI::App& command, bool& raw) {
  command.add_flag("--raw", raw, "Let special tokens in the text take effect");
}

void addExamples(CLI::App& command, const std::string& lines) {
  command.footer("Examples:\n" + lines);
}

}  // namespace zym
