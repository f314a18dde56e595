// A reply to a conversation: the messages rendered, what the context does not hold of them fed, and
// tokens generated until something ends them.
//
//   Reply reply;
//   kel::Status status = generateReply(*context, sampler, {.messages = messages}, {}, {}, reply);
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "container/status.h"
#include "engine/chat_format.h"
#include "engine/chat_tokens.h"
#include "engine/context.h"
#include "engine/reply_constraint.h"
#include "engine/reply_parser.h"
#include "engine/sampler.h"

namespace engine {

struct ReplyOptions {
  SamplerSettings sampling = {};
  uint64_t maxTokens = 0;  // of the reply, reasoning included; 0: as room allows
  std::optional<uint64_t> thinkingTokens = {};  // after so many, reasoning is closed
  std::vector<std::string> stops = {};          // strings that end the answer; not part of it
  bool guesses = true;  // look ahead in the text so far, which changes speed alone
  // The form of the answer, of this one reply; the caller's. Null: free.
  ReplyConstraint* constraint = nullptr;
};

// What is told while the reply comes; all may be null.
struct ReplySinks {
  PromptProgress prompt;                         // tokens of the messages that were not in place
  std::function<void(const ReplyEvent&)> event;  // reasoning, answer and calls, in pieces
  std::function<void(int32_t id, std::span<const float> logits)> token;  // chosen from these logits
  const volatile int* cancel = nullptr;  // not 0: ends reading within a fraction of a
                                         // second, a reply within a token
};

// Whether such a flag says so. Nothing is published with it.
bool isCancelled(const volatile int* flag);

enum class ReplyEnd : uint8_t { Stop, StopString, Limit, ContextFull, Cancelled };

struct Reply {
  ReplyEnd end = ReplyEnd::Stop;
  std::string stopString;  // that ended it
  Message message;         // of the assistant: to be appended for the next turn
  bool hasIncompleteCall = false;
  bool lacksRoom = false;        // it failed, for the prompt has more tokens than the context holds
  uint64_t promptTokens = 0;     // of messages and generation prompt
  uint64_t reusedTokens = 0;     // of those, in place before
  uint64_t tokens = 0;           // generated
  uint64_t reasoningTokens = 0;  // of those, before the answer
};

// Generates a reply in a context, which may hold anything: what of it begins the conversation is
// used, the rest forgotten. On failure, and when it is cancelled while the messages are read, the
// context holds a beginning of the conversation and reply is as far as it came. Contents and
// options decide the text, with the sampler's seed; nothing else does.
kel::Status generateReply(Context& context, Sampler& sampler, const ChatRequest& request,
                          const ReplyOptions& options, const ReplySinks& sinks, Reply& reply);

// The same for a text that the model goes on with: no framing, and no events but answer text.
kel::Status generateText(Context& context, Sampler& sampler, std::span<const int32_t> prompt,
                         const ReplyOptions& options, const ReplySinks& sinks, Reply& reply);

}  // namespace engine
