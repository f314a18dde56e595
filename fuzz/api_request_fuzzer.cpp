// Any body for any of the interfaces: the first byte picks which. Whatever it says is answered with
// JSON or events in valid UTF-8, and what reaches the queue is something that the engine takes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>

#include "engine/chat_tokens.h"
#include "engine/json_text.h"
#include "engine/utf8_text.h"
#include "host/serve/answer_constraints.h"
#include "tests/host/serve/fake_service.h"

namespace {

using namespace zym::testing_support;

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

constexpr const char* kPaths[] = {
    "/v1/chat/completions",      "/v1/completions", "/v1/responses", "/v1/messages",
    "/v1/messages/count_tokens", "/tokenize",       "/detokenize"};

struct Service {
  Service() {
    zym::ApiServices services = fake.services();
    services.constrain = zym::answerConstraints(*services.model);
    addApi(std::move(services), routes);
  }

  FakeService fake;
  zym::HttpRoutes routes;
};

// What the engine holds requests to before it runs.
void checkRequest(const zym::GenerationRequest& request) {
  const size_t vocabulary = smallModel()->sizes().vocab;
  require(engine::check(request.options.sampling, vocabulary).ok());
  require(request.choices >= 1 && request.choices <= 4);
  require(request.messages.empty() != request.prompt.empty());
  for (const int32_t id : request.prompt) {
    require(id >= 0 && static_cast<size_t>(id) < vocabulary);
  }
  if (!request.messages.empty()) {
    engine::ChatTokens tokens;
    const kel::Status status = engine::encodeChat(
        *smallModel(), {.messages = request.messages, .tools = request.tools}, tokens);
    require(status.ok() || status.code == kel::StatusCode::InvalidFormat);
  }
  if (request.makeConstraint) {
    require(request.makeConstraint() != nullptr);
  }
}

// Every choice says the same.
void playAll(zym::GenerationSink& sink, size_t choices, const std::string& text) {
  sink.started({10, 4});
  for (size_t i = 0; i < choices; ++i) {
    for (const engine::ReplyEvent& event : {reasoning(text), answer(text), call(text, "{}")}) {
      sink.event(i, event);
    }
    sink.finished(i, reply(engine::ReplyEnd::Stop, 3));
  }
  sink.done();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Service service;
  if (size == 0) {
    return 0;
  }
  const std::string body(reinterpret_cast<const char*>(data + 1), size - 1);
  FakeQueue& queue = service.fake.queue;
  queue.sink = nullptr;
  const char* path = kPaths[data[0] % std::size(kPaths)];
  const auto exchange = std::make_shared<FakeExchange>("POST", path, body);
  (*service.routes.find("POST", path).handler)(exchange);
  require(exchange->ended == (queue.sink == nullptr));
  if (queue.sink != nullptr) {
    checkRequest(queue.request);
    playAll(*queue.sink, queue.request.choices, body);
    require(exchange->ended && exchange->status == 200);
  }
  require(engine::isValid(exchange->written));
  require(exchange->type == "text/event-stream" || engine::jsonKind(exchange->written));
  return 0;
}
