// What the commands that generate text need from a runtime. They use this interface alone, whatever
// implements it.
//
// One call at a time per backend, from any thread; only the cancel flag may change meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "container/status.h"

namespace zym {

// Members without a value leave the backend's setting as it is.
struct Sampling {
  std::optional<float> temperature;  // 0 is greedy
  std::optional<int32_t> topK;
  std::optional<float> topP;
  std::optional<uint32_t> seed;
};

struct BackendStats {
  uint64_t contextTokens = 0;  // positions the conversation holds
  double decodeMsTotal = 0;    // forward passes since the last reset, those of prompts too
  double lastDecodeMs = 0;     // a position's share of the last pass
};

struct BackendLimits {
  uint32_t turnTokens;       // tokens that one generating call emits at most
  uint64_t contextCapacity;  // positions that a conversation may hold
};

// One piece of a reply in vocabulary text; may hold part of a character. Called on the thread that
// called turn, between forward passes.
using PieceSink = std::function<void(std::string_view piece)>;

class Backend {
 public:
  virtual ~Backend() = default;

  // Feeds text (in vocabulary text, see text_map.h) as the user's next message and streams the
  // reply. A non-zero *cancel, set from anywhere, ends the turn after the piece in flight; with the
  // flag set beforehand the text is fed and nothing is generated. cancel may be null.
  virtual kel::Status turn(const std::string& text, const PieceSink& sink,
                           volatile int* cancel) = 0;
  // Completes a prompt from an empty context; ends the conversation.
  virtual kel::Status complete(const std::string& prompt, std::string& reply) = 0;
  // Empties the context; sampling settings stay.
  virtual void reset() = 0;
  virtual void configure(const Sampling& sampling) = 0;
  virtual BackendStats stats() = 0;
  virtual BackendLimits limits() const = 0;
};

}  // namespace zym
