#include "host/chat/engine_backend.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "engine/model.h"
#include "engine/reply.h"
#include "engine/sampler.h"
#include "engine/text_encoder.h"
#include "host/chat/open_failure.h"

namespace zym {
namespace {

using kel::Status;

constexpr uint64_t kDefaultSeed = 42;

TurnEnd turnEnd(engine::ReplyEnd end) {
  switch (end) {
    case engine::ReplyEnd::Limit:
      return TurnEnd::Limit;
    case engine::ReplyEnd::ContextFull:
      return TurnEnd::ContextFull;
    case engine::ReplyEnd::Cancelled:
      return TurnEnd::Cancelled;
    case engine::ReplyEnd::Stop:
    case engine::ReplyEnd::StopString:
      break;
  }
  return TurnEnd::Stopped;
}

engine::Message messageOf(engine::Role role, const std::string& content) {
  engine::Message message;
  message.role = role;
  message.content = content;
  return message;
}

class EngineBackend : public Backend {
 public:
  EngineBackend(std::unique_ptr<engine::Context> opened, const EngineOptions& asked)
      : context(std::move(opened)), options(asked) {
    replyOptions.maxTokens = options.maxTokens;
    begin();
  }

  // A message that is stopped while it is read, or that fails, has not been said.
  Status turn(const std::string& text, const TurnCalls& calls, TurnOutcome& outcome) override {
    messages.push_back(messageOf(engine::Role::User, text));
    isEmpty = false;
    const engine::ChatRequest request{
        .messages = messages, .thinking = options.thinking, .readsMarks = options.raw};
    engine::Reply reply;
    Status status = generateReply(*context, sampler, request, replyOptions, sinksOf(calls), reply);
    const bool isUnsaid =
        !status.ok() || (reply.tokens == 0 && reply.end == engine::ReplyEnd::Cancelled);
    if (isUnsaid) {
      messages.pop_back();
    } else {
      messages.push_back(reply.message);
    }
    return report(reply, std::move(status), outcome);
  }

  Status complete(const std::string& prompt, const TurnCalls& calls,
                  TurnOutcome& outcome) override {
    reset();
    isEmpty = false;
    const engine::TextEncoder& encoder = context->model().textEncoder();
    std::vector<int32_t> ids;
    if (context->model().tokenizer().bosId >= 0) {
      ids.push_back(context->model().tokenizer().bosId);
    }
    if (options.raw) {
      encoder.encodeWithSpecials(prompt, ids);
    } else {
      encoder.encode(prompt, ids);
    }
    engine::Reply reply;
    Status status = generateText(*context, sampler, ids, replyOptions, sinksOf(calls), reply);
    return report(reply, std::move(status), outcome);
  }

  // The context keeps what it holds: the next conversation may begin alike.
  void reset() override { begin(); }

  Status configure(const Sampling& sampling) override {
    const auto changed = [](const auto& newer, auto value) { return newer.value_or(value); };
    engine::SamplerSettings& settings = replyOptions.sampling;
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

  BackendStats stats() override {
    const engine::ContextStatistics& counted = context->statistics();
    const uint64_t generated = counted.generatedTokens;
    return {isEmpty ? 0 : context->position(),
            (counted.promptSeconds + counted.generatedSeconds) * 1e3,
            generated == 0 ? 0 : counted.generatedSeconds * 1e3 / static_cast<double>(generated)};
  }

  BackendLimits limits() const override {
    return {options.maxTokens == 0 ? context->capacity() : options.maxTokens, context->capacity()};
  }

  bool hasRelativeTopP() const override { return false; }

 private:
  void begin() {
    isEmpty = true;
    messages.clear();
    if (!options.system.empty()) {
      messages.push_back(messageOf(engine::Role::System, options.system));
    }
  }

  static engine::ReplySinks sinksOf(const TurnCalls& calls) {
    return {.prompt = calls.prompt,
            .event =
                [&calls](const engine::ReplyEvent& event) {
                  using Kind = engine::ReplyEvent::Kind;
                  if (event.kind == Kind::Answer && calls.piece) {
                    calls.piece(event.text);
                  } else if (event.kind == Kind::Reasoning && calls.reasoning) {
                    calls.reasoning(event.text);
                  }
                },
            .token = nullptr,
            .cancel = calls.cancel};
  }

  Status report(const engine::Reply& reply, Status status, TurnOutcome& outcome) const {
    if (status.code == kel::StatusCode::Corrupted) {
      status.message += "; `zym check --full " + options.model + "` names the tensors at fault";
    }
    outcome.pieces = reply.tokens;
    outcome.end = status.ok() ? turnEnd(reply.end) : TurnEnd::Failed;
    outcome.needsReset = !status.ok();
    return status;
  }

  std::unique_ptr<engine::Context> context;
  EngineOptions options;
  std::vector<engine::Message> messages;
  engine::Sampler sampler{kDefaultSeed};
  engine::ReplyOptions replyOptions;
  bool isEmpty = true;  // nothing was said since the last reset
};

}  // namespace

Status openModel(const std::string& path, std::shared_ptr<const engine::Model>& model) {
  Status status = engine::Model::open(path, model);
  if (status.ok()) {
    return status;
  }
  kel::ZYM2Reader reader;
  if (const Status opened = reader.open(path.c_str()); !opened.ok()) {
    return openFailure(path, opened);
  }
  const char* advice = status.code == kel::StatusCode::IoError
                           ? ""
                           : "; `zym check` tells more, `zym convert` makes the file anew";
  return {status.code, path + ": " + status.message + advice};
}

Status openContext(const std::string& modelPath, uint64_t positions,
                   std::unique_ptr<engine::Context>& context) {
  std::shared_ptr<const engine::Model> model;
  Status status = openModel(modelPath, model);
  if (!status.ok()) {
    return status;
  }
  status = engine::Context::create(std::move(model), {.positions = positions}, context);
  return status.ok() ? status : Status{status.code, modelPath + ": " + status.message};
}

Status openEngineBackend(const EngineOptions& options, std::unique_ptr<Backend>& backend) {
  std::unique_ptr<engine::Context> context;
  Status status = openContext(options.model, 0, context);
  if (status.ok()) {
    backend = std::make_unique<EngineBackend>(std::move(context), options);
  }
  return status;
}

}  // namespace zym
