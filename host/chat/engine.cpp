#include "host/chat/engine.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "container/zym2_reader.h"
#include "host/chat/plugin_backend.h"
#include "host/chat/plugin_lookup.h"
#include "host/chat/sampling_settings.h"
#include "host/inspect/open_failure.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/liveness.h"
#include "host/terminal/terminal.h"

namespace zym {

using kel::Status;

namespace {

TurnReport failed(std::string fault) {
  TurnReport report;
  report.fault = std::move(fault);
  return report;
}

bool contextFull(Backend& backend) {
  return backend.stats().contextTokens >= backend.limits().contextCapacity;
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

Status openEngine(const EngineOptions& options, Engine& engine) {
  Status status = checkInputFile(options.model);
  if (!status.ok()) {
    return status;
  }
  std::filesystem::path library;
  const char* fromEnvironment = std::getenv("ZYM_PLUGIN");
  status = findPlugin(options.plugin, fromEnvironment == nullptr ? "" : fromEnvironment,
                      programFolder(), library);
  if (!status.ok()) {
    return status;
  }
  kel::TokenizerData tables;
  status = readVocabulary(options.model, tables);
  if (!status.ok()) {
    return status;
  }
  engine.text = std::make_unique<TextMap>(tables);
  engine.raw = options.raw;
  status = openPluginBackend(library, options.model, engine.backend);
  if (status.ok()) {
    configureEngine(options.sampling, engine);
  }
  return status;
}

void configureEngine(const Sampling& sampling, Engine& engine) {
  engine.backend->configure(sampling);
  mergeSampling(sampling, engine.sampling);
  if (engine.topPExplained || !topPLeavesOneToken(engine.sampling)) {
    return;
  }
  remark("(top-p below 1 keeps only the best token, whatever the temperature; 1 turns it off)");
  engine.topPExplained = true;
}

const char* turnEndName(TurnEnd end) {
  switch (end) {
    case TurnEnd::Stopped:
      return "stop";
    case TurnEnd::Limit:
      return "limit";
    case TurnEnd::Cancelled:
      return "cancelled";
    case TurnEnd::ContextFull:
      return "context full";
    case TurnEnd::Unknown:
      return "unknown";
    case TurnEnd::Failed:
      break;
  }
  return "failed";
}

TurnReport runTurn(Engine& engine, const std::string& typed,
                   const std::function<void(std::string_view)>& show, bool cancellable) {
  std::string text;
  const Status mapped = engine.text->toVocabulary(typed, engine.raw, text);
  if (!mapped.ok()) {
    return failed(mapped.message);
  }

  TurnReport report;
  PieceDecoder decoder(engine.text->way());
  Liveness reading("reading");
  const auto deliver = [&](const std::string& complete) {
    report.reply += complete;
    if (!complete.empty() && show) {
      show(complete);
    }
  };
  std::optional<CancelScope> scope;
  if (cancellable) {
    scope.emplace();
  }
  const Status status = engine.backend->turn(
      text,
      [&](std::string_view piece) {
        reading.stop();
        ++report.pieces;
        deliver(decoder.feed(piece));
      },
      cancellable ? cancelFlag() : nullptr);
  reading.stop();
  deliver(decoder.finish());

  if (scope && scope->cancelled()) {
    report.end = TurnEnd::Cancelled;
  } else if (contextFull(*engine.backend)) {
    report.end = TurnEnd::ContextFull;
  } else if (!status.ok()) {
    report.fault = status.message;
    report.backendFault = true;
  } else {
    report.end =
        report.pieces >= engine.backend->limits().turnTokens ? TurnEnd::Limit : TurnEnd::Stopped;
  }
  return report;
}

TurnReport runCompletion(Engine& engine, const std::string& typed) {
  std::string text;
  const Status mapped = engine.text->toVocabulary(typed, engine.raw, text);
  if (!mapped.ok()) {
    return failed(mapped.message);
  }
  TurnReport report;
  std::string pieces;
  Liveness working("completing");
  const Status status = engine.backend->complete(text, pieces);
  working.stop();
  PieceDecoder decoder(engine.text->way());
  report.reply = decoder.feed(pieces);
  report.reply += decoder.finish();
  if (contextFull(*engine.backend)) {
    report.end = TurnEnd::ContextFull;
  } else if (status.ok()) {
    report.end = TurnEnd::Unknown;
  } else {
    report.fault = status.message;
    report.backendFault = true;
  }
  return report;
}

}  // namespace zym
