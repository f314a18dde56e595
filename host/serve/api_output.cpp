#include "host/serve/api_output.h"

#include <fmt/core.h>

#include <utility>

namespace zym {

namespace {

constexpr const char* kJsonType = "application/json";
constexpr const char* kEventsType = "text/event-stream";

constexpr int kBadRequest = 400;
constexpr int kNotFound = 404;
constexpr int kInternal = 500;
constexpr int kUnavailable = 503;

// Seconds after which asking again may be worth it.
constexpr const char* kRetryAfter = "1";

// The beginning of the engine's message for a prompt that has no room.
constexpr std::string_view kTooLong = "the text takes ";

std::string_view typeOf(ErrorForm form, int status) {
  const bool isMessages = form == ErrorForm::Messages;
  switch (status) {
    case kUnavailable:
      return isMessages ? "overloaded_error" : "server_error";
    case kInternal:
      return isMessages ? "api_error" : "server_error";
    case kNotFound:
      return isMessages ? "not_found_error" : "invalid_request_error";
    default:
      return "invalid_request_error";
  }
}

Json orNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

}  // namespace

std::string jsonText(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json errorBody(ErrorForm form, const ApiError& error) {
  const std::string_view type = typeOf(form, error.status);
  if (form == ErrorForm::Messages) {
    return {{"type", "error"}, {"error", {{"type", type}, {"message", error.message}}}};
  }
  return {{"error",
           {{"message", error.message},
            {"type", type},
            {"param", orNull(error.param)},
            {"code", orNull(error.code)}}}};
}

void answerJson(HttpExchange& exchange, const Json& body) {
  constexpr int kOk = 200;
  exchange.answer(kOk, kJsonType, jsonText(body));
}

void answerError(HttpExchange& exchange, ErrorForm form, const ApiError& error) {
  HttpHeaders headers;
  if (error.status == kUnavailable) {
    headers.emplace_back("Retry-After", kRetryAfter);
  }
  exchange.answer(error.status, kJsonType, jsonText(errorBody(form, error)), headers);
}

ApiError errorOf(const kel::Status& status, std::string_view prompt) {
  if (status.message.starts_with(kTooLong)) {
    return {kBadRequest, status.message, std::string(prompt), "context_length_exceeded"};
  }
  if (status.code == kel::StatusCode::InvalidFormat) {
    return {kBadRequest, status.message, {}};
  }
  if (status.code == kel::StatusCode::IoError) {
    return {kUnavailable, status.message, {}};
  }
  return {kInternal, status.message, {}};
}

std::string serverEvent(std::string_view name, const Json& data) {
  return name.empty() ? fmt::format("data: {}\n\n", jsonText(data))
                      : fmt::format("event: {}\ndata: {}\n\n", name, jsonText(data));
}

void ApiSink::send(std::string_view event, const Json& data) {
  exchange->write(serverEvent(event, data));
}

void ApiSink::started(uint64_t nPrompt, uint64_t nCached) {
  promptTokens = nPrompt;
  cachedTokens = nCached;
  if (streamed) {
    constexpr int kOk = 200;
    exchange->begin(kOk, kEventsType, {{"Cache-Control", "no-cache"}, {"X-Accel-Buffering", "no"}});
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
    fail({kUnavailable, "the server is shutting down", {}});
    return;
  }
  closed();
  if (begun) {
    exchange->end();
  }
}

void ApiSink::failed(const kel::Status& status) {
  fail(errorOf(status, promptField()));
}

void ApiSink::fail(const ApiError& error) {
  if (!begun) {
    answerError(*exchange, form, error);
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
                  {kUnavailable, "too many requests are waiting; try again later", {}});
      break;
    case Submission::ShuttingDown:
      answerError(exchange, form, {kUnavailable, "the server is shutting down", {}});
      break;
  }
}

}  // namespace zym
