// A model ready to talk: its backend and the text map of its vocabulary.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "container/status.h"
#include "container/tokenizer_data.h"
#include "host/chat/backend.h"
#include "host/chat/text_map.h"

namespace zym {

struct EngineOptions {
  std::string model;       // path of a container
  std::string plugin;      // path of a runtime library to use instead of the program's own engine
  uint64_t maxTokens = 0;  // of one reply; 0: as many as the context, or the library, allows
  Sampling sampling;
  bool raw = false;  // special tokens in typed text take effect
};

struct Engine {
  std::unique_ptr<Backend> backend;
  std::unique_ptr<TextMap> text;
  bool raw = false;
  Sampling sampling;           // all settings made so far
  bool topPExplained = false;  // whether configureEngine has explained top-p
};

// Fails unless path is something that can be opened as a file; the message says what to do.
kel::Status checkInputFile(const std::string& path);
// The tokenizer of the container at path.
kel::Status readVocabulary(const std::string& path, kel::TokenizerData& tables);
// Whether a runtime library is to be used: options or ZYM_PLUGIN name one.
bool namesPlugin(const EngineOptions& options);
// The program's own engine, or the runtime library that options or ZYM_PLUGIN name.
kel::Status openEngine(const EngineOptions& options, Engine& engine);
// Passes settings to the backend, which may refuse them. Says once, on standard error, when a top-p
// has another effect than its value suggests (sampling_settings.h).
kel::Status configureEngine(const Sampling& sampling, Engine& engine);

// Unknown: a completion that may have stopped by itself or been cut at the limit. A runtime library
// reports neither the reason nor the number of pieces, and the filled positions do not tell either:
// a completion that stops one piece early fills as many as one that was cut.
enum class TurnEnd { Stopped, Limit, Cancelled, ContextFull, Unknown, Failed };
// "stop", "limit", "cancelled", "context full", "unknown", "failed".
const char* turnEndName(TurnEnd end);

struct TurnReport {
  TurnEnd end = TurnEnd::Failed;
  uint32_t pieces = 0;
  std::string reply;          // UTF-8
  std::string fault;          // for people, when end is Failed
  bool backendFault = false;  // the runtime failed: the conversation may be damaged
};

// One chat turn with text as typed. show receives the reply in pieces of whole characters. Ctrl-C
// cancels if cancellable.
TurnReport runTurn(Engine& engine, const std::string& typed,
                   const std::function<void(std::string_view)>& show, bool cancellable);
// One completion from an empty context, shown as it comes where the backend streams it.
TurnReport runCompletion(Engine& engine, const std::string& typed,
                         const std::function<void(std::string_view)>& show, bool cancellable);

}  // namespace zym
