#include "host/chat/engine.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "container/zym2_reader.h"
#include "host/chat/engine_backend.h"
#include "host/chat/open_failure.h"
#include "host/chat/plugin_backend.h"
#include "host/chat/plugin_lookup.h"
#include "host/chat/sampling_settings.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/liveness.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"

namespace zym {

using kel::Status;

namespace {

std::string pluginFromEnvironment() {
  const char* name = std::getenv("ZYM_PLUGIN");
  return name == nullptr ? "" : name;
}

// The first option that runtime libraries do not have; empty for none.
std::string optionBeyondLibraries(const EngineOptions& options) {
  if (options.maxTokens != 0) {
    return "--max-tokens";
  }
  if (!options.stops.empty()) {
    return "--stop";
  }
  if (!options.system.empty()) {
    return "--system";
  }
  if (options.thinking) {
    return *options.thinking ? "--think" : "--no-think";
  }
  if (options.positions != 0) {
    return "--context";
  }
  return options.cache.empty() ? "" : "--cache";
}

Status openBackend(const EngineOptions& options, std::unique_ptr<Backend>& backend) {
  std::filesystem::path library;
  Status status = findPlugin(options.plugin, pluginFromEnvironment(), library);
  if (!status.ok()) {
    return status;
  }
  if (library.empty()) {
    return openEngineBackend(options, backend);
  }
  const std::string lacking = optionBeyondLibraries(options);
  if (!lacking.empty()) {
    return beyondLibraries(lacking);
  }
  return openPluginBackend(library, options.model, options.raw, backend);
}

}  // namespace

Status checkInputFile(const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) {
    return Status::invalid(path + ": is a folder; give the file itself");
  }
  if (access(path.c_str(), R_OK) != 0) {
    return Status::invalid(path + ": " + std::strerror(errno) + "; check the path");
  }
  return Status::success();
}

Status readVocabulary(const std::string& path, kel::TokenizerData& tables) {
  kel::ZYM2Reader reader;
  const Status status = reader.open(path.c_str());
  if (!status.ok()) {
    return openFailure(path, status);
  }
  if (!reader.readTokenizer(tables)) {
    return Status::invalid(path + ": no readable tokenizer; `zym convert` makes the file anew");
  }
  return Status::success();
}

bool namesPlugin(const EngineOptions& options) {
  return !options.plugin.empty() || !pluginFromEnvironment().empty();
}

Status openEngine(const EngineOptions& options, Engine& engine) {
  Status status = checkInputFile(options.model);
  if (!status.ok()) {
    return status;
  }
  status = openBackend(options, engine.backend);
  return status.ok() ? configureEngine(options.sampling, engine) : status;
}

Status beyondLibraries(const std::string& what) {
  return Status::invalid("a runtime library has no " + what +
                         "; leave it out, or use the program's own engine, without --plugin");
}

Status configureEngine(const Sampling& sampling, Engine& engine) {
  Status status = engine.backend->configure(sampling);
  if (!status.ok()) {
    return status;
  }
  if (engine.topPExplained || !engine.backend->hasRelativeTopP() ||
      !topPLeavesOneToken(engine.backend->sampling())) {
    return status;
  }
  remark(
      "(top-p below 1 keeps only the best token of this runtime library, whatever the temperature; "
      "1 turns it off)");
  engine.topPExplained = true;
  return status;
}

const char* turnEndName(TurnEnd end) {
  switch (end) {
    case TurnEnd::Stopped:
      return "stop";
    case TurnEnd::StopString:
      return "stop-string";
    case TurnEnd::Limit:
      return "limit";
    case TurnEnd::Cancelled:
      return "cancelled";
    case TurnEnd::ContextFull:
      return "context-full";
    case TurnEnd::Unknown:
      return "unknown";
    case TurnEnd::Failed:
      break;
  }
  return "failed";
}

namespace {

// A generating call, watched: what is seen of it while it runs, and how it ended.
class WatchedCall {
 public:
  WatchedCall(std::string_view waiting, const ReplyShow& shown)
      : show(shown), alive(std::string(waiting)) {}

  TurnCalls calls(volatile int* cancel) {
    return {[this](std::string_view piece) { deliver(piece, report.reply, show.answer); },
            [this](std::string_view piece) { deliver(piece, report.reasoning, show.reasoning); },
            [this](uint64_t done, uint64_t total) { onPrompt(done, total); }, cancel};
  }

  TurnReport end(const Status& status, const TurnOutcome& outcome, bool cancelled) {
    becomeQuiet();
    report.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    report.pieces = outcome.pieces;
    report.stopString = outcome.stopString;
    report.calls = outcome.calls;
    report.usage = outcome.usage;
    report.end = cancelled ? TurnEnd::Cancelled : outcome.end;
    if (!status.ok() && !cancelled && outcome.end != TurnEnd::ContextFull) {
      report.end = TurnEnd::Failed;
      report.fault = status.message;
      report.backendFault = outcome.needsReset;
    }
    return std::move(report);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kSoon{500};

  // A prompt that is read soon is not worth a bar.
  void onPrompt(uint64_t done, uint64_t total) {
    if (!showsBar && done < total && Clock::now() - begin > kSoon) {
      showsBar = true;
      alive.stop();
    }
    if (showsBar) {
      bar.update(done, total);
    }
  }

  void becomeQuiet() {
    alive.stop();
    bar.clear();
  }

  void deliver(std::string_view text, std::string& collected,
               const std::function<void(std::string_view)>& sink) {
    becomeQuiet();
    collected += text;
    if (!text.empty() && sink) {
      sink(text);
    }
  }

  const ReplyShow& show;
  Clock::time_point begin = Clock::now();
  Liveness alive;
  // Counts the time from the beginning of the call.
  Progress bar{"reading", ProgressUnit::Positions};
  bool showsBar = false;
  TurnReport report;
};

using BackendCall = std::function<Status(const TurnCalls& calls, TurnOutcome& outcome)>;

TurnReport watch(const BackendCall& call, const char* waiting, const ReplyShow& show,
                 bool cancellable) {
  WatchedCall watched(waiting, show);
  std::optional<CancelScope> scope;
  if (cancellable) {
    scope.emplace();
  }
  TurnOutcome outcome;
  const Status status = call(watched.calls(cancellable ? cancelFlag() : nullptr), outcome);
  return watched.end(status, outcome, scope && scope->cancelled());
}

void explainChat(Engine& engine) {
  if (std::exchange(engine.chatExplained, true)) {
    return;
  }
  if (const std::string text = engine.backend->chatRemark(); !text.empty()) {
    remark("(" + text + ")");
  }
}

}  // namespace

TurnReport runTurn(Engine& engine, const std::string& typed, const ReplyShow& show,
                   bool cancellable) {
  explainChat(engine);
  const auto call = [&](const TurnCalls& calls, TurnOutcome& outcome) {
    return engine.backend->turn(typed, calls, outcome);
  };
  return watch(call, "reading", show, cancellable);
}

TurnReport runReplacement(Engine& engine, const std::string& typed, const ReplyShow& show,
                          bool cancellable) {
  const auto call = [&](const TurnCalls& calls, TurnOutcome& outcome) {
    return engine.backend->conversation()->replaceLast(typed, calls, outcome);
  };
  return watch(call, "reading", show, cancellable);
}

TurnReport runCompletion(Engine& engine, const std::string& typed, const ReplyShow& show,
                         bool cancellable) {
  const auto call = [&](const TurnCalls& calls, TurnOutcome& outcome) {
    return engine.backend->complete(typed, calls, outcome);
  };
  return watch(call, "completing", show, cancellable);
}

}  // namespace zym
