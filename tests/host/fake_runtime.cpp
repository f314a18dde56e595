// A runtime library without a model, for tests of the program: it opens any file and answers by
// what it is told. It keeps to include/zym/plugin.h and to the rules stated there.
//
//   "say X"    the reply is X, a piece for every letter (so that characters are split)
//   "limit"    96 pieces
//   "slow"     a piece every 20 ms until it is cancelled or 96 are out
//   "fill"     the context is full from here on
//   "break"    the turn fails
//   "escape"   a reply with an escape code
//   "think"    two seconds pass before the first piece, or a completion
//   else       "heard N: TEXT", N counting the turns of the conversation, in two pieces
//
// With FAKE_OTHER_STREAM in the environment its stream table is of another interface version.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>

#include "zym/plugin.h"

namespace {

struct Session {
  uint64_t position = 0;
  int turns = 0;
  ZYMSessionOptions options{};
};

Session* sessionOf(ZYMRuntimeHandle* handle) {
  return reinterpret_cast<Session*>(handle);
}

uint32_t probe(const char*, ZYMRuntimeProbe*) {
  return ZYM_STATUS_OK;
}

uint32_t create(const char* path, const char*, ZYMRuntimeHandle** handle, char* err, size_t cap) {
  if (std::string_view(path).find("too-large") != std::string_view::npos) {
    return ZYM_STATUS_FAILED;  // as when memory runs out: without a reason
  }
  if (std::string_view(path).find("unopened") != std::string_view::npos) {
    std::snprintf(err, cap, "zym open failed");
    return ZYM_STATUS_FAILED;
  }
  if (std::string_view(path).find("refused") != std::string_view::npos) {
    std::snprintf(err, cap, "not a qwen35-architecture model");
    return ZYM_STATUS_FAILED;
  }
  *handle = reinterpret_cast<ZYMRuntimeHandle*>(new Session);
  return ZYM_STATUS_OK;
}

void destroy(ZYMRuntimeHandle* handle) {
  delete sessionOf(handle);
}

std::string settingsText(const ZYMSessionOptions& options) {
  char text[128];
  std::snprintf(text, sizeof(text), "temperature %g top-k %d top-p %g seed %llu",
                static_cast<double>(options.temperature), options.topK,
                static_cast<double>(options.topP), static_cast<unsigned long long>(options.seed));
  return text;
}

uint32_t generate(ZYMRuntimeHandle* handle, const char* prompt, char* out, size_t cap) {
  if (std::string_view(prompt) == "break") {
    return ZYM_STATUS_FAILED;
  }
  if (std::string_view(prompt) == "think") {
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
  const std::string text = std::string_view(prompt) == "settings"
                               ? settingsText(sessionOf(handle)->options)
                               : std::string(prompt) + " and so on";
  std::snprintf(out, cap, "%s", text.c_str());
  sessionOf(handle)->turns = 0;
  return ZYM_STATUS_OK;
}

uint32_t generateEx(ZYMRuntimeHandle* handle, const char* prompt, const ZYMSessionOptions*,
                    char* out, size_t cap) {
  return generate(handle, prompt, out, cap);
}

uint32_t bench(ZYMRuntimeHandle*, const ZYMBenchParams*, ZYMBenchResult*) {
  return ZYM_STATUS_FAILED;
}

uint32_t configure(ZYMRuntimeHandle* handle, const ZYMSessionOptions* options) {
  ZYMSessionOptions& kept = sessionOf(handle)->options;
  if (options->temperature >= 0) {
    kept.temperature = options->temperature;
  }
  if (options->topK > 0) {
    kept.topK = options->topK;
  }
  if (options->topP > 0) {
    kept.topP = options->topP;
  }
  if (options->seed != 0) {
    kept.seed = options->seed;
  }
  return ZYM_STATUS_OK;
}

uint32_t chatTurn(ZYMRuntimeHandle*, const char*, char*, size_t) {
  return ZYM_STATUS_FAILED;
}

uint32_t reset(ZYMRuntimeHandle* handle) {
  sessionOf(handle)->position = 0;
  sessionOf(handle)->turns = 0;
  return ZYM_STATUS_OK;
}

uint32_t stats(ZYMRuntimeHandle* handle, ZYMRuntimeStats* out) {
  *out = {sizeof(ZYMRuntimeStats), sessionOf(handle)->position, 12.5, 0.5};
  return ZYM_STATUS_OK;
}

struct Turn {
  ZYMStreamCallback callback;
  void* userData;
  volatile int* cancel;
  Session* session;

  // False when the turn is to end.
  bool emit(const std::string& piece) const {
    if (callback != nullptr) {
      callback(piece.c_str(), static_cast<uint32_t>(piece.size()), userData);
    }
    ++session->position;
    return cancel == nullptr || *cancel == 0;
  }
};

uint32_t answer(const Turn& turn, std::string_view text) {
  if (text.starts_with("say ")) {
    // Letters of the alphabet are one or two bytes long, and one letter is one byte of the reply.
    for (size_t at = 4; at < text.size();) {
      const size_t length = (text[at] & 0x80) == 0 ? 1 : 2;
      if (!turn.emit(std::string(text.substr(at, length)))) {
        break;
      }
      at += length;
    }
  } else if (text == "limit") {
    for (int i = 0; i < ZYM_MAX_TURN_TOKENS && turn.emit("x"); ++i) {
    }
  } else if (text == "slow") {
    for (int i = 0; i < ZYM_MAX_TURN_TOKENS && turn.emit("tick "); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  } else if (text == "think") {
    std::this_thread::sleep_for(std::chrono::seconds(2));
    turn.emit("done");
  } else if (text == "escape") {
    turn.emit("aě[31mb");
  } else if (text == "settings") {
    turn.emit(settingsText(turn.session->options));
  } else {
    if (turn.emit("heard " + std::to_string(turn.session->turns) + ": ")) {
      turn.emit(std::string(text));
    }
  }
  return ZYM_STATUS_OK;
}

uint32_t chatTurnStream(ZYMRuntimeHandle* handle, const char* userText, ZYMStreamCallback callback,
                        void* userData, volatile int* cancel) {
  Session* session = sessionOf(handle);
  const std::string_view text(userText);
  if (text == "break") {
    return ZYM_STATUS_FAILED;
  }
  session->position += 1 + text.size() / 4;
  if (text == "fill") {
    session->position = ZYM_CONTEXT_CAPACITY;
  }
  if (session->position >= ZYM_CONTEXT_CAPACITY) {
    return ZYM_STATUS_FAILED;
  }
  ++session->turns;
  if (cancel != nullptr && *cancel != 0) {
    return ZYM_STATUS_OK;
  }
  return answer({callback, userData, cancel, session}, text);
}

const ZYMRuntimeTableV2 kTable = {3,     0x70,      "fake",   "for tests", 0xF,
                                  probe, create,    destroy,  generate,    generateEx,
                                  bench, configure, chatTurn, reset,       stats};
const ZYMRuntimeTableV2S kStream = {1, 0x18, "fake", chatTurnStream, {nullptr, nullptr, nullptr}};
const ZYMRuntimeTableV2S kOtherStream = {2, 0x18, "fake", nullptr, {nullptr, nullptr, nullptr}};

}  // namespace

const ZYMRuntimeTableV2* zym_plugin_runtimes_v2(uint32_t* count) {
  if (count != nullptr) {
    *count = 1;
  }
  return &kTable;
}

const ZYMRuntimeTableV2S* zym_plugin_runtimes_v2s(uint32_t* count) {
  if (count != nullptr) {
    *count = 1;
  }
  return std::getenv("FAKE_OTHER_STREAM") == nullptr ? &kStream : &kOtherStream;
}
