// What the interfaces answer with: JSON, errors in the form of each, events sent as they come.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "host/serve/api_error.h"
#include "host/serve/generation.h"
#include "host/serve/http_exchange.h"
#include "host/serve/served_model.h"

namespace zym {

void answerJson(HttpExchange& exchange, const Json& body);

// When asking again may be worth it, told with status 503.
constexpr std::chrono::seconds kSoon{1};           // memory comes and goes
constexpr std::chrono::seconds kAfterRestart{10};  // as long as another process takes to be there
void answerError(HttpExchange& exchange, ErrorForm form, const ApiError& error,
                 std::chrono::seconds retryAfter = kSoon);

// Of a request that the scheduler gave back. prompt: the field that its prompt comes from.
ApiError errorOf(GenerationFault fault, std::string_view message, std::string_view prompt);

// One server-sent event; without a name where it is empty.
std::string serverEvent(std::string_view name, const Json& data);

// What is common to the answers: buffered ones are written when all is done, streamed ones from the
// moment at which the prompt has been read, so that what is wrong with a prompt still has a status
// of its own.
class ApiSink : public GenerationSink {
 public:
  ApiSink(SharedModel servedModel, std::shared_ptr<HttpExchange> answered, ErrorForm errorForm,
          bool isStreamed)
      : served(std::move(servedModel)),
        exchange(std::move(answered)),
        form(errorForm),
        streamed(isStreamed) {}

  void started(const GenerationStart& start) final;
  void event(size_t choice, const engine::ReplyEvent& event) override = 0;
  void token(size_t choice, const engine::LogProbabilities& chosen) override;
  void finished(size_t choice, const engine::Reply& reply) final;
  void done() final;
  void failed(GenerationFault fault, std::string_view message) final;
  const volatile int* cancel() const final { return exchange->gone(); }

 protected:
  virtual std::string_view promptField() const { return "messages"; }
  virtual void opened() {}  // streamed: the first events
  virtual void ended(size_t choice, const engine::Reply& reply) = 0;
  virtual void closed() = 0;                       // streamed: the last events; else the answer
  virtual void broken(const ApiError& error) = 0;  // streamed: the event that says so

  void send(std::string_view event, const Json& data);
  void answerWhole(const Json& body);  // buffered
  bool isStreamed() const { return streamed; }

  SharedModel served;
  std::shared_ptr<HttpExchange> exchange;
  uint64_t promptTokens = 0;
  uint64_t cachedTokens = 0;
  uint64_t replyTokens = 0;      // of all choices
  uint64_t reasoningTokens = 0;  // of those

 private:
  void fail(const ApiError& error, std::chrono::seconds retryAfter);
  std::pair<std::string, std::string> timing() const;

  ErrorForm form;
  bool streamed;
  bool begun = false;
  double queueSeconds = 0;
  bool isCut = false;  // a reply was ended for no reason of its own
};

// Hands the request over, or answers that there is no room for it.
void submit(const SharedModel& served, GenerationRequest request, std::shared_ptr<ApiSink> sink,
            HttpExchange& exchange, ErrorForm form);

}  // namespace zym
