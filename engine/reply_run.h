// A reply in steps, for a thread that has several of them to drive: their prompts slice by slice,
// their tokens in one pass. generateReply and generateText are loops over it.
//
//   ReplyRun run(context, sampler, std::move(chat), tools, options, sinks, reply);
//   Status status = run.begin();
//   while (run.state() == ReplyRun::State::Reading) status = run.read(128);
//   if (run.state() == ReplyRun::State::Read) status = run.start();
//   while (run.state() == ReplyRun::State::Writing) {
//     status = run.tokenFed(context.feedToken(run.token()));
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <span>
#include <vector>

#include "container/status.h"
#include "engine/chat_tokens.h"
#include "engine/context.h"
#include "engine/guess_pace.h"
#include "engine/reply.h"
#include "engine/reply_text.h"
#include "engine/sampler.h"

namespace engine {

// One reply; one thread at a time. Context, sampler, tools and result are used as long as it lives,
// and nobody else feeds the context meanwhile. The tokens of the reply, and all that is told of it,
// depend neither on how its prompt is sliced nor on how its tokens are fed. A step that fails ends
// it.
class ReplyRun {
 public:
  enum class State : uint8_t { Reading, Read, Writing, Over };

  // result: an empty one.
  ReplyRun(Context& replyContext, Sampler& replySampler, ChatTokens tokens,
           std::span<const Tool> replyTools, ReplyOptions replyOptions, ReplySinks replySinks,
           Reply& result);
  ReplyRun(const ReplyRun&) = delete;
  ReplyRun& operator=(const ReplyRun&) = delete;

  State state() const { return at; }

  // First: goes back to what the context holds of the prompt. Refuses settings out of range and
  // prompts that the context has no room for.
  kel::Status begin();

  // While Reading: feeds at most so many of the tokens that come next, at least one, and no more
  // than a message: every end of one is a place to come back to.
  kel::Status read(size_t most = std::numeric_limits<size_t>::max());
  uint64_t unread() const { return chat.tokens.size() - filled; }

  // When the prompt is Read: chooses the first token.
  kel::Status start();

  // While Writing: the token that the context has to be fed next, and the answer that it has been,
  // which chooses the next one; or why it could not be.
  int32_t token() const { return pending; }
  kel::Status tokenFed(const kel::Status& outcome);

  // While Writing, instead: feeds the token, perhaps with a guess at those behind it.
  kel::Status write();

  // Ends it as the cancel flag does; nothing more is told but text that was held back.
  void cancel();

 private:
  int32_t choose(std::span<const float> logits);
  int32_t chooseConstrained(std::span<const float> logits);
  kel::Status takePending();
  bool take(int32_t id, uint64_t place);
  bool endsBefore(int32_t id);
  void limitThinking();
  void closeThinking();
  kel::Status writeGuess(std::span<const int32_t> guess);
  std::vector<int32_t> guessBehind();
  kel::Status over(const kel::Status& status);
  void end();

  Context& context;
  Sampler& sampler;
  const ChatTokens chat;
  std::span<const Tool> tools;
  const ReplyOptions options;
  const ReplySinks sinks;
  Reply& reply;
  State at = State::Reading;

  uint64_t filled = 0;   // tokens of the prompt that the context holds
  uint64_t begunAt = 0;  // of those, in place before

  std::optional<ReplyText> text;  // from the first token on
  std::vector<int32_t> ends;
  std::vector<int32_t> history;
  std::deque<int32_t> forced;
  std::optional<TokenMask> allowed;  // from the first constrained token on
  SamplerSettings constrained;       // the sampling, with that mask
  std::span<const float> chosenFrom;
  GuessPace pace;
  int32_t pending = kNoToken;
  uint64_t thoughts = 0;
};

}  // namespace engine
