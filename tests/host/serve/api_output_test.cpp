// What the answers of all interfaces have in common.
#include "host/serve/api_output.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/host/serve/fake_service.h"

namespace zym {
namespace {

using engine::ReplyEnd;
using testing_support::FakeExchange;
using testing_support::FakeService;

struct Interface {
  const char* path;
  const char* fields;
};

constexpr Interface kInterfaces[] = {
    {"/v1/chat/completions", R"("messages":[{"role":"user","content":"hello"}])"},
    {"/v1/completions", R"("prompt":"hello")"},
    {"/v1/responses", R"("input":"hello")"},
    {"/v1/messages", R"("max_tokens":8,"messages":[{"role":"user","content":"hello"}])"}};

class ApiOutput : public testing::Test {
 protected:
  std::shared_ptr<FakeExchange> ask(const Interface& to, bool isStreamed) {
    return service.ask("POST", to.path,
                       std::string("{") + to.fields + (isStreamed ? R"(,"stream":true})" : "}"));
  }
  static std::string header(const FakeExchange& exchange, const std::string& name) {
    const auto found = std::find_if(exchange.headers.begin(), exchange.headers.end(),
                                    [&](const auto& header) { return header.first == name; });
    return found == exchange.headers.end() ? "" : found->second;
  }

  FakeService service;
};

TEST_F(ApiOutput, AnswersSayHowLongTheirRequestWaited) {
  for (const Interface& to : kInterfaces) {
    for (const bool isStreamed : {false, true}) {
      const auto exchange = ask(to, isStreamed);
      GenerationSink& sink = *service.queue.sink;
      sink.started({.promptTokens = 10, .cachedTokens = 4, .queueSeconds = 1.0625});
      sink.event(0, testing_support::answer("a"));
      sink.finished(0, testing_support::reply(ReplyEnd::Stop, 1));
      sink.done();
      EXPECT_EQ(exchange->status, 200) << to.path;
      EXPECT_EQ(header(*exchange, "Server-Timing"), "queue;dur=1062.500") << to.path;
    }
  }
}

TEST_F(ApiOutput, AFullQueueSaysWhenThereIsRoom) {
  service.queue.answer = Submission::QueueFull;
  service.queue.room = std::chrono::seconds(17);
  for (const Interface& to : kInterfaces) {
    for (const bool isStreamed : {false, true}) {
      const auto exchange = ask(to, isStreamed);
      EXPECT_EQ(exchange->status, 503) << to.path;
      EXPECT_EQ(header(*exchange, "Retry-After"), "17") << to.path;
      EXPECT_NE(exchange->written.find("too many requests are waiting"), std::string::npos);
      EXPECT_TRUE(exchange->ended) << to.path;
    }
  }
}

TEST_F(ApiOutput, AServerThatEndsSaysWhenAnotherOneMayBeThere) {
  for (const Interface& to : kInterfaces) {
    service.queue.answer = Submission::ShuttingDown;
    EXPECT_EQ(header(*ask(to, true), "Retry-After"), "10") << to.path;
    service.queue.answer = Submission::Accepted;
    const auto turnedAway = ask(to, false);
    service.queue.sink->failed(GenerationFault::ShuttingDown, "the server is shutting down");
    EXPECT_EQ(turnedAway->status, 503) << to.path;
    EXPECT_EQ(header(*turnedAway, "Retry-After"), "10") << to.path;
    const auto cutOff = ask(to, false);
    testing_support::play(*service.queue.sink, {}, testing_support::reply(ReplyEnd::Cancelled, 1));
    EXPECT_EQ(cutOff->status, 503) << to.path;
    EXPECT_EQ(header(*cutOff, "Retry-After"), "10") << to.path;
  }
}

TEST_F(ApiOutput, WithoutMemoryAskingSoonMayHelp) {
  for (const Interface& to : kInterfaces) {
    const auto exchange = ask(to, false);
    service.queue.sink->failed(GenerationFault::NoMemory, "out of memory");
    EXPECT_EQ(exchange->status, 503) << to.path;
    EXPECT_EQ(header(*exchange, "Retry-After"), "1") << to.path;
  }
}

}  // namespace
}  // namespace zym
