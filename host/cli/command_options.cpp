#include <string>

#include "host/chat/sampling_settings.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"

namespace zym {
namespace {

Option addSetting(const Command& command, const char* name, const char* what, Sampling& sampling) {
  return command
      .addOptionFunction<std::string>(
          std::string("--") + name,
          [name, &sampling](const std::string& value) {
            const kel::Status status = setSampling(name, value, sampling);
            if (!status.ok()) {
              refuseUse(status.message);
            }
          },
          what)
      .typeName("VALUE");
}

void addStop(const Command& command, EngineOptions& options) {
  command
      .addOptionFunction<std::string>(
          "--stop",
          [&options](const std::string& text) {
            if (text.empty()) {
              refuseUse("--stop: an empty text ends nothing");
            }
            options.stops.push_back(text);
          },
          "Text that ends a reply and is no part of it; may be repeated")
      .typeName("TEXT")
      .repeatable();
}

}  // namespace

std::shared_ptr<ModelArgument> addModel(const Command& command, EngineOptions& options) {
  auto model = addModelArgument(command);
  command
      .addOption("--plugin", options.plugin,
                 "Runtime library to use instead of the program's own engine (else ZYM_PLUGIN)")
      .typeName("FILE");
  return model;
}

void addSampling(const Command& command, Sampling& sampling) {
  const Option temperature =
      addSetting(command, "temperature",
                 "Randomness; 0 takes the best token always (default of this and the following: "
                 "what the model's makers recommend)",
                 sampling);
  command
      .addFlagFunction(
          "--greedy", [&sampling] { sampling.temperature = 0.0F; },
          "Take the best token always: temperature 0")
      .excludes(temperature);
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
      .typeName("ID=VALUE")
      .repeatable();
  addSetting(command, "seed", "Start of the random numbers, or \"random\", the default", sampling);
}

void addContext(const Command& command, EngineOptions& options) {
  command
      .addOption("--context", options.positions,
                 "Positions of the context, at most the model's own (default: those, at most "
                 "32768)")
      .range(int64_t{1}, int64_t{1} << 31)
      .typeName("N");
  command
      .addOptionFunction<std::string>(
          "--cache",
          [&options](const std::string& type) {
            if (type != "f32" && type != "bf16") {
              refuseUse("--cache is one of f32|bf16, not \"" + type + "\"");
            }
            options.cache = type;
          },
          "Type of the attention caches: bf16 takes half of the memory of f32, the default")
      .typeName("f32|bf16");
}

ConversationOptions addReply(const Command& command, EngineOptions& options) {
  command
      .addOption("--max-tokens", options.maxTokens,
                 "Tokens of a reply at most (default: as many as the context has room for)")
      .range(1, 262144)
      .typeName("N");
  addStop(command, options);
  addContext(command, options);
  const Option system =
      command.addOption("--system", options.system, "System message in front of the conversation")
          .typeName("TEXT");
  const Option think = command.addFlagFunction(
      "--think", [&options] { options.thinking = true; },
      "Let the model think before it answers (default of models from 4B up)");
  const Option noThink = command
                             .addFlagFunction(
                                 "--no-think", [&options] { options.thinking = false; },
                                 "Let the model answer at once (default of smaller models)")
                             .excludes(think);
  return {system, think, noThink};
}

void addRaw(const Command& command, bool& raw) {
  command.addFlag("--raw", raw, "Let special tokens in the text take effect");
}

void addExamples(const Command& command, const std::string& lines) {
  command.setFooter("Examples:\n" + lines);
}

}  // namespace zym
