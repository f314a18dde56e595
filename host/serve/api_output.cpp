#include "host/serve/api_output.h"

#include <fmt/core.h>

#include <utility>

namespace zym {

namespace {

constexpr const char* kJsonType = "application/json";
constexpr const char* kEventsType = "text/event-stream";

constexpr int kBadRequest = 400;
constexpr int kInternal = 500;
constexpr int kUnavailable = 503;

}  // namespace

void answerJson(HttpExchange& exchange, const Json& body) {
  constexpr int kOk = 200;
  exchange.answer(kOk, kJsonType, jsonText(body));
}

void answerError(HttpExchange& exchange, ErrorForm form, const ApiError& error,
                 std::chrono::seconds retryAfter) {
  HttpHeaders headers;
  if (error.status == kUnavailable) {
    headers.emplace_back("Retry-After", fmt::format("{}", retryAfter.count()));
  }
  exchange.answer(error.status, kJsonType, jsonText(errorBody(form, error)), headers);
}

ApiError errorOf(GenerationFault fault, std::string_view message, std::string_view prompt) {
  switch (fault) {
    case GenerationFault::Request:
      return {kBadRequest, std::string(message), {}};
    case GenerationFault::TooLong:
      return {kBadRequest, std::string(message), std::string(prompt), "context_length_exceeded"};
    case GenerationFault::NoMemory:
    case GenerationFault::ShuttingDown:
      return {kUnavailable, std::string(message), {}};
    case GenerationFault::Numbers:
      break;
  }
  return {kInternal, std::string(message), {}};
}

std::string serverEvent(std::string_view name, const Json& data) {
  return name.empty() ? fmt::format("data: {}\n\n", jsonText(data))
                      : fmt::format("event: {}\ndata: {}\n\n", name, jsonText(data));
}

void ApiSink::send(std::string_view event, const Json& data) {
  exchange->write(serverEvent(event, data));
}

// How long the request waited, in the header that browsers and collectors know.
std::pair<std::string, std::string> ApiSink::timing() const {
  return {"Server-Timing", fmt::format("queue;dur={:.3f}", queueSeconds * 1e3)};
}

void ApiSink::answerWhole(const Json& body) {
  constexpr int kOk = 200;
  exchange->answer(kOk, kJsonType, jsonText(body), {timing()});
}

void ApiSink::started(const GenerationStart& start) {
  promptTokens = start.promptTokens;
  cachedTokens = start.cachedTokens;
  queueSeconds = start.queueSeconds;
  if (streamed) {
    constexpr int kOk = 200;
    exchange->begin(kOk, kEventsType,
                    {{"Cache-Control", "no-cache"}, {"X-Accel-Buffering", "no"}, timing()});
    begun = true;
    opened();
  }
}

void ApiSink::token(size_t /*choice*/, const engine::LogProbabilities& /*chosen*/) {}

void ApiSink::finished(size_t choice, const engine::Reply& reply) {
  replyTokens += reply.tokens;
  reasoningTokens += reply.reasoningTokens;
  isCut = isCut || reply.end == engine::ReplyEnd::Cancelled;
  if (!isCut) {
    ended(choice, reply);
  }
}

void ApiSink::done() {
  if (isCut) {
    fail({kUnavailable, "the server is shutting down", {}}, kAfterRestart);
    return;
  }
  closed();
  if (begun) {
    exchange->end();
  }
}

void ApiSink::failed(GenerationFault fault, std::string_view message) {
  fail(errorOf(fault, message, promptField()),
       fault == GenerationFault::ShuttingDown ? kAfterRestart : kSoon);
}

void ApiSink::fail(const ApiError& error, std::chrono::seconds retryAfter) {
  if (!begun) {
    answerError(*exchange, form, error, retryAfter);
    return;
  }
  broken(error);
  exchange->end();
}

void submit(const SharedModel& served, GenerationRequest request, std::shared_ptr<ApiSink> sink,
            HttpExchange& exchange, ErrorForm form) {
  switch (served->services.queue->submit(std::move(request), std::move(sink))) {
    case Submission::Accepted:
      break;
    case Submission::QueueFull:
      answerError(exchange, form,
                  {kUnavailable, "too many requests are waiting; try again later", {}},
                  served->services.queue->untilRoom());
      break;
    case Submission::ShuttingDown:
      answerError(exchange, form, {kUnavailable, "the server is shutting down", {}}, kAfterRestart);
      break;
  }
}

}  // namespace zym
