#include "engine/reply.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <utility>

#include "engine/guess_pace.h"
#include "engine/prompt_lookup.h"
#include "engine/stop_strings.h"
#include "engine/text_decoder.h"
#include "engine/text_encoder.h"
#include "qwen35/forward.h"

namespace engine {

namespace {

using kel::Status;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// What becomes of the tokens of a reply: text, taken apart, told and collected.
class ReplyText {
 public:
  ReplyText(const Model& model, bool opensReasoning, std::span<const Tool> tools,
            const ReplyOptions& options, const ReplySinks& replySinks, Reply& result)
      : tokenizer(model.tokenizer()),
        decoder(tokenizer, TextDecoder::Specials::Hidden),
        parser(opensReasoning, tools),
        stops(options.stops),
        stopStrings(options.stops),
        sinks(replySinks),
        reply(result) {
    reply.message.role = Role::Assistant;
  }

  bool inReasoning() const { return parser.inReasoning(); }

  // False where a stop string has come.
  bool add(int32_t id) {
    if (isMark(id)) {
      addText(decoder.finish());
      parser.control(tokenizer.tokens[static_cast<size_t>(id)], events);
    } else {
      addText(decoder.feed(id));
    }
    deliver();
    return !stops.stopped();
  }

  void finish() {
    if (!stops.stopped()) {
      addText(decoder.finish());
      parser.finish(events);
      deliver();
      tell(ReplyEvent::Kind::Answer, stops.finish());
    }
    if (stops.stopped()) {
      reply.stopString = stopStrings[*stops.stopped()];
    }
  }

 private:
  bool isMark(int32_t id) const {
    const auto at = static_cast<size_t>(id);
    return at < tokenizer.tokenTypes.size() && kel::isSpecialTokenType(tokenizer.tokenTypes[at]);
  }

  void addText(const std::string& text) {
    if (!text.empty()) {
      parser.text(text, events);
    }
  }

  void deliver() {
    for (ReplyEvent& event : std::exchange(events, {})) {
      if (stops.stopped()) {
        return;
      }
      if (event.kind == ReplyEvent::Kind::Answer) {
        tell(event.kind, stops.feed(event.text));
      } else {
        take(std::move(event));
      }
    }
  }

  void take(ReplyEvent event) {
    // What might have begun a stop string did not: something else follows.
    if (event.kind != ReplyEvent::Kind::Reasoning) {
      tell(ReplyEvent::Kind::Answer, stops.finish());
    }
    Message& message = reply.message;
    if (event.kind == ReplyEvent::Kind::Reasoning) {
      message.reasoningContent = message.reasoningContent.value_or("") + event.text;
    } else if (event.kind == ReplyEvent::Kind::CallComplete) {
      message.toolCalls.push_back({event.name, event.json});
    } else if (event.kind == ReplyEvent::Kind::CallIncomplete) {
      reply.hasIncompleteCall = true;
    }
    if (sinks.event && event.kind != ReplyEvent::Kind::End) {
      sinks.event(event);
    }
  }

  void tell(ReplyEvent::Kind kind, const std::string& text) {
    if (text.empty()) {
      return;
    }
    reply.message.content += text;
    if (sinks.event) {
      sinks.event({kind, text, {}, {}});
    }
  }

  const kel::Tokenizer& tokenizer;
  TextDecoder decoder;
  ReplyParser parser;
  StopStrings stops;
  const std::vector<std::string>& stopStrings;
  const ReplySinks& sinks;
  Reply& reply;
  std::vector<ReplyEvent> events;
};

// The tokens of a reply, from the logits behind its prompt on.
class Generation {
 public:
  Generation(Context& filled, Sampler& choosing, const ReplyOptions& replyOptions,
             const ReplySinks& replySinks, ReplyText& replyText, Reply& result)
      : context(filled),
        sampler(choosing),
        options(replyOptions),
        sinks(replySinks),
        text(replyText),
        reply(result),
        tokenizer(filled.model().tokenizer()) {
    for (const Token& token : context.tokens()) {
      history.push_back(token.id);
    }
    for (const std::string_view mark : {kTurnEnd, kTextEnd}) {
      ends.push_back(tokenizer.tokenToId(mark));
    }
    ends.push_back(tokenizer.eosId);
  }

  Status run() {
    if (options.thinkingTokens == 0U && text.inReasoning()) {
      closeThinking();
    }
    int32_t id = choose(context.logits());
    while (take(id, context.position())) {
      Status status = advance(id);
      if (!status.ok() || isOver) {
        return status;
      }
    }
    return nothingToChoose ? Status::invalid("no token can be chosen: all are banned")
                           : Status::success();
  }

 private:
  int32_t choose(std::span<const float> logits) {
    chosenFrom = logits;
    if (!forced.empty()) {
      const int32_t id = forced.front();
      forced.pop_front();
      return id;
    }
    return sampler.next(logits, options.sampling);
  }

  // Makes a token part of the reply, which has `place` positions in front of it in the context.
  // False where the reply ends before the token, or with it.
  bool take(int32_t id, uint64_t place) {
    isOver = true;
    if (id == kNoToken) {
      nothingToChoose = true;
      return false;
    }
    if (qwen35::isCancelled(sinks.cancel)) {
      reply.end = ReplyEnd::Cancelled;
      return false;
    }
    if (std::find(ends.begin(), ends.end(), id) != ends.end()) {
      reply.end = ReplyEnd::Stop;
      return false;
    }
    if (sinks.token) {
      sinks.token(id, chosenFrom);
    }
    sampler.accept(id);
    history.push_back(id);
    ++reply.tokens;
    limitThinking();
    if (!text.add(id)) {
      reply.end = ReplyEnd::StopString;
    } else if (options.maxTokens != 0 && reply.tokens >= options.maxTokens) {
      reply.end = ReplyEnd::Limit;
    } else if (place >= context.capacity()) {
      reply.end = ReplyEnd::ContextFull;
    } else {
      isOver = false;
    }
    return !isOver;
  }

  void limitThinking() {
    if (!options.thinkingTokens || !text.inReasoning()) {
      return;
    }
    if (++thoughts == *options.thinkingTokens) {
      closeThinking();
    }
  }

  void closeThinking() {
    const Model& model = context.model();
    for (const Segment& segment : thinkingEnd()) {
      const int32_t id = segment.control ? tokenizer.tokenToId(segment.text) : -1;
      if (id >= 0) {
        forced.push_back(id);
        continue;
      }
      std::vector<int32_t> ids;
      model.textEncoder().encode(segment.text, ids);
      forced.insert(forced.end(), ids.begin(), ids.end());
    }
  }

  // Feeds the token and chooses further ones; id becomes one that is yet to be taken, unless the
  // reply is over.
  Status advance(int32_t& id) {
    const std::vector<int32_t> guess = guessBehind();
    const Clock::time_point start = Clock::now();
    if (guess.empty()) {
      Status status = context.feedToken(id);
      pace.sawToken(secondsSince(start));
      id = status.ok() ? choose(context.logits()) : id;
      return status;
    }
    std::vector<int32_t> tokens = {id};
    tokens.insert(tokens.end(), guess.begin(), guess.end());
    const uint64_t place = context.position();
    Status status = context.feedGuess(tokens);
    if (!status.ok()) {
      return status;
    }
    size_t kept = 1;
    id = choose(context.logitsBehind(0));
    while (kept < tokens.size() && id == tokens[kept] && take(id, place + kept)) {
      id = choose(context.logitsBehind(kept));
      ++kept;
    }
    status = context.keep(kept);
    pace.sawGuess(secondsSince(start), kept);
    return status;
  }

  std::vector<int32_t> guessBehind() {
    const uint64_t room = context.capacity() - context.position() - 1;
    if (!options.guesses || room == 0 || !forced.empty()) {
      return {};
    }
    std::vector<int32_t> guess = lookUp(history, std::min<uint64_t>(kMostGuessed, room));
    return guess.empty() || pace.isWorthIt() ? guess : std::vector<int32_t>();
  }

  Context& context;
  Sampler& sampler;
  const ReplyOptions& options;
  const ReplySinks& sinks;
  ReplyText& text;
  Reply& reply;
  const kel::Tokenizer& tokenizer;
  std::vector<int32_t> ends;
  std::vector<int32_t> history;
  std::deque<int32_t> forced;
  std::span<const float> chosenFrom;
  GuessPace pace;
  uint64_t thoughts = 0;
  bool isOver = false;
  bool nothingToChoose = false;
};

// Feeds what the context does not hold of the tokens, message by message: every end of one is a
// place to come back to.
Context::Fed feedTokens(Context& context, const ChatTokens& chat, const ReplySinks& sinks,
                        Reply& reply, Status& status) {
  const std::span<const Token> tokens(chat.tokens);
  if (tokens.size() > context.capacity()) {
    status = Status::invalid("the text takes " + std::to_string(tokens.size()) +
                             " tokens, the context has " + std::to_string(context.capacity()) +
                             " positions");
    return Context::Fed::Failed;
  }
  size_t at = context.resume(tokens);
  const size_t begin = at;
  reply.promptTokens = tokens.size();
  reply.reusedTokens = at;
  std::vector<size_t> ends = chat.ends;
  ends.push_back(tokens.size());
  for (const size_t end : ends) {
    if (end <= at) {
      continue;
    }
    PromptProgress progress;
    if (sinks.prompt) {
      progress = [&](size_t done, size_t) {
        sinks.prompt(at - begin + done, tokens.size() - begin);
      };
    }
    const auto fed = context.feed(tokens.subspan(at, end - at), progress, sinks.cancel, status);
    if (fed != Context::Fed::All) {
      return fed;
    }
    at = end;
  }
  return Context::Fed::All;
}

Status generate(Context& context, Sampler& sampler, const ChatTokens& chat,
                std::span<const Tool> tools, const ReplyOptions& options, const ReplySinks& sinks,
                Reply& reply) {
  Status status = check(options.sampling, context.model().sizes().vocab);
  if (!status.ok()) {
    return status;
  }
  const Context::Fed fed = feedTokens(context, chat, sinks, reply, status);
  if (fed != Context::Fed::All) {
    reply.end = ReplyEnd::Cancelled;
    return status;
  }
  std::vector<int32_t> ids;
  for (const Token& token : chat.tokens) {
    ids.push_back(token.id);
  }
  sampler.forget();
  sampler.beginReply(ids);
  ReplyText text(context.model(), chat.opensReasoning, tools, options, sinks, reply);
  status = Generation(context, sampler, options, sinks, text, reply).run();
  text.finish();
  return status;
}

}  // namespace

Status generateReply(Context& context, Sampler& sampler, const ChatRequest& request,
                     const ReplyOptions& options, const ReplySinks& sinks, Reply& reply) {
  reply = {};
  ChatTokens chat;
  Status status = encodeChat(context.model(), request, chat);
  return status.ok() ? generate(context, sampler, chat, request.tools, options, sinks, reply)
                     : status;
}

Status generateText(Context& context, Sampler& sampler, std::span<const int32_t> prompt,
                    const ReplyOptions& options, const ReplySinks& sinks, Reply& reply) {
  reply = {};
  if (prompt.empty()) {
    return Status::invalid("there is no text to go on with");
  }
  // Looked at before the context gives up what it holds.
  const uint64_t vocab = context.model().sizes().vocab;
  for (const int32_t id : prompt) {
    if (id < 0 || static_cast<uint64_t>(id) >= vocab) {
      return Status::invalid("token " + std::to_string(id) + " is none of the model's " +
                             std::to_string(vocab));
    }
  }
  return generate(context, sampler, {.tokens = promptTokens(prompt)}, {}, options, sinks, reply);
}

}  // namespace engine
