// zym run: completions, or chat turns, from the command line.
#include <fmt/core.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/cli/text_source.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/terminal.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

struct RunOptions {
  EngineOptions engine;
  std::vector<std::string> prompts;
  std::string file;
  std::string standardInput;  // "-" when the prompt is read from standard input
  bool chat = false;
  bool each = false;
  bool json = false;
};

kel::Status collectPrompts(const RunOptions& options, std::vector<std::string>& prompts) {
  prompts = options.prompts;
  kel::Status status;
  if (!options.file.empty()) {
    status = readTextFile(options.file, prompts.emplace_back());
  }
  if (status.ok() && options.standardInput == "-") {
    status = readStandardInput(prompts.emplace_back());
  }
  return status;
}

using Json = nlohmann::ordered_json;

// What of a reply not every backend, or not every reply, has.
void addDetails(const TurnReport& report, const Sampling& sampling, Json& line) {
  if (report.end == TurnEnd::StopString) {
    line["stopString"] = report.stopString;
  }
  if (!report.reasoning.empty()) {
    line["reasoning"] = report.reasoning;
  }
  for (const CalledTool& call : report.calls) {
    line["toolCalls"].push_back({{"name", call.name}, {"arguments", call.arguments}});
  }
  if (report.usage) {
    line["usage"] = {{"promptTokens", report.usage->promptTokens},
                     {"reusedTokens", report.usage->reusedTokens},
                     {"replyTokens", report.usage->replyTokens},
                     {"seconds", report.seconds}};
  }
  // Where the best token is always taken, no number is drawn.
  if (sampling.temperature && sampling.seed) {
    line["seed"] = *sampling.seed;
  }
}

void printJson(const std::string& prompt, const TurnReport& report, const Sampling& sampling) {
  Json line = {{"prompt", prompt}, {"reply", report.reply}, {"end", nullptr}};
  if (report.end != TurnEnd::Unknown) {
    line["end"] = turnEndName(report.end);
    line["pieces"] = report.pieces;
  }
  addDetails(report, sampling, line);
  fmt::print("{}\n", line.dump(-1, ' ', false, Json::error_handler_t::replace));
  std::fflush(stdout);
}

void show(std::string_view text) {
  const std::string shown = isTerminal(1) ? withoutControls(text) : std::string(text);
  std::fwrite(shown.data(), 1, shown.size(), stdout);
  std::fflush(stdout);
}

// A runtime library looks at no flag while it completes: Ctrl-C is to end the program then.
bool stopsAtInterrupts(Engine& engine) {
  return engine.backend->conversation() != nullptr;
}

// As text the reply is shown while it comes, as JSON when it is whole.
TurnReport answer(Engine& engine, const RunOptions& options, const std::string& prompt) {
  const ReplyShow sinks = options.json ? ReplyShow{} : ReplyShow{show, nullptr};
  const bool stops = stopsAtInterrupts(engine);
  TurnReport report = options.chat ? runTurn(engine, prompt, sinks, stops)
                                   : runCompletion(engine, prompt, sinks, stops);
  const bool isBroken = report.end == TurnEnd::Failed;
  if (options.json && !isBroken) {
    printJson(prompt, report, engine.backend->sampling());
  }
  if (!options.json && (!isBroken || !report.reply.empty())) {
    show("\n");
  }
  return report;
}

// Says why a reply ended before its time. False when no further prompt can be answered.
bool explainEnd(const TurnReport& report, const BackendLimits& limits) {
  switch (report.end) {
    case TurnEnd::Failed:
      complain(report.fault);
      return false;
    case TurnEnd::ContextFull:
      complain(fmt::format("the context of {} positions is full; shorten the text",
                           limits.contextCapacity));
      return false;
    case TurnEnd::Limit:
      remark(fmt::format("(the reply was cut at {} tokens)", limits.turnTokens));
      return true;
    case TurnEnd::Stopped:
    case TurnEnd::StopString:
    case TurnEnd::Unknown:
    case TurnEnd::Cancelled:
      break;
  }
  return true;
}

// Why a word that follows MODEL is refused; empty when it is an option or "-".
std::string checkInputWord(const std::string& word) {
  if (word == "-") {
    return "";
  }
  return "\"" + word + "\" is no \"-\"; put the whole prompt in quotes, after -p";
}

int run(const RunOptions& options) {
  std::vector<std::string> prompts;
  Engine engine;
  kel::Status status = collectPrompts(options, prompts);
  if (status.ok()) {
    status = openEngine(options.engine, engine);
  }
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  if (stopsAtInterrupts(engine)) {
    catchInterrupts();
  }
  for (const std::string& prompt : prompts) {
    if (options.each) {
      engine.backend->reset();
    }
    const TurnReport report = answer(engine, options, prompt);
    if (report.end == TurnEnd::Cancelled) {
      return cancelledExit();
    }
    if (!explainEnd(report, engine.backend->limits())) {
      return 1;
    }
  }
  return 0;
}

}  // namespace

void addRun(const Command& program, Action& action) {
  auto options = std::make_shared<RunOptions>();
  const Command command = program.addCommand("run", "Complete a text, or answer chat messages");
  const auto model = addModel(command, options->engine);
  const Option input = command.addOption("INPUT", options->standardInput,
                                         "\"-\": read the prompt from standard input");
  input.typeName("").check(checkInputWord);
  // Each -p takes one word exactly as it stands on the command line: an option that is a list would
  // take the words after it as well, and split a text in brackets.
  const Option prompt =
      command
          .addOptionFunction<std::string>(
              "-p,--prompt",
              [options](const std::string& text) { options->prompts.push_back(text); },
              "Prompt; may be repeated: with --chat the turns of one conversation")
          .typeName("TEXT")
          .repeatable();
  const Option file =
      command.addOption("-f,--file", options->file, "Read the prompt from a file").typeName("FILE");
  const Option chat =
      command.addFlag("--chat", options->chat, "Frame each prompt as a chat message");
  command.addFlag("--each", options->each,
                  "With --chat: every prompt is a conversation of its own");
  command.addFlag("--json", options->json, "One JSON object per reply");
  addRaw(command, options->engine.raw);
  for (const Option& option : addReply(command, options->engine)) {
    option.needs(chat);
  }
  addSampling(command, options->engine.sampling);
  addExamples(command,
              "  zym run model.zym --chat -p 'Who are you?'\n"
              "  zym run model.zym --chat -p 'Hello' -p 'Who are you?' --json\n"
              "  zym run model.zym -f story.txt --temperature 0.8 --top-k 40 --seed 7\n"
              "  echo 'Once upon a time' | zym run model.zym -");
  command.onCall([options, model, prompt, file, input, &action] {
    if (prompt.count() + file.count() + input.count() == 0) {
      askFor("a prompt (-p TEXT, -f FILE or -)");
    }
    action = onModel(model, options->engine.model, [options] { return run(*options); });
  });
}

}  // namespace zym
