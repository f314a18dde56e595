#include "engine/reply.h"

#include <utility>

#include "engine/reply_run.h"
#include "qwen35/forward.h"

namespace engine {

namespace {

using kel::Status;

Status generate(Context& context, Sampler& sampler, ChatTokens chat, std::span<const Tool> tools,
                const ReplyOptions& options, const ReplySinks& sinks, Reply& reply) {
  ReplyRun run(context, sampler, std::move(chat), tools, options, sinks, reply);
  Status status = run.begin();
  while (run.state() == ReplyRun::State::Reading) {
    status = run.read();
  }
  if (run.state() == ReplyRun::State::Read) {
    status = run.start();
  }
  while (run.state() == ReplyRun::State::Writing) {
    status = run.write();
  }
  return status;
}

}  // namespace

bool isCancelled(const volatile int* flag) {
  return qwen35::isCancelled(flag);
}

Status generateReply(Context& context, Sampler& sampler, const ChatRequest& request,
                     const ReplyOptions& options, const ReplySinks& sinks, Reply& reply) {
  reply = {};
  ChatTokens chat;
  Status status = encodeChat(context.model(), request, chat);
  return status.ok()
             ? generate(context, sampler, std::move(chat), request.tools, options, sinks, reply)
             : status;
}

Status generateText(Context& context, Sampler& sampler, std::span<const int32_t> prompt,
                    const ReplyOptions& options, const ReplySinks& sinks, Reply& reply) {
  reply = {};
  return generate(context, sampler, {.tokens = promptTokens(prompt)}, {}, options, sinks, reply);
}

}  // namespace engine
