// Records of the caller, read and written by the rule of growth that zym/engine.h states, and what
// they mean to the engine. What cannot be meant is thrown as capi::Failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "capi/border.h"
#include "engine/chat_format.h"
#include "engine/chat_tokens.h"
#include "engine/context.h"
#include "engine/model.h"
#include "engine/reply.h"
#include "zym/engine.h"

namespace capi {

// Of a record of knownBytes, of which the caller says that it has given.structSize: throws
// ZYM_ERROR_RECORD where that cannot be, or where a byte behind the known ones is not 0.
void checkGrowth(const void* record, size_t knownBytes, bool isRead, const char* name);

// The record as the library knows it, at its defaults where the caller's is too short.
template <typename Record>
Record readRecord(const Record* given, const char* name) {
  checkGrowth(&required(given, name), sizeof(Record), /*isRead=*/true, name);
  Record record{};
  std::memcpy(&record, given, std::min<size_t>(given->structSize, sizeof(Record)));
  return record;
}

// The same for one that may be left out.
template <typename Record>
Record readOptional(const Record* given, const char* name) {
  return given == nullptr ? Record{} : readRecord(given, name);
}

// Fills in the caller's record, whose structSize stays as it is.
template <typename Record>
void writeRecord(Record values, Record* out, const char* name) {
  checkGrowth(&required(out, name), sizeof(Record), /*isRead=*/false, name);
  values.structSize = out->structSize;
  std::memset(static_cast<void*>(out), 0, values.structSize);
  std::memcpy(static_cast<void*>(out), &values,
              std::min<size_t>(values.structSize, sizeof(Record)));
}

// Elements of a caller's array, which may be null where it is empty.
template <typename Element>
std::span<const Element> arrayOf(const Element* elements, size_t count, const char* name) {
  if (count > 0) {
    required(elements, name);
  }
  return {elements, count};
}

// Bytes and, of the second, characters.
std::string_view bytesOf(ZYMText text, const char* name);
std::string textOf(ZYMText text, const char* name);
ZYMText textOut(const std::string& text);

// What a conversation holds, in the engine's own terms.
struct Conversation {
  std::vector<engine::Message> messages;
  std::vector<engine::Tool> tools;
  bool thinking = false;
  bool preserveThinking = false;

  engine::ChatRequest request() const {
    return {.messages = messages,
            .tools = tools,
            .thinking = thinking,
            .preserveThinking = preserveThinking};
  }
};

Conversation readConversation(const ZYMConversation* given, const engine::Model& model);

engine::ContextOptions readContextOptions(const ZYMContextOptions* given);

struct ReplyOptions {
  engine::ReplyOptions engine;
  std::optional<uint64_t> seed;
  bool tellsTokens = false;
  size_t bestTokens = 0;
};

// thinking: which of the recommended settings counts where none are given.
ReplyOptions readReplyOptions(const ZYMReplyOptions* given, const engine::Model& model,
                              bool thinking);

ZYMSampling samplingOut(const engine::SamplerSettings& settings);

}  // namespace capi
