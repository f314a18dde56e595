#include "capi/records.h"

#include <algorithm>

#include "engine/chat_tokens.h"
#include "engine/recommended_sampling.h"
#include "engine/utf8_text.h"

namespace capi {

namespace {

// A size beyond this is no record's: reading it would leave the caller's memory.
constexpr uint32_t kLargestRecord = 4096;
constexpr uint32_t kRecordUnit = 8;

constexpr uint32_t kMostThreads = 1024;
constexpr uint32_t kMostBestTokens = 1000;

[[noreturn]] void refuse(const std::string& message) {
  throw Failure(ZYM_ERROR_ARGUMENT, message);
}

void mustBeZero(uint32_t reserved, const char* name) {
  if (reserved != 0) {
    throw Failure(ZYM_ERROR_RECORD, std::string(name) + ": a reserved field is not 0");
  }
}

std::string numbered(const char* name, size_t i) {
  return std::string(name) + " " + std::to_string(i);
}

engine::Role roleOf(int32_t role, const std::string& name) {
  switch (role) {
    case ZYM_ROLE_SYSTEM:
      return engine::Role::System;
    case ZYM_ROLE_USER:
      return engine::Role::User;
    case ZYM_ROLE_ASSISTANT:
      return engine::Role::Assistant;
    case ZYM_ROLE_TOOL:
      return engine::Role::Tool;
    default:
      refuse(name + ": unknown role " + std::to_string(role));
  }
}

engine::Message readMessage(const ZYMMessage* given, const std::string& name) {
  const ZYMMessage record = readRecord(given, name.c_str());
  engine::Message message;
  message.role = roleOf(record.role, name);
  message.content = textOf(record.content, name.c_str());
  const std::string reasoning = textOf(record.reasoning, name.c_str());
  if (record.reasoning.data != nullptr) {
    message.reasoningContent = reasoning;
  }
  for (const ZYMToolCall* const element : arrayOf(record.calls, record.callCount, "calls")) {
    const ZYMToolCall call = readRecord(element, "call");
    mustBeZero(call.reserved, "call");
    message.toolCalls.push_back({textOf(call.name, "the name of a call"),
                                 textOf(call.arguments, "the arguments of a call")});
  }
  const bool isAssistants = message.reasoningContent.has_value() || !message.toolCalls.empty();
  if (isAssistants && message.role != engine::Role::Assistant) {
    refuse(name + ": only assistants have reasoning and calls");
  }
  return message;
}

bool isThinking(int32_t thinking, const engine::Model& model) {
  switch (thinking) {
    case ZYM_THINKING_DEFAULT:
      return engine::thinksByDefault(model);
    case ZYM_THINKING_OFF:
      return false;
    case ZYM_THINKING_ON:
      return engine::canThink(model);
    default:
      refuse("conversation: unknown kind of thinking " + std::to_string(thinking));
  }
}

engine::SamplerSettings readSampling(const ZYMSampling* given) {
  const ZYMSampling record = readRecord(given, "sampling");
  mustBeZero(record.reserved, "sampling");
  engine::SamplerSettings settings{
      .temperature = record.temperature,
      .topK = record.topK,
      .topP = record.topP == 0 ? 1 : record.topP,
      .minP = record.minP,
      .presencePenalty = record.presencePenalty,
      .frequencyPenalty = record.frequencyPenalty,
      .repetitionPenalty = record.repetitionPenalty == 0 ? 1 : record.repetitionPenalty,
      .repetitionWindow = record.repetitionWindow};
  if (record.topK < 0) {
    refuse("sampling: top-k must be a whole number from 0, not " + std::to_string(record.topK));
  }
  for (const ZYMLogitBias& bias : arrayOf(record.biases, record.biasCount, "biases")) {
    settings.logitBias[bias.id] = bias.bias;
  }
  return settings;
}

engine::SamplerSettings recommended(const engine::Model& model, bool thinking) {
  return engine::recommendedSampling(
      thinking ? engine::SamplingMode::Thinking : engine::SamplingMode::WithoutThinking,
      model.file().reader);
}

}  // namespace

void checkGrowth(const void* record, size_t knownBytes, bool isRead, const char* name) {
  uint32_t given = 0;
  std::memcpy(&given, record, sizeof(given));
  if (given < kRecordUnit || given > kLargestRecord || given % kRecordUnit != 0) {
    throw Failure(ZYM_ERROR_RECORD,
                  std::string(name) + ": structSize " + std::to_string(given) + " is no size");
  }
  if (!isRead || given <= knownBytes) {
    return;
  }
  const auto* const bytes = static_cast<const uint8_t*>(record);
  if (std::any_of(bytes + knownBytes, bytes + given, [](uint8_t byte) { return byte != 0; })) {
    throw Failure(ZYM_ERROR_RECORD,
                  std::string(name) + ": a field is set that this release does not know");
  }
}

std::string_view bytesOf(ZYMText text, const char* name) {
  if (text.size > 0) {
    required(text.data, name);
  }
  return text.size == 0 ? std::string_view() : std::string_view(text.data, text.size);
}

std::string textOf(ZYMText text, const char* name) {
  const std::string_view bytes = bytesOf(text, name);
  if (!engine::isValid(bytes)) {
    refuse(std::string(name) + ": the text is not UTF-8");
  }
  return std::string(bytes);
}

ZYMText textOut(const std::string& text) {
  return {text.c_str(), text.size()};
}

Conversation readConversation(const ZYMConversation* given, const engine::Model& model) {
  const ZYMConversation record = readRecord(given, "conversation");
  mustBeZero(record.reserved, "conversation");
  Conversation conversation;
  conversation.thinking = isThinking(record.thinking, model);
  conversation.preserveThinking = record.keepsReasoning != 0;
  for (const ZYMMessage* const element :
       arrayOf(record.messages, record.messageCount, "messages")) {
    conversation.messages.push_back(
        readMessage(element, numbered("message", conversation.messages.size())));
  }
  for (const ZYMText& tool : arrayOf(record.tools, record.toolCount, "tools")) {
    conversation.tools.push_back(
        {textOf(tool, numbered("tool", conversation.tools.size()).c_str())});
  }
  return conversation;
}

engine::ContextOptions readContextOptions(const ZYMContextOptions* given) {
  const ZYMContextOptions record = readOptional(given, "options");
  mustBeZero(record.reserved, "options");
  engine::ContextOptions options{.positions = record.positions, .threads = record.threads};
  if (record.snapshotBytes != 0) {
    options.snapshotBytes = record.snapshotBytes;
  }
  if (record.threads > kMostThreads) {
    refuse("options: at most " + std::to_string(kMostThreads) + " threads, not " +
           std::to_string(record.threads));
  }
  switch (record.cacheType) {
    case ZYM_CACHE_F32:
      options.cacheType = qwen35::CacheType::F32;
      return options;
    case ZYM_CACHE_BF16:
      options.cacheType = qwen35::CacheType::BF16;
      return options;
    default:
      refuse("options: unknown type of caches " + std::to_string(record.cacheType));
  }
}

ReplyOptions readReplyOptions(const ZYMReplyOptions* given, const engine::Model& model,
                              bool thinking) {
  const ZYMReplyOptions record = readOptional(given, "options");
  mustBeZero(record.reserved, "options");
  ReplyOptions options;
  options.engine.sampling =
      record.sampling == nullptr ? recommended(model, thinking) : readSampling(record.sampling);
  options.engine.maxTokens = record.maxTokens;
  if (record.thinkingTokens != 0) {
    options.engine.thinkingTokens = record.thinkingTokens;
  }
  for (const ZYMText& stop : arrayOf(record.stops, record.stopCount, "stops")) {
    options.engine.stops.push_back(textOf(stop, "a stop"));
    if (options.engine.stops.back().empty()) {
      refuse("options: a stop is empty");
    }
  }
  options.engine.guesses = record.withoutGuesses == 0;
  if (record.hasSeed != 0) {
    options.seed = record.seed;
  }
  options.tellsTokens = record.tellsTokens != 0;
  options.bestTokens = record.bestTokens;
  if (record.bestTokens > kMostBestTokens) {
    refuse("options: at most " + std::to_string(kMostBestTokens) + " best tokens, not " +
           std::to_string(record.bestTokens));
  }
  return options;
}

ZYMSampling samplingOut(const engine::SamplerSettings& settings) {
  return {.structSize = sizeof(ZYMSampling),
          .temperature = settings.temperature,
          .topK = settings.topK,
          .topP = settings.topP,
          .minP = settings.minP,
          .presencePenalty = settings.presencePenalty,
          .frequencyPenalty = settings.frequencyPenalty,
          .repetitionPenalty = settings.repetitionPenalty,
          .repetitionWindow = settings.repetitionWindow,
          .reserved = 0,
          .biases = nullptr,
          .biasCount = 0};
}

}  // namespace capi
