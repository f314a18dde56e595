// `zym serve` as people start and end it.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/e2e/served_program.h"
#include "tests/support/demo_model.h"

namespace zym {
namespace {

using nlohmann::json;
using testing_support::HttpAnswer;
using testing_support::HttpClient;

class ServeCommandTest : public testing_support::ServedProgram {
 protected:
  static void SetUpTestSuite() {
    ServedProgram::SetUpTestSuite();
    kel::test::writeDemoModel(model, kel::QuantType::Q8_0);
  }
};

json chatRequest() {
  return {{"messages", {{{"role", "user"}, {"content", "Who are you?"}}}}, {"temperature", 0}};
}

TEST_F(ServeCommandTest, AnswersProgramsPeopleAndCollectors) {
  start({"--name", "first", "--name", "second", "--parallel", "2", "--context", "512"});
  const HttpAnswer reply = ask("POST", "/v1/chat/completions", chatRequest());
  ASSERT_EQ(reply.status, 200) << reply.body;
  const json chat = json::parse(reply.body);
  EXPECT_EQ(chat["model"], "first");
  EXPECT_NE(chat["choices"][0]["message"]["content"], "");
  EXPECT_EQ(json::parse(ask("GET", "/v1/models").body)["data"].size(), 2u);
  EXPECT_EQ(ask("GET", "/health").body, "{\"status\":\"ok\"}");

  const HttpAnswer page = ask("GET", "/");
  EXPECT_EQ(page.headers.at("content-type"), "text/html; charset=utf-8");
  EXPECT_TRUE(page.headers.contains("content-security-policy"));

  const std::string metrics = ask("GET", "/metrics").body;
  EXPECT_NE(metrics.find("zym_requests_total{outcome=\"completed\"} 1\n"), std::string::npos);
  EXPECT_NE(metrics.find("zym_context_positions 1024\n"), std::string::npos);

  const HttpAnswer nothing = ask("GET", "/nothing");
  EXPECT_EQ(nothing.status, 404);
  EXPECT_EQ(json::parse(nothing.body)["error"]["code"], "not_found");

  EXPECT_NE(log().find("127.0.0.1 POST /v1/chat/completions 200 "), std::string::npos);
  EXPECT_EQ(log().find("Who are you"), std::string::npos);
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
  EXPECT_NE(fault({"--context", "1000000"}, 1).find("is more than the model has room for"),
            std::string::npos);
  start({});
  const std::string used = std::to_string(port);
  EXPECT_EQ(fault({"--port", used}, 1),
            "zym: http: cannot listen at 127.0.0.1 port " + used + ": Address already in use\n");
}

}  // namespace
}  // namespace zym
