// A model ready to talk, and calls to it that show how they get on.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "container/tokenizer_data.h"
#include "host/chat/backend.h"

namespace zym {

struct EngineOptions {
  std::string model = {};   // path of a container
  std::string plugin = {};  // path of a runtime library to use instead of the program's own engine
  std::string system = {};  // message in front of the conversation; empty: none
  std::optional<bool> thinking =
      {};                  // replies begin with reasoning; none: as the model's size has it
  uint64_t maxTokens = 0;  // of one reply; 0: as many as the context, or the library, allows
  std::vector<std::string> stops = {};  // texts that end a reply
  uint64_t positions = 0;               // of the context; 0: engine::ContextOptions has it
  std::string cache = {};               // type of the attention caches, "f32" or "bf16"; empty: f32
  Sampling sampling = {};
  bool raw = false;  // special tokens in typed text take effect
};

struct Engine {
  std::unique_ptr<Backend> backend;
  bool topPExplained = false;  // whether configureEngine has explained top-p
  bool chatExplained = false;  // whether runTurn has passed on Backend::chatRemark
};

// Fails unless path is something that can be opened as a file; the message says what to do.
kel::Status checkInputFile(const std::string& path);
// The tokenizer of the container at path.
kel::Status readVocabulary(const std::string& path, kel::TokenizerData& tables);
// Whether a runtime library is to be used: options or ZYM_PLUGIN name one.
bool namesPlugin(const EngineOptions& options);
// The program's own engine, or the runtime library that options or ZYM_PLUGIN name.
kel::Status openEngine(const EngineOptions& options, Engine& engine);
// What asks for more than a runtime library can: what is the option, or the like, that it lacks.
kel::Status beyondLibraries(const std::string& what);
// Passes settings to the backend, which may refuse them. Says once, on standard error, when a top-p
// has another effect than its value suggests (sampling_settings.h).
kel::Status configureEngine(const Sampling& sampling, Engine& engine);

// "stop", "stop-string", "limit", "cancelled", "context-full", "unknown", "failed".
const char* turnEndName(TurnEnd end);

struct TurnReport {
  TurnEnd end = TurnEnd::Failed;
  std::string stopString;  // that ended it
  uint64_t pieces = 0;
  std::string reply;      // UTF-8
  std::string reasoning;  // likewise
  std::vector<CalledTool> calls;
  std::optional<Usage> usage;
  double seconds = 0;
  std::string fault;          // for people, when end is Failed
  bool backendFault = false;  // the runtime failed: the conversation may be damaged
};

// Where the text of a reply goes, in pieces of whole characters; both may be null.
struct ReplyShow {
  std::function<void(std::string_view)> answer;
  std::function<void(std::string_view)> reasoning;
};

// One chat turn with text as typed. Ctrl-C cancels if cancellable.
TurnReport runTurn(Engine& engine, const std::string& typed, const ReplyShow& show,
                   bool cancellable);
// The same with the text in place of the last message and the reply to it. The backend has a
// conversation (Backend::conversation).
TurnReport runReplacement(Engine& engine, const std::string& typed, const ReplyShow& show,
                          bool cancellable);
// One completion from an empty context, shown as it comes where the backend streams it.
TurnReport runCompletion(Engine& engine, const std::string& typed, const ReplyShow& show,
                         bool cancellable);

}  // namespace zym
