#include "host/serve/reply_slot.h"

#include <span>
#include <utility>

#include "engine/log_probabilities.h"

namespace zym {

bool GenerationJob::isCancelled() const {
  return engine::isCancelled(sink->cancel());
}

void ReplySlot::take(std::shared_ptr<GenerationJob> wanted, size_t choiceIndex) {
  served = std::move(wanted);
  index = choiceIndex;
  result = {};
  const GenerationRequest& request = served->request;
  constraint = request.makeConstraint ? request.makeConstraint() : nullptr;
  engine::ReplyOptions options = request.options;
  options.constraint = constraint.get();
  sampler.seed(request.seed + index);
  steps = std::make_unique<engine::ReplyRun>(*kept, sampler, served->chat, request.tools,
                                             std::move(options), sinks(), result);
}

engine::ReplySinks ReplySlot::sinks() {
  engine::ReplySinks told;
  told.event = [this](const engine::ReplyEvent& event) { served->sink->event(index, event); };
  if (served->request.logProbabilities) {
    told.token = [this](int32_t id, std::span<const float> logits) {
      served->sink->token(index,
                          engine::logProbabilities(logits, id, *served->request.logProbabilities));
    };
  }
  told.cancel = served->sink->cancel();
  return told;
}

void ReplySlot::release(uint64_t use) {
  if (result.promptTokens > 0) {
    promptTokens = result.promptTokens;
  }
  steps.reset();
  constraint.reset();
  served.reset();
  used = use;
}

}  // namespace zym
