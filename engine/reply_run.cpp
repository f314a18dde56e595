#include "engine/reply_run.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include "engine/prompt_lookup.h"
#include "engine/text_encoder.h"

namespace engine {

namespace {

using kel::Status;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

ReplyRun::ReplyRun(Context& replyContext, Sampler& replySampler, ChatTokens tokens,
                   std::span<const Tool> replyTools, ReplyOptions replyOptions,
                   ReplySinks replySinks, Reply& result)
    : context(replyContext),
      sampler(replySampler),
      chat(std::move(tokens)),
      tools(replyTools),
      options(std::move(replyOptions)),
      sinks(std::move(replySinks)),
      reply(result) {}

Status ReplyRun::begin() {
  if (chat.tokens.empty()) {
    return over(Status::invalid("there is no text to go on with"));
  }
  Status status = check(options.sampling, context.model().sizes().vocab);
  if (!status.ok()) {
    return over(status);
  }
  if (chat.tokens.size() > context.capacity()) {
    reply.lacksRoom = true;
    return over(Status::invalid("the text takes " + std::to_string(chat.tokens.size()) +
                                " tokens, the context has " + std::to_string(context.capacity()) +
                                " positions"));
  }
  // Looked at before the context gives up what it holds.
  const uint64_t vocab = context.model().sizes().vocab;
  for (const Token& token : chat.tokens) {
    if (token.id < 0 || static_cast<uint64_t>(token.id) >= vocab) {
      return over(Status::invalid("token " + std::to_string(token.id) + " is none of the model's " +
                                  std::to_string(vocab)));
    }
  }
  begunAt = context.resume(chat.tokens);
  filled = begunAt;
  reply.promptTokens = chat.tokens.size();
  reply.reusedTokens = begunAt;
  return status;
}

Status ReplyRun::read(size_t most) {
  if (filled < chat.tokens.size()) {
    if (filled == begunAt || std::binary_search(chat.ends.begin(), chat.ends.end(), filled)) {
      context.remember();
    }
    const auto end = std::upper_bound(chat.ends.begin(), chat.ends.end(), filled);
    const size_t rest = (end == chat.ends.end() ? chat.tokens.size() : *end) - filled;
    const size_t count = std::min(most, rest);
    const bool isLast = filled + count == chat.tokens.size();
    PromptProgress progress;
    if (sinks.prompt) {
      progress = [this](size_t done, size_t) {
        sinks.prompt(filled - begunAt + done, chat.tokens.size() - begunAt);
      };
    }
    Status status;
    const Context::Fed fed =
        context.feedPart(std::span(chat.tokens).subspan(filled, count),
                         isLast ? Context::Logits::OfTheLast : Context::Logits::None, progress,
                         sinks.cancel, status);
    if (fed != Context::Fed::All) {
      reply.end = ReplyEnd::Cancelled;
      return over(status);
    }
    filled += count;
  }
  if (filled == chat.tokens.size()) {
    at = State::Read;
  }
  return Status::success();
}

Status ReplyRun::start() {
  for (const Token& token : chat.tokens) {
    history.push_back(token.id);
  }
  sampler.forget();
  sampler.beginReply(history);
  const kel::Tokenizer& tokenizer = context.model().tokenizer();
  ends = {tokenizer.tokenToId(kTurnEnd), tokenizer.tokenToId(kTextEnd), tokenizer.eosId};
  text.emplace(context.model(), chat.opensReasoning, tools, options, sinks, reply);
  at = State::Writing;
  if (options.thinkingTokens == 0U && text->inReasoning()) {
    closeThinking();
  }
  pending = choose(context.logits());
  return takePending();
}

int32_t ReplyRun::choose(std::span<const float> logits) {
  chosenFrom = logits;
  if (!forced.empty()) {
    const int32_t id = forced.front();
    forced.pop_front();
    return id;
  }
  // Once the answer has begun, nothing in it can be reasoning again.
  if (options.constraint != nullptr && (allowed || !text->inReasoning())) {
    return chooseConstrained(logits);
  }
  return sampler.next(logits, options.sampling);
}

int32_t ReplyRun::chooseConstrained(std::span<const float> logits) {
  if (!allowed) {
    allowed.emplace(logits.size());
    constrained = options.sampling;
    constrained.mask = &*allowed;
  }
  options.constraint->allowed(*allowed);
  if (options.sampling.mask != nullptr) {
    allowed->keepOnly(*options.sampling.mask);
  }
  const int32_t id = sampler.next(logits, constrained);
  if (id != kNoToken) {
    options.constraint->accept(id);
  }
  return id;
}

Status ReplyRun::takePending() {
  if (take(pending, context.position())) {
    return Status::success();
  }
  return over(pending == kNoToken ? Status::invalid("no token can be chosen: all are banned")
                                  : Status::success());
}

// Makes a token part of the reply, which has `place` positions in front of it in the context.
// False where the reply ends before the token, or with it.
bool ReplyRun::take(int32_t id, uint64_t place) {
  if (endsBefore(id)) {
    at = State::Over;
    return false;
  }
  if (sinks.token) {
    sinks.token(id, chosenFrom);
  }
  sampler.accept(id);
  history.push_back(id);
  ++reply.tokens;
  reply.reasoningTokens += static_cast<uint64_t>(text->inReasoning());
  limitThinking();
  if (!text->add(id)) {
    reply.end = ReplyEnd::StopString;
  } else if (options.maxTokens != 0 && reply.tokens >= options.maxTokens) {
    reply.end = ReplyEnd::Limit;
  } else if (place >= context.capacity()) {
    reply.end = ReplyEnd::ContextFull;
  } else {
    return true;
  }
  at = State::Over;
  return false;
}

bool ReplyRun::endsBefore(int32_t id) {
  if (id == kNoToken) {
    return true;
  }
  if (isCancelled(sinks.cancel)) {
    reply.end = ReplyEnd::Cancelled;
    return true;
  }
  if (std::find(ends.begin(), ends.end(), id) != ends.end()) {
    reply.end = ReplyEnd::Stop;
    return true;
  }
  return false;
}

void ReplyRun::limitThinking() {
  if (!options.thinkingTokens || allowed || !text->inReasoning()) {
    return;
  }
  if (++thoughts == *options.thinkingTokens) {
    closeThinking();
  }
}

void ReplyRun::closeThinking() {
  const Model& model = context.model();
  for (const Segment& segment : thinkingEnd()) {
    const int32_t id = segment.control ? model.tokenizer().tokenToId(segment.text) : -1;
    if (id >= 0) {
      forced.push_back(id);
      continue;
    }
    std::vector<int32_t> ids;
    model.textEncoder().encode(segment.text, ids);
    forced.insert(forced.end(), ids.begin(), ids.end());
  }
}

Status ReplyRun::tokenFed(const Status& outcome) {
  if (!outcome.ok()) {
    return over(outcome);
  }
  pending = choose(context.logits());
  return takePending();
}

Status ReplyRun::write() {
  const std::vector<int32_t> guess = guessBehind();
  if (!guess.empty()) {
    return writeGuess(guess);
  }
  const Clock::time_point start = Clock::now();
  const Status status = context.feedToken(pending);
  pace.sawToken(secondsSince(start));
  return tokenFed(status);
}

Status ReplyRun::writeGuess(std::span<const int32_t> guess) {
  std::vector<int32_t> tokens = {pending};
  tokens.insert(tokens.end(), guess.begin(), guess.end());
  const uint64_t place = context.position();
  const Clock::time_point start = Clock::now();
  Status status = context.feedGuess(tokens);
  if (!status.ok()) {
    return over(status);
  }
  size_t kept = 1;
  pending = choose(context.logitsBehind(0));
  while (kept < tokens.size() && pending == tokens[kept] && take(pending, place + kept)) {
    pending = choose(context.logitsBehind(kept));
    ++kept;
  }
  status = context.keep(kept);
  pace.sawGuess(secondsSince(start), kept);
  if (!status.ok() || at == State::Over) {
    return over(status);
  }
  return takePending();
}

std::vector<int32_t> ReplyRun::guessBehind() {
  const uint64_t room = context.capacity() - context.position() - 1;
  if (!options.guesses || room == 0 || !forced.empty()) {
    return {};
  }
  std::vector<int32_t> guess = lookUp(history, std::min<uint64_t>(kMostGuessed, room));
  return guess.empty() || pace.isWorthIt() ? guess : std::vector<int32_t>();
}

void ReplyRun::cancel() {
  if (at != State::Over) {
    reply.end = ReplyEnd::Cancelled;
    end();
  }
}

Status ReplyRun::over(const Status& status) {
  end();
  return status;
}

void ReplyRun::end() {
  at = State::Over;
  if (text) {
    text->finish();
    text.reset();
  }
}

}  // namespace engine
