// `zym serve` as people start and end it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/e2e/served_program.h"
#include "tests/support/instrumented.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using kel::test::parseJson;
using nlohmann::json;
using testing_support::HttpAnswer;
using testing_support::HttpClient;

class ServeCommandTest : public testing_support::ServedDemo {};

json chatRequest() {
  return {{"messages", {{{"role", "user"}, {"content", "Who are you?"}}}}, {"temperature", 0}};
}

TEST_F(ServeCommandTest, AnswersProgramsPeopleAndCollectors) {
  start({"--name", "first", "--name", "second", "--parallel", "2", "--context", "512"});
  const HttpAnswer reply = ask("POST", "/v1/chat/completions", chatRequest());
  ASSERT_EQ(reply.status, 200) << reply.body;
  const json chat = parseJson(reply.body);
  EXPECT_EQ(chat["model"], "first");
  EXPECT_NE(chat["choices"][0]["message"]["content"], "");
  EXPECT_EQ(parseJson(ask("GET", "/v1/models").body)["data"].size(), 2u);
  EXPECT_EQ(ask("GET", "/health").body, "{\"status\":\"ok\"}");

  const HttpAnswer page = ask("GET", "/");
  EXPECT_EQ(page.headers.at("content-type"), "text/html; charset=utf-8");
  EXPECT_TRUE(page.headers.contains("content-security-policy"));

  const std::string metrics = ask("GET", "/metrics").body;
  EXPECT_NE(metrics.find("zym_requests_total{outcome=\"completed\"} 1\n"), std::string::npos);
  EXPECT_NE(metrics.find("zym_context_positions 1024\n"), std::string::npos);

  const HttpAnswer nothing = ask("GET", "/nothing");
  EXPECT_EQ(nothing.status, 404);
  EXPECT_EQ(parseJson(nothing.body)["error"]["code"], "not_found");
  EXPECT_NE(ask("GET", "/metrics").body.find("zym_requests_total{outcome=\"not_found\"} 1\n"),
            std::string::npos);

  EXPECT_NE(log().find("127.0.0.1 POST /v1/chat/completions 200 "), std::string::npos);
  EXPECT_EQ(log().find("Who are you"), std::string::npos);
}

// Of a longer conversation there is more to remember, where that may take memory.
TEST_F(ServeCommandTest, StatesToGoBackToHaveABudget) {
  const auto bytesAfter = [&](int turns) {
    json messages = json::array();
    for (int i = 0; i < turns; ++i) {
      messages.push_back({{"role", "user"}, {"content", "Say it again."}});
      messages.push_back({{"role", "assistant"}, {"content", "Again."}});
    }
    messages.push_back({{"role", "user"}, {"content", "And again."}});
    const json request = {{"messages", messages}, {"max_tokens", 1}};
    // What the first one left behind is told of before the second one is taken up.
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(ask("POST", "/v1/chat/completions", request).status, 200);
    }
    const std::string metrics = ask("GET", "/metrics").body;
    const std::string name = "\nzym_snapshot_bytes ";
    return std::stoull(metrics.substr(metrics.find(name) + name.size()));
  };
  start({"--context", "512", "--parallel", "1", "--snapshots", "0"});
  const auto least = bytesAfter(1);
  EXPECT_GT(least, 0u);
  EXPECT_EQ(bytesAfter(4), least);
  kill(child, SIGTERM);
  end();
  start({"--context", "512", "--parallel", "1"});
  EXPECT_GT(bytesAfter(4), least);
}

TEST_F(ServeCommandTest, KeysGuardAllButThePageAndTheHealth) {
  std::ofstream(folder / "keys") << "# people\nalpha\n";
  start({"--api-key-file", folder / "keys", "--quiet"});
  EXPECT_EQ(ask("POST", "/v1/chat/completions", chatRequest()).status, 401);
  EXPECT_EQ(ask("GET", "/metrics").status, 401);
  EXPECT_EQ(ask("GET", "/nothing").status, 401);
  EXPECT_EQ(ask("GET", "/health").status, 200);
  EXPECT_EQ(ask("GET", "/").status, 200);
  EXPECT_EQ(ask("GET", "/v1/models", nullptr, "Authorization: Bearer alpha\r\n").status, 200);
  EXPECT_EQ(log().find("GET"), std::string::npos);
}

TEST_F(ServeCommandTest, EndsAtSigtermWhenRunningRepliesHave) {
  start({"--context", "512"});
  HttpClient caller(port);
  json request = chatRequest();
  request["stream"] = true;
  caller.ask("POST", "/v1/chat/completions", "", request.dump());
  ASSERT_TRUE(caller.readUntil("data: "));
  kill(child, SIGTERM);
  EXPECT_TRUE(caller.readUntil("data: [DONE]"));
  EXPECT_EQ(end(), 0);
  EXPECT_FALSE(HttpClient(port).isConnected);
}

TEST_F(ServeCommandTest, WithoutGraceRunningRepliesAreCutOff) {
  start({"--grace", "0"});
  HttpClient caller(port);
  json request = chatRequest();
  request["stream"] = true;
  request["max_tokens"] = 4000;
  request["temperature"] = 2;
  caller.ask("POST", "/v1/chat/completions", "", request.dump());
  ASSERT_TRUE(caller.readUntil("data: "));
  kill(child, SIGINT);
  EXPECT_TRUE(caller.isClosed());
  EXPECT_EQ(end(), 0);
}

// How a request of an interface is written: what is asked stands between before and after.
struct Interface {
  const char* path;
  const char* before;
  const char* after;
  const char* limit;

  std::string request(const std::string& asked, const std::string& tokens = "2",
                      const std::string& fields = "") const {
    return std::string("{") + before + asked + after + ",\"" + limit + "\":" + tokens + fields +
           "}";
  }
};

constexpr Interface kInterfaces[] = {
    {"/v1/chat/completions", R"("messages":[{"role":"user","content":)", "}]", "max_tokens"},
    {"/v1/completions", R"("prompt":)", "", "max_tokens"},
    {"/v1/responses", R"("input":)", "", "max_output_tokens"},
    {"/v1/messages", R"("model":"model","messages":[{"role":"user","content":)", "}]",
     "max_tokens"}};

// What no program means.
std::vector<std::string> hostileBodies(const Interface& to) {
  const std::string deep(100000, '[');
  const std::string text = R"("hi")";
  return {"null",
          "[]",
          text,
          std::string("{\0}", 3),
          deep,
          to.request(deep + std::string(deep.size(), ']')),
          to.request("\"\xff\xfe\""),
          to.request("\"\xc0\xaf\""),
          to.request(R"("\ud800")"),
          to.request("{}"),
          to.request("true"),
          to.request(text, "-1"),
          to.request(text, "1.5"),
          to.request(text, "99999999999999999999"),
          to.request(text, "1e999"),
          to.request(text, "2", R"(,"temperature":1e300)"),
          to.request(text, "2", R"(,"temperature":"hot")"),
          to.request(text, "2", R"(,"stream":"yes")"),
          to.request(text) + to.request(text)};
}

TEST_F(ServeCommandTest, HostileTextsAreRefusedWithAWordAndHarmNobody) {
  start({"--context", "512", "--parallel", "1"});
  for (const Interface& to : kInterfaces) {
    HttpClient caller(port);
    for (const std::string& body : hostileBodies(to)) {
      SCOPED_TRACE(to.path + (' ' + body.substr(0, 200)));
      ASSERT_TRUE(caller.ask("POST", to.path, "", body));
      const HttpAnswer answer = caller.read();
      ASSERT_EQ(answer.status, 400) << answer.body;
      const json error = parseJson(answer.body);
      EXPECT_NE(error["error"]["message"], "");
      EXPECT_EQ(error["error"]["type"], "invalid_request_error");
    }
    caller.ask("POST", to.path, "", to.request(R"("hi")"));
    EXPECT_EQ(caller.read().status, 200) << to.path;
  }
}

TEST_F(ServeCommandTest, SlowCallersAreToldAndGivenUp) {
  start({"--context", "512", "--read-timeout", "1"});
  HttpClient slow(port);
  slow.ask("POST", "/v1/chat/completions", "Content-Length: 1000\r\n");
  slow.send("{\"messages\":");
  EXPECT_EQ(ask("POST", "/v1/chat/completions", chatRequest()).status, 200);
  const HttpAnswer answer = slow.read();
  EXPECT_EQ(answer.status, 408);
  EXPECT_NE(parseJson(answer.body)["error"]["message"], "");
  EXPECT_TRUE(slow.isClosed());
}

// How many connections a test may hold, with what else it has open.
size_t manyConnections() {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  return kel::test::kInstrumented || files.rlim_cur < 2100 ? 300 : 2000;
}

TEST_F(ServeCommandTest, ManyConnectionsAtOnceAreServed) {
  const size_t count = manyConnections();
  start({"--context", "512", "--parallel", "2", "--queue", "3", "--quiet",
         "--connections-per-address", std::to_string(count + 10)});
  const std::string body = chatRequest().dump();
  std::vector<HttpClient> callers;
  for (size_t i = 0; i < count; ++i) {
    callers.emplace_back(port);
    ASSERT_TRUE(callers.back().ask("POST", "/v1/chat/completions",
                                   "Content-Length: " + std::to_string(body.size()) + "\r\n"));
  }
  // Requests that have only begun keep nobody waiting.
  EXPECT_EQ(ask("POST", "/v1/chat/completions", chatRequest()).status, 200);
  for (const HttpClient& caller : callers) {
    ASSERT_TRUE(caller.send(body));
  }
  size_t answered = 0;
  for (HttpClient& caller : callers) {
    const HttpAnswer answer = caller.read();
    ASSERT_TRUE(answer.status == 200 || answer.status == 503) << answer.status << answer.body;
    EXPECT_TRUE(parseJson(answer.body).contains(answer.status == 200 ? "choices" : "error"));
    answered += answer.status == 200 ? 1 : 0;
  }
  EXPECT_GE(answered, 5u);  // two at work and three that wait
  EXPECT_EQ(ask("POST", "/v1/chat/completions", chatRequest()).status, 200);
}

TEST_F(ServeCommandTest, WhatCannotBeServedIsOneClearLine) {
  const auto fault = [](std::vector<std::string> words, int status) {
    words.insert(words.begin(), {ZYM_PROGRAM, "serve", model});
    const testing_support::Outcome outcome = testing_support::runProcess(words);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    return outcome.err;
  };
  EXPECT_EQ(fault({"--api-key-file", "/missing"}, 1), "zym: api keys: cannot read /missing\n");
  EXPECT_EQ(fault({"--cert", "/missing", "--key", "/missing"}, 1),
            "zym: tls: cannot read /missing\n");
  EXPECT_NE(fault({"--cert", "/missing"}, 2).find("--key"), std::string::npos);
  EXPECT_NE(fault({"--cors", "http://a.example/"}, 2).find("no origin"), std::string::npos);
  EXPECT_NE(fault({"--cors", "a.example"}, 2).find("no origin"), std::string::npos);
  EXPECT_NE(fault({"--host-name", "a.example:80"}, 2).find("no name"), std::string::npos);
  EXPECT_NE(fault({"--context", "1000000"}, 1).find("is more than the model has room for"),
            std::string::npos);
  start({});
  const std::string used = std::to_string(port);
  EXPECT_EQ(fault({"--port", used}, 1),
            "zym: http: cannot listen at 127.0.0.1 port " + used + ": Address already in use\n");
}

}  // namespace
}  // namespace zym
