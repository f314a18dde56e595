// One of the conversations that the scheduler keeps: a context that stays, and the replies that it
// writes in it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "engine/chat_tokens.h"
#include "engine/context.h"
#include "engine/reply_run.h"
#include "engine/sampler.h"
#include "host/serve/generation.h"

namespace zym {

// A request while it is served.
struct GenerationJob {
  GenerationRequest request;
  std::shared_ptr<GenerationSink> sink;
  std::chrono::steady_clock::time_point arrival;
  engine::ChatTokens chat{};  // its prompt
  kel::Status encoded{};      // whether there is one; not looked at before it is taken up
  std::chrono::steady_clock::time_point takenUp{};  // unset: it left the line by itself
  double queueSeconds = 0;                          // until then
  bool isRead = false;
  size_t unfinished = 0;      // choices
  bool wasCancelled = false;  // one of them
  bool isOver = false;        // its end has been told

  bool isCancelled() const;
};

// One thread at a time.
class ReplySlot {
 public:
  explicit ReplySlot(std::unique_ptr<engine::Context> slotContext) : kept(std::move(slotContext)) {}

  engine::Context& context() { return *kept; }
  const engine::Context& context() const { return *kept; }

  bool isFree() const { return served == nullptr; }

  // Takes a choice of a request in hand; its run is to be begun.
  void take(std::shared_ptr<GenerationJob> wanted, size_t choiceIndex);

  // Unless it is free.
  const std::shared_ptr<GenerationJob>& job() const { return served; }
  size_t choice() const { return index; }
  engine::ReplyRun& run() { return *steps; }
  bool is(engine::ReplyRun::State state) const {
    return steps != nullptr && steps->state() == state;
  }
  const engine::Reply& reply() const { return result; }

  // Is free again; the context stays as it is. use: rises from one to the next.
  void release(uint64_t use);
  uint64_t lastUse() const { return used; }

  // Tokens of the last prompt that was read here: what its caller comes back with. The reply behind
  // it is framed otherwise then, and read again.
  uint64_t worth() const { return promptTokens; }

 private:
  engine::ReplySinks sinks();

  std::unique_ptr<engine::Context> kept;
  engine::Sampler sampler{0};
  std::shared_ptr<GenerationJob> served;
  size_t index = 0;
  std::unique_ptr<engine::ReplyConstraint> constraint;
  engine::Reply result;
  std::unique_ptr<engine::ReplyRun> steps;
  uint64_t used = 0;
  uint64_t promptTokens = 0;
};

}  // namespace zym
