#include "host/chat/plugin_backend.h"

#include <dlfcn.h>

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "container/zym_loader.h"
#include "host/chat/engine.h"
#include "host/chat/open_failure.h"
#include "host/chat/sampling_settings.h"
#include "host/chat/text_map.h"
#include "zym/plugin.h"

namespace zym {
namespace {

using kel::Status;

// Holds far more than a completion can be: 96 tokens of the longest strings in a vocabulary.
constexpr size_t kReplyBytes = size_t{1} << 20;

struct Tables {
  const ZYMRuntimeTableV2* v2 = nullptr;
  const ZYMRuntimeTableV2S* stream = nullptr;
};

template <typename Function>
Function symbol(void* library, const char* name) {
  return reinterpret_cast<Function>(dlsym(library, name));
}

template <typename Table>
const Table* onlyTable(const Table* (*entry)(uint32_t*)) {
  uint32_t count = 0;
  const Table* tables = entry == nullptr ? nullptr : entry(&count);
  return count >= 1 ? tables : nullptr;
}

bool isUsable(const Tables& tables) {
  // Of the stream table only the function is used; the reserved words that follow it may be
  // missing.
  constexpr size_t kStreamBytes =
      offsetof(ZYMRuntimeTableV2S, chatTurnStream) + sizeof(ZYMChatTurnStreamFn);
  return tables.v2 != nullptr && tables.v2->header0 == 3 &&
         tables.v2->header1 >= sizeof(ZYMRuntimeTableV2) && tables.stream != nullptr &&
         tables.stream->header0 == 1 && tables.stream->header1 >= kStreamBytes;
}

Status loadTables(const std::filesystem::path& path, Tables& tables) {
  // Kept open: an OpenMP runtime whose threads live on must not be unloaded.
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* reason = dlerror();
    return Status::invalid("cannot load the runtime library: " +
                           std::string(reason == nullptr ? "unknown reason" : reason) +
                           "; name a working one with --plugin");
  }
  tables.v2 = onlyTable(symbol<ZYMPluginRuntimesV2Fn>(library, "zym_plugin_runtimes_v2"));
  tables.stream = onlyTable(symbol<ZYMPluginRuntimesV2SFn>(library, "zym_plugin_runtimes_v2s"));
  if (!isUsable(tables)) {
    return Status::invalid(path.string() +
                           ": not a runtime library of this interface version; name another one "
                           "with --plugin");
  }
  return Status::success();
}

// A message for people from the one-line reason that create gives.
Status createFailure(const std::string& modelPath, std::string_view reason) {
  std::string text = modelPath + ": " + std::string(reason);
  if (reason.empty()) {
    // The one failure of which the runtime gives no reason.
    text +=
        "not enough memory to open the model; end other programs, or convert it to smaller types";
  } else if (reason == "zym open failed") {
    kel::ZYMLoader loader;
    const Status status = loader.open(modelPath.c_str());
    if (!status.ok()) {
      return openFailure(modelPath, status);
    }
    text += ", though the file is a container; not enough memory?";
  } else if (reason == "not a qwen35-architecture model" || reason.starts_with("qwen35moe")) {
    text += "; this runtime runs dense qwen35 models of 32 layers";
  } else {
    text += "; `zym check` names the fault, `zym convert` makes the file anew";
  }
  return Status::invalid(text);
}

class PluginBackend : public Backend {
 public:
  PluginBackend(const Tables& tables, std::string path, ZYMRuntimeHandle* opened,
                const kel::TokenizerData& vocabulary, bool keepSpecial)
      : table(tables),
        modelPath(std::move(path)),
        handle(opened),
        textMap(vocabulary),
        raw(keepSpecial) {}
  ~PluginBackend() override { table.v2->destroy(handle); }
  PluginBackend(const PluginBackend&) = delete;
  PluginBackend& operator=(const PluginBackend&) = delete;

  // A message that is stopped while it is read has been said all the same.
  Status turn(const std::string& typed, const TurnCalls& calls, TurnOutcome& outcome) override {
    std::string text;
    Status status = textMap.toVocabulary(typed, raw, text);
    if (!status.ok()) {
      return status;
    }
    PieceDecoder decoder(textMap.way());
    const PieceSink deliver = [&](std::string_view piece) {
      ++outcome.pieces;
      tell(calls, decoder.feed(piece));
    };
    const auto forward = [](const char* piece, uint32_t length, void* userData) {
      (*static_cast<const PieceSink*>(userData))({piece, length});
    };
    status =
        callStatus(table.stream->chatTurnStream(handle, text.c_str(), forward,
                                                const_cast<PieceSink*>(&deliver), calls.cancel),
                   "the turn");
    tellRest(calls, decoder);
    const bool isCut = outcome.pieces >= ZYM_MAX_TURN_TOKENS;
    outcome.end = endOf(status, isCut ? TurnEnd::Limit : TurnEnd::Stopped);
    outcome.needsReset = !status.ok();
    return status;
  }

  Status complete(const std::string& typed, const TurnCalls& calls, TurnOutcome& outcome) override {
    std::string prompt;
    Status status = textMap.toVocabulary(typed, raw, prompt);
    if (!status.ok()) {
      return status;
    }
    std::vector<char> buffer(kReplyBytes);
    status = callStatus(table.v2->generate(handle, prompt.c_str(), buffer.data(), buffer.size()),
                        "the completion");
    PieceDecoder decoder(textMap.way());
    tell(calls, decoder.feed(buffer.data()));
    tellRest(calls, decoder);
    outcome.end = endOf(status, TurnEnd::Unknown);
    outcome.needsReset = !status.ok();
    return status;
  }

  void reset() override { table.v2->reset(handle); }

  Status configure(const Sampling& newer) override {
    const std::string unknown = settingBeyondLibraries(newer);
    if (!unknown.empty()) {
      return beyondLibraries(unknown);
    }
    ZYMSessionOptions options{};
    options.structSize = sizeof(options);
    options.temperature = newer.temperature.value_or(-1.0F);
    options.topK = newer.topK.value_or(0);
    options.topP = newer.topP.value_or(0.0F);
    options.seed = newer.seed.value_or(0);
    table.v2->configure(handle, &options);
    mergeSampling(newer, settings);
    return Status::success();
  }

  Sampling sampling() const override { return settings; }

  BackendStats stats() override {
    ZYMRuntimeStats record{};
    table.v2->stats(handle, &record);
    return {record.contextTokens, record.decodeMsTotal, record.lastDecodeMs};
  }

  bool hasRelativeTopP() const override { return true; }

  BackendLimits limits() const override { return {ZYM_MAX_TURN_TOKENS, ZYM_CONTEXT_CAPACITY}; }

 private:
  Status callStatus(uint32_t status, const char* what) const {
    if (status == ZYM_STATUS_OK) {
      return Status::success();
    }
    // The runtime gives no reason. It opens files whose tensors do not fit together, or hold values
    // that are not finite, and then fails every call; `zym check --full` names the tensors. A sound
    // file leaves memory that ran out.
    return Status::invalid(std::string(what) +
                           " failed; memory ran out, or the file has a fault, which `zym check "
                           "--full " +
                           modelPath + "` names");
  }

  TurnEnd endOf(const Status& status, TurnEnd regular) {
    if (stats().contextTokens >= ZYM_CONTEXT_CAPACITY) {
      return TurnEnd::ContextFull;
    }
    return status.ok() ? regular : TurnEnd::Failed;
  }

  // Also with no text: what counts pieces counts those that complete no character.
  static void tell(const TurnCalls& calls, const std::string& text) {
    if (calls.piece) {
      calls.piece(text);
    }
  }
  static void tellRest(const TurnCalls& calls, PieceDecoder& decoder) {
    if (const std::string rest = decoder.finish(); !rest.empty()) {
      tell(calls, rest);
    }
  }

  Tables table;
  std::string modelPath;
  ZYMRuntimeHandle* handle;
  TextMap textMap;
  bool raw;
  Sampling settings;  // all that were made so far
};

}  // namespace

Status openPluginBackend(const std::filesystem::path& library, const std::string& modelPath,
                         bool raw, std::unique_ptr<Backend>& backend) {
  kel::TokenizerData vocabulary;
  Status status = readVocabulary(modelPath, vocabulary);
  Tables tables;
  if (status.ok()) {
    status = loadTables(library, tables);
  }
  if (!status.ok() || tables.v2 == nullptr) {
    return status;
  }
  ZYMRuntimeHandle* handle = nullptr;
  char reason[256] = "";
  if (tables.v2->create(modelPath.c_str(), nullptr, &handle, reason, sizeof(reason)) !=
          ZYM_STATUS_OK ||
      handle == nullptr) {
    return createFailure(modelPath, reason);
  }
  backend = std::make_unique<PluginBackend>(tables, modelPath, handle, vocabulary, raw);
  return Status::success();
}

}  // namespace zym
