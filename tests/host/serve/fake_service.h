// The interfaces without what they stand between: an exchange that keeps what it is answered, a
// queue that keeps what it is given, and a model that is opened but never run.
#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "engine/model.h"
#include "host/serve/api_routes.h"
#include "host/serve/api_services.h"
#include "host/serve/generation.h"
#include "host/serve/http_exchange.h"
#include "host/serve/served_model.h"
#include "tests/support/chat_model.h"
#include "tests/support/family_shapes.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace zym::testing_support {

constexpr int32_t kThinkId = 99;
constexpr int32_t kThinkEndId = 100;
constexpr int32_t kCallId = 101;
constexpr int32_t kCallEndId = 102;

// The vocabulary of chatTables and the tokens of reasoning and calls.
inline kel::TokenizerData serveTables(size_t vocab) {
  kel::TokenizerData tables = kel::test::chatTables(vocab);
  const auto setSpecial = [&](int32_t id, const char* token) {
    tables.tokens.at(static_cast<size_t>(id)) = token;
    tables.tokenTypes.at(static_cast<size_t>(id)) = 3;
  };
  setSpecial(kThinkId, "<think>");
  setSpecial(kThinkEndId, "</think>");
  setSpecial(kCallId, "<tool_call>");
  setSpecial(kCallEndId, "</tool_call>");
  return tables;
}

inline std::shared_ptr<const engine::Model> smallModel() {
  static const std::shared_ptr<const engine::Model> model = [] {
    const kel::test::TempDir folder;
    kel::test::RandomModelSpec spec = {
        .vocab = 120, .shape = kel::test::oddShape(), .statesShape = true};
    spec.tokenizer = serveTables(spec.vocab);
    std::shared_ptr<const engine::Model> opened;
    kel::Status status = kel::test::writeRandomModel(folder.file("model.zym"), spec);
    if (status.ok()) {
      status = engine::Model::open(folder.file("model.zym"), opened);
    }
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
    return opened;
  }();
  return model;
}

class FakeExchange : public HttpExchange {
 public:
  FakeExchange(std::string method, std::string path, std::string body) {
    asked.method = std::move(method);
    asked.path = std::move(path);
    asked.body = std::move(body);
  }

  const HttpRequest& request() const override { return asked; }
  void answer(int code, std::string_view contentType, std::string text,
              const HttpHeaders& moreHeaders) override {
    begin(code, contentType, moreHeaders);
    written = std::move(text);
    end();
  }
  void begin(int code, std::string_view contentType, const HttpHeaders& moreHeaders) override {
    if (status != 0) {
      throw std::logic_error("answered twice");
    }
    status = code;
    type = contentType;
    headers = moreHeaders;
  }
  void write(std::string_view piece) override {
    if (status == 0 || ended) {
      throw std::logic_error("written outside of an answer");
    }
    written += piece;
  }
  void end() override {
    if (ended) {
      throw std::logic_error("ended twice");
    }
    ended = true;
  }
  const volatile int* gone() const override { return &callerGone; }

  HttpRequest asked;
  int status = 0;
  std::string type;
  HttpHeaders headers;
  std::string written;
  bool ended = false;
  volatile int callerGone = 0;
};

class FakeQueue : public GenerationQueue {
 public:
  Submission submit(GenerationRequest submitted, std::shared_ptr<GenerationSink> told) override {
    if (answer == Submission::Accepted) {
      request = std::move(submitted);
      sink = std::move(told);
    }
    return answer;
  }

  std::chrono::seconds untilRoom() const override { return room; }

  Submission answer = Submission::Accepted;
  std::chrono::seconds room{1};
  GenerationRequest request;
  std::shared_ptr<GenerationSink> sink;  // null: nothing has been submitted
};

// Ids count up from 1, time stands still, forms are remembered and allow everything.
class FakeService {
 public:
  FakeService() { addApi(services(), routes); }

  // The answer to a request, so far.
  std::shared_ptr<FakeExchange> ask(const std::string& method, const std::string& path,
                                    const std::string& body) {
    queue.sink = nullptr;
    auto exchange = std::make_shared<FakeExchange>(method, path, body);
    const HttpRoutes::Match match = routes.find(method, path);
    if (match.handler == nullptr) {
      throw std::logic_error("no such path");
    }
    (*match.handler)(exchange);
    return exchange;
  }

  ApiServices services() {
    ApiServices out;
    out.model = smallModel();
    out.queue = &queue;
    out.positions = 64;
    out.names = {"small", "other-name"};
    out.created = 1'700'000'000;
    out.fingerprint = "fp_1";
    out.constrain = [this](const ConstraintRequest& request, ConstraintMaker& made) {
      constraint = request;
      made = [this] {
        ++constraintsMade;
        return std::unique_ptr<engine::ReplyConstraint>();
      };
      return constrainStatus;
    };
    out.random = [this] { return ++randomNumber; };
    out.now = [] { return int64_t{1'700'000'001}; };
    return out;
  }

  FakeQueue queue;
  ConstraintRequest constraint;
  int constraintsMade = 0;
  kel::Status constrainStatus;
  uint64_t randomNumber = 0;
  HttpRoutes routes;
};

// What a sink is told of a reply.
inline engine::ReplyEvent reasoning(const std::string& text) {
  return {engine::ReplyEvent::Kind::Reasoning, text, {}, {}};
}
inline engine::ReplyEvent answer(const std::string& text) {
  return {engine::ReplyEvent::Kind::Answer, text, {}, {}};
}
inline engine::ReplyEvent call(const std::string& name, const std::string& json) {
  return {engine::ReplyEvent::Kind::CallComplete, {}, name, json};
}

inline engine::Reply reply(engine::ReplyEnd end, uint64_t tokens,
                           const std::string& stopString = {}) {
  engine::Reply out;
  out.end = end;
  out.tokens = tokens;
  out.reasoningTokens = tokens / 2;
  out.stopString = stopString;
  return out;
}

// One reply from beginning to end: a prompt of 10 tokens, 4 of them in place.
inline void play(GenerationSink& sink, const std::vector<engine::ReplyEvent>& events,
                 const engine::Reply& reply) {
  sink.started({10, 4});
  for (const engine::ReplyEvent& event : events) {
    sink.event(0, event);
  }
  sink.finished(0, reply);
  sink.done();
}

}  // namespace zym::testing_support
