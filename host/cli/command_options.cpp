#include <string>

#include "host/chat/sampling_settings.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"

namespace zym {
namespace {

CLI::Option* addSetting(CLI::App& command, const char* name, const char* what, Sampling& sampling) {
  return command
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

void addStop(CLI::App& command, EngineOptions& options) {
  command
      .add_option_function<std::string>(
          "--stop",
          [&options](const std::string& text) {
            if (text.empty()) {
              throw CLI::ValidationError("--stop: an empty text ends nothing");
            }
            options.stops.push_back(text);
          },
          "Text that ends a reply and is no part of it; may be repeated")
      ->type_name("TEXT")
      ->trigger_on_parse();
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
  auto* temperature =
      addSetting(command, "temperature",
                 "Randomness; 0 takes the best token always (default of this and the following: "
                 "what the model's makers recommend)",
                 sampling);
  command
      .add_flag_callback(
          "--greedy", [&sampling] { sampling.temperature = 0.0F; },
          "Take the best token always: temperature 0")
      ->excludes(temperature);
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
  addSetting(command, "repetition-window",
             "Tokens at the end that --repetition-penalty looks at; 0: all", sampling);
  addSetting(command, "logit-bias",
             "Added to the score of a token, -100 to 100, or -inf, which bans it; may be repeated",
             sampling)
      ->type_name("ID=VALUE")
      ->trigger_on_parse();
  addSetting(command, "seed", "Start of the random numbers, or \"random\", the default", sampling);
}

void addContext(CLI::App& command, EngineOptions& options) {
  command
      .add_option("--context", options.positions,
                  "Positions of the context, at most the model's own (default: those, at most "
                  "32768)")
      ->check(CLI::Range(int64_t{1}, int64_t{1} << 31))
      ->type_name("N");
  command
      .add_option_function<std::string>(
          "--cache",
          [&options](const std::string& type) {
            if (type != "f32" && type != "bf16") {
              throw CLI::ValidationError("--cache is one of f32|bf16, not \"" + type + "\"");
            }
            options.cache = type;
          },
          "Type of the attention caches: bf16 takes half of the memory of f32, the default")
      ->type_name("f32|bf16");
}

ConversationOptions addReply(CLI::App& command, EngineOptions& options) {
  command
      .add_option("--max-tokens", options.maxTokens,
                  "Tokens of a reply at most (default: as many as the context has room for)")
      ->check(CLI::Range(1, 262144))
      ->type_name("N");
  addStop(command, options);
  addContext(command, options);
  auto* system =
      command.add_option("--system", options.system, "System message in front of the conversation")
          ->type_name("TEXT");
  auto* think = command.add_flag_callback(
      "--think", [&options] { options.thinking = true; },
      "Let the model think before it answers (default of models from 4B up)");
  auto* noThink = command
                      .add_flag_callback(
                          "--no-think", [&options] { options.thinking = false; },
                          "Let the model answer at once (default of smaller models)")
                      ->excludes(think);
  return {system, think, noThink};
}

void addRaw(CLI::App& command, bool& raw) {
  command.add_flag("--raw", raw, "Let special tokens in the text take effect");
}

void addExamples(CLI::App& command, const std::string& lines) {
  command.footer("Examples:\n" + lines);
}

}  // namespace zym
