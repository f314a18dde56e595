// Replies: what is asked for becomes the engine's request, what is told the caller's events.
#include <memory>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "capi/border.h"
#include "capi/handles.h"
#include "capi/records.h"
#include "engine/chat_tokens.h"
#include "engine/log_probabilities.h"
#include "engine/reply.h"
#include "engine/sampler.h"

namespace {

using capi::Failure;
using engine::ReplyEvent;

// The caller's record, with all that it points to behind it.
struct OwnedReply : ZYMReply {
  OwnedReply() : ZYMReply{} {}

  engine::Reply reply;
  ZYMMessage message{};
  std::vector<ZYMToolCall> calls;
  std::vector<const ZYMToolCall*> callPointers;
};

int32_t endOf(engine::ReplyEnd end) {
  switch (end) {
    case engine::ReplyEnd::Stop:
      return ZYM_END_STOP;
    case engine::ReplyEnd::StopString:
      return ZYM_END_STOP_STRING;
    case engine::ReplyEnd::Limit:
      return ZYM_END_LIMIT;
    case engine::ReplyEnd::ContextFull:
      return ZYM_END_CONTEXT_FULL;
    case engine::ReplyEnd::Cancelled:
      break;
  }
  return ZYM_END_CANCELLED;
}

// The record of a reply that is as it will stay.
void fillRecord(OwnedReply& owned, uint64_t seed) {
  const engine::Message& said = owned.reply.message;
  for (const engine::ToolCall& call : said.toolCalls) {
    owned.calls.push_back({.structSize = sizeof(ZYMToolCall),
                           .reserved = 0,
                           .name = capi::textOut(call.name),
                           .arguments = capi::textOut(call.arguments)});
  }
  for (const ZYMToolCall& call : owned.calls) {
    owned.callPointers.push_back(&call);
  }
  owned.message.structSize = sizeof(ZYMMessage);
  owned.message.role = ZYM_ROLE_ASSISTANT;
  owned.message.content = capi::textOut(said.content);
  if (said.reasoningContent) {
    owned.message.reasoning = capi::textOut(*said.reasoningContent);
  }
  owned.message.calls = owned.callPointers.data();
  owned.message.callCount = owned.callPointers.size();

  ZYMReply& record = owned;
  record.structSize = sizeof(ZYMReply);
  record.end = endOf(owned.reply.end);
  record.message = &owned.message;
  record.stopString = capi::textOut(owned.reply.stopString);
  record.hasIncompleteCall = owned.reply.hasIncompleteCall ? 1 : 0;
  record.promptTokens = owned.reply.promptTokens;
  record.reusedTokens = owned.reply.reusedTokens;
  record.tokens = owned.reply.tokens;
  record.seed = seed;
}

int32_t kindOf(ReplyEvent::Kind kind) {
  switch (kind) {
    case ReplyEvent::Kind::Reasoning:
      return ZYM_EVENT_REASONING;
    case ReplyEvent::Kind::Answer:
      return ZYM_EVENT_ANSWER;
    case ReplyEvent::Kind::CallBegin:
      return ZYM_EVENT_CALL_BEGIN;
    case ReplyEvent::Kind::CallArgument:
      return ZYM_EVENT_CALL_ARGUMENT;
    case ReplyEvent::Kind::CallComplete:
      return ZYM_EVENT_CALL_COMPLETE;
    case ReplyEvent::Kind::CallIncomplete:
      return ZYM_EVENT_CALL_INCOMPLETE;
    case ReplyEvent::Kind::CallMalformed:
    case ReplyEvent::Kind::End:  // the call's return tells of that
      break;
  }
  return ZYM_EVENT_CALL_MALFORMED;
}

// The caller's callback, as what the engine tells.
class Listener {
 public:
  Listener(ZYMContext& handle, const capi::ReplyOptions& replyOptions, ZYMEventCallback function,
           void* data)
      : context(handle), options(replyOptions), callback(function), userData(data) {}

  void prompt(uint64_t done, uint64_t total) {
    ZYMEvent event = eventOf(ZYM_EVENT_PROMPT);
    event.done = done;
    event.total = total;
    tell(event);
  }

  void reply(const ReplyEvent& told) {
    ZYMEvent event = eventOf(kindOf(told.kind));
    event.text = capi::textOut(told.text);
    event.name = capi::textOut(told.name);
    event.json = capi::textOut(told.json);
    tell(event);
  }

  void token(int32_t id, std::span<const float> logits) {
    const engine::LogProbabilities found = engine::logProbabilities(logits, id, options.bestTokens);
    best.clear();
    for (const engine::TokenLogProbability& token : found.best) {
      best.push_back({token.id, 0, token.logProbability});
    }
    ZYMEvent event = eventOf(ZYM_EVENT_TOKEN);
    event.token = {id, 0, found.chosen.logProbability};
    event.best = best.data();
    event.bestCount = best.size();
    tell(event);
  }

  engine::ReplySinks sinks() {
    engine::ReplySinks sinks;
    sinks.cancel = &context.cancelled;
    if (callback != nullptr) {
      sinks.prompt = [this](size_t done, size_t total) { prompt(done, total); };
      sinks.event = [this](const ReplyEvent& event) { reply(event); };
    }
    if (callback != nullptr && options.tellsTokens) {
      sinks.token = [this](int32_t id, std::span<const float> logits) { token(id, logits); };
    }
    return sinks;
  }

 private:
  static ZYMEvent eventOf(int32_t kind) {
    ZYMEvent event{};
    event.structSize = sizeof(ZYMEvent);
    event.kind = kind;
    return event;
  }

  void tell(const ZYMEvent& event) {
    if (callback != nullptr && !isDone && callback(&event, userData) != 0) {
      isDone = true;
      zym_context_cancel(&context);
    }
  }

  ZYMContext& context;
  const capi::ReplyOptions& options;
  ZYMEventCallback callback;
  void* userData;
  bool isDone = false;
  std::vector<ZYMTokenProbability> best;
};

uint64_t drawnSeed() {
  std::random_device device;
  return uint64_t{device()} << 32 | device();
}

// A call for a reply, from the arguments to the record. generate(sampler, options, sinks, reply) is
// the engine's part of it.
template <typename Generate>
void giveReply(ZYMContext& handle, const capi::ReplyOptions& options, ZYMEventCallback callback,
               void* userData, ZYMReply*& out, const Generate& generate) {
  auto owned = std::make_unique<OwnedReply>();
  const uint64_t seed = options.seed ? *options.seed : drawnSeed();
  engine::Sampler sampler(seed);
  __atomic_store_n(&handle.cancelled, 0, __ATOMIC_RELAXED);
  Listener listener(handle, options, callback, userData);
  listener.prompt(0, 0);
  try {
    generate(sampler, listener.sinks(), owned->reply);
  } catch (const Failure& failure) {
    if (failure.status == ZYM_ERROR_NUMBERS) {
      handle.context->reset();  // nothing can be read behind what is there
    }
    throw;
  } catch (...) {
    handle.context->reset();  // it was left in the middle of something
    throw;
  }
  fillRecord(*owned, seed);
  out = owned.release();
}

void checkReply(const kel::Status& status, const engine::Reply& reply) {
  if (reply.lacksRoom) {
    throw Failure(ZYM_ERROR_ROOM, status.message);
  }
  capi::check(status, capi::Work::Arguments);
}

}  // namespace

ZYMStatus zym_context_reply(ZYMContext* context, const ZYMConversation* conversation,
                            const ZYMReplyOptions* options, ZYMEventCallback callback,
                            void* userData, ZYMReply** reply, char* error, size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    ZYMReply*& out = capi::required(reply, "reply");
    out = nullptr;
    const capi::InUse used(context);
    const engine::Model& model = used.context().model();
    const capi::Conversation read = capi::readConversation(conversation, model);
    const capi::ReplyOptions asked = capi::readReplyOptions(options, model, read.thinking);
    giveReply(used.handle, asked, callback, userData, out,
              [&](engine::Sampler& sampler, const engine::ReplySinks& sinks, engine::Reply& into) {
                checkReply(engine::generateReply(used.context(), sampler, read.request(),
                                                 asked.engine, sinks, into),
                           into);
              });
  });
}

ZYMStatus zym_context_continue(ZYMContext* context, const int32_t* ids, size_t count,
                               const ZYMReplyOptions* options, ZYMEventCallback callback,
                               void* userData, ZYMReply** reply, char* error, size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    ZYMReply*& out = capi::required(reply, "reply");
    out = nullptr;
    const capi::InUse used(context);
    const std::span<const int32_t> prompt = capi::arrayOf(ids, count, "ids");
    const capi::ReplyOptions asked =
        capi::readReplyOptions(options, used.context().model(), /*thinking=*/false);
    giveReply(used.handle, asked, callback, userData, out,
              [&](engine::Sampler& sampler, const engine::ReplySinks& sinks, engine::Reply& into) {
                checkReply(engine::generateText(used.context(), sampler, prompt, asked.engine,
                                                sinks, into),
                           into);
              });
  });
}

void zym_reply_destroy(ZYMReply* reply) {
  delete static_cast<OwnedReply*>(reply);
}
