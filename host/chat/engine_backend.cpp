#include "host/chat/engine_backend.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <span>
#include <system_error>
#include <utility>
#include <vector>

#include "engine/chat_template.h"
#include "engine/chat_tokens.h"
#include "engine/model.h"
#include "engine/recommended_sampling.h"
#include "engine/reply.h"
#include "engine/sampler.h"
#include "engine/text_encoder.h"
#include "host/chat/conversation_note.h"
#include "host/chat/engine_sampling.h"
#include "host/chat/open_failure.h"
#include "host/chat/sampling_settings.h"

namespace zym {
namespace {

using kel::Status;

TurnEnd turnEnd(engine::ReplyEnd end) {
  switch (end) {
    case engine::ReplyEnd::Limit:
      return TurnEnd::Limit;
    case engine::ReplyEnd::ContextFull:
      return TurnEnd::ContextFull;
    case engine::ReplyEnd::Cancelled:
      return TurnEnd::Cancelled;
    case engine::ReplyEnd::StopString:
      return TurnEnd::StopString;
    case engine::ReplyEnd::Stop:
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

double perSecond(uint64_t count, double seconds) {
  return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

// Where the time of a reply goes.
class Stopwatch {
 public:
  void promptIsRead() { read = Clock::now(); }
  double promptSeconds() const { return secondsBetween(begin, read); }
  double replySeconds() const { return secondsBetween(read, Clock::now()); }

 private:
  using Clock = std::chrono::steady_clock;

  static double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
  }

  Clock::time_point begin = Clock::now();
  Clock::time_point read = begin;
};

class EngineBackend : public Backend, public Conversation {
 public:
  EngineBackend(std::unique_ptr<engine::Context> opened, const EngineOptions& given)
      : context(std::move(opened)),
        options(given),
        ableToThink(engine::canThink(context->model())),
        thinking(ableToThink &&
                 options.thinking.value_or(engine::thinksByDefault(context->model()))),
        asked{.seed = randomSeed()},
        sampler(*asked.seed) {
    replyOptions.maxTokens = options.maxTokens;
    replyOptions.stops = options.stops;
    begin();
  }

  // A message that is stopped while it is read, or that fails, has not been said.
  Status turn(const std::string& text, const TurnCalls& calls, TurnOutcome& outcome) override {
    return say(messages.size(), text, calls, outcome);
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
    replyOptions.sampling = settings(asked, /*thinks=*/false);
    engine::Reply reply;
    Stopwatch watch;
    Status status =
        generateText(*context, sampler, ids, replyOptions, sinksOf(calls, watch), reply);
    return report(reply, std::move(status), watch, outcome);
  }

  // The context keeps what it holds: the next conversation may begin alike.
  void reset() override { begin(); }

  Status configure(const Sampling& newer) override {
    Sampling wanted = asked;
    mergeSampling(newer, wanted);
    Status status = check(settings(wanted, thinking), context->model().sizes().vocab);
    if (!status.ok()) {
      return status;
    }
    asked = wanted;
    if (newer.seed) {
      sampler.seed(*newer.seed);
    }
    return status;
  }

  Sampling sampling() const override {
    Sampling shown = shownSampling(settings(asked, thinking));
    shown.seed = asked.seed;
    return shown;
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

  std::string chatRemark() const override {
    // A template of open turns is followed, though it lacks the family's marks.
    return chatStyleOf(context->model()) == engine::ChatStyle::Family
               ? engine::chatTemplateRemark(context->model().file().reader)
               : "";
  }

  Conversation* conversation() override { return this; }

  const std::string& system() const override { return options.system; }

  void setSystem(const std::string& text) override {
    if (!messages.empty() && messages.front().role == engine::Role::System) {
      messages.erase(messages.begin());
    }
    options.system = text;
    if (!text.empty()) {
      messages.insert(messages.begin(), messageOf(engine::Role::System, text));
    }
  }

  bool thinks() const override { return thinking; }

  Status setThinking(bool thinks) override {
    if (thinks && !ableToThink) {
      return Status::invalid("this model was made without reasoning; it answers at once");
    }
    thinking = thinks;
    return Status::success();
  }

  std::optional<std::string> lastMessage() const override {
    const size_t last = lastQuestion();
    return last < messages.size() ? std::optional(messages[last].content) : std::nullopt;
  }

  Status replaceLast(const std::string& text, const TurnCalls& calls,
                     TurnOutcome& outcome) override {
    return say(lastQuestion(), text, calls, outcome);
  }

  Status save(const std::string& path) override {
    std::error_code error;
    if (std::filesystem::exists(path, error) && !engine::isSessionFile(path)) {
      return Status::invalid(path + ": is no session file and is not written over; name another");
    }
    if (lastQuestion() == messages.size()) {
      return Status::invalid("nothing has been said that could be saved");
    }
    engine::ChatTokens history;
    Status status = encodeChat(context->model(), request(messages), history);
    if (!status.ok()) {
      return {status.code, path + ": " + status.message};
    }
    // A file holds one place. Of the reply as it was generated the next turn cannot use what is
    // framed otherwise in a history, so the place is where the two part.
    context->resume(history.tokens);
    return context->save(path, noteOf(messages));
  }

  Status load(const std::string& path) override {
    std::string note;
    Status status = context->load(path, note);
    std::vector<engine::Message> loaded;
    if (status.ok()) {
      status = readNote(note, loaded);
    }
    engine::ChatTokens history;
    if (status.ok()) {
      status = encodeChat(context->model(), request(loaded), history);
    }
    if (!status.ok()) {
      const bool isNamed = status.message.starts_with(path);
      return isNamed ? status : Status{status.code, path + ": " + status.message};
    }
    messages = std::move(loaded);
    isEmpty = false;
    const bool hasSystem = messages.front().role == engine::Role::System;
    options.system = hasSystem ? messages.front().content : "";
    return status;
  }

  ConversationUse use() const override {
    const engine::ContextStatistics& counted = context->statistics();
    return {.positions = isEmpty ? 0 : context->position(),
            .capacity = context->capacity(),
            .messages = messages.size(),
            .readTokens = readTokens,
            .reusedTokens = reusedTokens,
            .snapshots = context->placeCount(),
            .snapshotBytes = context->placeBytes(),
            .promptTokensPerSecond = perSecond(counted.promptTokens, counted.promptSeconds),
            .replyTokensPerSecond = perSecond(counted.generatedTokens, counted.generatedSeconds)};
  }

 private:
  void begin() {
    isEmpty = true;
    messages.clear();
    if (!options.system.empty()) {
      messages.push_back(messageOf(engine::Role::System, options.system));
    }
  }

  engine::ChatRequest request(std::span<const engine::Message> said) const {
    return {.messages = said, .thinking = thinking, .readsMarks = options.raw};
  }

  // Index of the user's last message; that of none where there is none.
  size_t lastQuestion() const {
    size_t last = messages.size();
    for (size_t i = 0; i < messages.size(); ++i) {
      if (messages[i].role == engine::Role::User) {
        last = i;
      }
    }
    return last;
  }

  // The user's message behind the first `kept` ones, and the reply to it, in place of what follows
  // those.
  Status say(size_t kept, const std::string& text, const TurnCalls& calls, TurnOutcome& outcome) {
    std::vector<engine::Message> wanted(messages.begin(),
                                        messages.begin() + static_cast<std::ptrdiff_t>(kept));
    wanted.push_back(messageOf(engine::Role::User, text));
    isEmpty = false;
    replyOptions.sampling = settings(asked, thinking);
    engine::Reply reply;
    Stopwatch watch;
    Status status = generateReply(*context, sampler, request(wanted), replyOptions,
                                  sinksOf(calls, watch), reply);
    const bool isUnsaid =
        !status.ok() || (reply.tokens == 0 && reply.end == engine::ReplyEnd::Cancelled);
    if (!isUnsaid) {
      wanted.push_back(reply.message);
      messages = std::move(wanted);
    }
    return report(reply, std::move(status), watch, outcome);
  }

  engine::SamplerSettings settings(const Sampling& wanted, bool thinks) const {
    const auto mode =
        thinks ? engine::SamplingMode::Thinking : engine::SamplingMode::WithoutThinking;
    return settingsInForce(wanted,
                           engine::recommendedSampling(mode, context->model().file().reader));
  }

  static engine::ReplySinks sinksOf(const TurnCalls& calls, Stopwatch& watch) {
    return {.prompt =
                [&](size_t done, size_t total) {
                  watch.promptIsRead();
                  if (calls.prompt) {
                    calls.prompt(done, total);
                  }
                },
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

  Status report(const engine::Reply& reply, Status status, const Stopwatch& watch,
                TurnOutcome& outcome) {
    if (status.code == kel::StatusCode::Corrupted) {
      status.message += "; `zym check --full " + options.model + "` names the tensors at fault";
    }
    readTokens += reply.promptTokens - reply.reusedTokens;
    reusedTokens += reply.reusedTokens;
    outcome.pieces = reply.tokens;
    outcome.end = status.ok() ? turnEnd(reply.end) : TurnEnd::Failed;
    outcome.stopString = reply.stopString;
    outcome.usage = {.promptTokens = reply.promptTokens,
                     .reusedTokens = reply.reusedTokens,
                     .replyTokens = reply.tokens,
                     .promptSeconds = watch.promptSeconds(),
                     .replySeconds = watch.replySeconds()};
    for (const engine::ToolCall& call : reply.message.toolCalls) {
      outcome.calls.push_back({call.name, call.arguments});
    }
    outcome.needsReset = !status.ok();
    return status;
  }

  std::unique_ptr<engine::Context> context;
  EngineOptions options;
  bool ableToThink;
  bool thinking;
  std::vector<engine::Message> messages;
  Sampling asked;
  engine::Sampler sampler;
  engine::ReplyOptions replyOptions;
  bool isEmpty = true;        // nothing was said since the last reset
  uint64_t readTokens = 0;    // of prompts
  uint64_t reusedTokens = 0;  // likewise
};

}  // namespace

qwen35::CacheType cacheTypeOf(std::string_view name) {
  return name == "bf16" ? qwen35::CacheType::BF16 : qwen35::CacheType::F32;
}

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

Status checkPositions(const std::string& path, const engine::Model& model, uint64_t positions) {
  const uint64_t most = model.shape().contextLength;
  if (positions <= most) {
    return Status::success();
  }
  return Status::invalid(path + ": --context " + std::to_string(positions) +
                         " is more than the model has room for; 1 to " + std::to_string(most) +
                         " can be");
}

Status openContext(const std::string& modelPath, const engine::ContextOptions& options,
                   std::unique_ptr<engine::Context>& context) {
  std::shared_ptr<const engine::Model> model;
  Status status = openModel(modelPath, model);
  if (status.ok()) {
    status = checkPositions(modelPath, *model, options.positions);
  }
  if (!status.ok()) {
    return status;
  }
  status = engine::Context::create(std::move(model), options, context);
  return status.ok() ? status : Status{status.code, modelPath + ": " + status.message};
}

Status openEngineBackend(const EngineOptions& options, std::unique_ptr<Backend>& backend) {
  std::unique_ptr<engine::Context> context;
  const engine::ContextOptions wanted{.positions = options.positions,
                                      .cacheType = cacheTypeOf(options.cache)};
  Status status = openContext(options.model, wanted, context);
  if (status.ok() && options.thinking.value_or(false) && !engine::canThink(context->model())) {
    return Status::invalid(options.model +
                           ": was made without reasoning and answers at once; leave out --think");
  }
  if (status.ok()) {
    backend = std::make_unique<EngineBackend>(std::move(context), options);
  }
  return status;
}

}  // namespace zym
