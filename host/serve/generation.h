// What a request wants generated, and what is told of it: the seam between the interfaces
// (host/serve/api_*.h) and what runs the model (host/serve/scheduler.h).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/chat_format.h"
#include "engine/log_probabilities.h"
#include "engine/reply.h"
#include "engine/reply_constraint.h"

namespace zym {

struct GenerationRequest {
  // A conversation, or where there are no messages, the tokens of a text to go on with.
  std::vector<engine::Message> messages;
  std::vector<engine::Tool> tools;
  bool thinking = false;
  bool preserveThinking = false;
  std::vector<int32_t> prompt;

  engine::ReplyOptions options;  // sampling and limits; its constraint is made by makeConstraint
  uint64_t seed = 0;             // of the first choice; those behind it have the numbers behind it
  size_t choices = 1;            // replies to the one prompt, 1 to 4
  // Called for every choice; null: the answer is free.
  std::function<std::unique_ptr<engine::ReplyConstraint>()> makeConstraint;
  std::optional<size_t> logProbabilities;  // of every token, with so many of the best
};

// Why a request cannot be fulfilled.
enum class GenerationFault : uint8_t {
  Request,       // what it says
  TooLong,       // its prompt has more tokens than a conversation has positions
  NoMemory,      // at the moment
  ShuttingDown,  // the server ends before the reply has begun
  Numbers        // those of the model went wrong
};

// Of a request whose prompt has been read.
struct GenerationStart {
  uint64_t promptTokens = 0;
  uint64_t cachedTokens = 0;  // of those, in place before
  double queueSeconds = 0;    // until it was taken up
};

// Told by the scheduler's thread, in order, which it must not keep waiting. Nothing comes after
// done() or failed(). A request whose cancel flag is raised has its choices finished with
// ReplyEnd::Cancelled, started() or not; so have replies that are cut off when the server ends.
// All but cancel() may throw std::bad_alloc, which costs this request alone: failed() is called
// with NoMemory, and where that throws as well the sink is let go of.
class GenerationSink {
 public:
  virtual ~GenerationSink() = default;

  virtual void started(const GenerationStart& start) = 0;
  virtual void event(size_t choice, const engine::ReplyEvent& event) = 0;
  // Before the events of its text; only where log-probabilities are asked for.
  virtual void token(size_t choice, const engine::LogProbabilities& chosen) = 0;
  virtual void finished(size_t choice, const engine::Reply& reply) = 0;
  virtual void done() = 0;  // all choices are finished
  virtual void failed(GenerationFault fault, std::string_view message) = 0;

  // As engine::ReplySinks::cancel.
  virtual const volatile int* cancel() const = 0;
};

enum class Submission : uint8_t { Accepted, QueueFull, ShuttingDown };

class GenerationQueue {
 public:
  virtual ~GenerationQueue() = default;

  // Any thread. Requests are taken up in the order of their arrival.
  virtual Submission submit(GenerationRequest request, std::shared_ptr<GenerationSink> sink) = 0;

  // Any thread. When it is full: until there should be room for a request.
  virtual std::chrono::seconds untilRoom() const = 0;
};

}  // namespace zym
