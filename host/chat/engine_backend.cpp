#include "host/chat/engine_backend.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "engine/model.h"
#include "engine/sampler.h"

namespace zym {
namespace {

using kel::Status;

constexpr const char* kTurnEnd = "<|im_end|>";
constexpr uint64_t kDefaultSeed = 42;

class EngineBackend : public Backend {
 public:
  EngineBackend(std::unique_ptr<engine::Context> opened, uint64_t maxTokens)
      : context(std::move(opened)),
        tokenizer(context->model().tokenizer()),
        turnEnd(tokenizer.tokenToId(kTurnEnd)),
        replyTokens(maxTokens == 0 ? context->capacity() : maxTokens) {}

  // A message that is stopped while it is read has not been said.
  Status turn(const std::string& text, const TurnCalls& calls) override {
    return generate("<|im_start|>user\n" + text + "<|im_end|>\n<|im_start|>assistant\n", calls);
  }

  Status complete(const std::string& prompt, const TurnCalls& calls) override {
    reset();
    Status status = generate(prompt, calls);
    endsConversation = true;
    return status;
  }

  void reset() override {
    context->reset();
    sampler.forget();
    decodeMsTotal = 0;
    endsConversation = false;
  }

  Status configure(const Sampling& sampling) override {
    const auto changed = [](const auto& newer, auto value) { return newer.value_or(value); };
    engine::SamplerSettings wanted = settings;
    wanted.temperature = changed(sampling.temperature, settings.temperature);
    wanted.topK = changed(sampling.topK, settings.topK);
    wanted.topP = changed(sampling.topP, settings.topP);
    wanted.minP = changed(sampling.minP, settings.minP);
    wanted.presencePenalty = changed(sampling.presencePenalty, settings.presencePenalty);
    wanted.frequencyPenalty = changed(sampling.frequencyPenalty, settings.frequencyPenalty);
    wanted.repetitionPenalty = changed(sampling.repetitionPenalty, settings.repetitionPenalty);
    Status status = check(wanted, context->model().sizes().vocab);
    if (!status.ok()) {
      return status;
    }
    settings = wanted;
    if (sampling.seed) {
      sampler.seed(*sampling.seed);
    }
    return status;
  }

  BackendStats stats() override { return {context->position(), decodeMsTotal, lastDecodeMs}; }

  BackendLimits limits() const override { return {replyTokens, context->capacity()}; }

  bool hasRelativeTopP() const override { return false; }
  bool streamsCompletions() const override { return true; }

 private:
  using Clock = std::chrono::steady_clock;

  Status generate(const std::string& prompt, const TurnCalls& calls) {
    if (endsConversation) {
      reset();
    }
    std::vector<int32_t> ids;
    Status status = tokenizer.encode(prompt, ids, true);
    if (!status.ok()) {
      return status;
    }
    const Clock::time_point start = Clock::now();
    const auto fed = context->feedPrompt(ids, calls.prompt, calls.cancel, status);
    if (fed != engine::Context::Fed::All) {
      return status;
    }
    count(start, ids.size());
    sampler.beginReply(ids);
    return reply(calls);
  }

  Status reply(const TurnCalls& calls) {
    std::string piece;
    for (uint64_t emitted = 0; !isCancelled(calls);) {
      const int32_t id = sampler.next(context->logits(), settings);
      if (id == tokenizer.eosId || id == turnEnd || !tokenizer.decode({id}, piece).ok()) {
        break;
      }
      if (calls.piece) {
        calls.piece(piece);
      }
      if (++emitted >= replyTokens || context->position() >= context->capacity()) {
        break;
      }
      sampler.accept(id);
      const Clock::time_point start = Clock::now();
      Status status = context->feedToken(id);
      if (!status.ok()) {
        return status;
      }
      count(start, 1);
    }
    return Status::success();
  }

  static bool isCancelled(const TurnCalls& calls) {
    return calls.cancel != nullptr && __atomic_load_n(calls.cancel, __ATOMIC_RELAXED) != 0;
  }

  void count(Clock::time_point start, uint64_t tokens) {
    const std::chrono::duration<double, std::milli> spent = Clock::now() - start;
    decodeMsTotal += spent.count();
    lastDecodeMs = tokens == 0 ? 0 : spent.count() / static_cast<double>(tokens);
  }

  std::unique_ptr<engine::Context> context;
  const kel::Tokenizer& tokenizer;
  int32_t turnEnd;
  uint64_t replyTokens;
  engine::Sampler sampler{kDefaultSeed};
  engine::SamplerSettings settings;
  double decodeMsTotal = 0;
  double lastDecodeMs = 0;
  bool endsConversation = false;  // what the context holds is a completion
};

}  // namespace

Status openContext(const std::string& modelPath, uint64_t positions,
                   std::unique_ptr<engine::Context>& context) {
  std::shared_ptr<const engine::Model> model;
  Status status = engine::Model::open(modelPath, model);
  if (status.ok()) {
    status = engine::Context::create(std::move(model), {.positions = positions}, context);
  }
  if (status.ok()) {
    return status;
  }
  const char* advice = status.code == kel::StatusCode::IoError
                           ? ""
                           : "; `zym check` tells more, `zym convert` makes the file anew";
  return {status.code, modelPath + ": " + status.message + advice};
}

Status openEngineBackend(const std::string& modelPath, uint64_t maxTokens,
                         std::unique_ptr<Backend>& backend) {
  std::unique_ptr<engine::Context> context;
  Status status = openContext(modelPath, 0, context);
  if (status.ok()) {
    backend = std::make_unique<EngineBackend>(std::move(context), maxTokens);
  }
  return status;
}

}  // namespace zym
