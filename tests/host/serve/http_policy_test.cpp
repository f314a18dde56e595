// Who may ask.
#include "host/serve/http_policy.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/host/serve/serve_fixture.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using kel::test::parseJson;
using testing_support::HttpAnswer;
using testing_support::HttpClient;
using HttpPolicyTest = testing_support::ServeTest;

TEST(HttpPolicyNames, HostIsWhatStandsBeforeThePort) {
  EXPECT_EQ(hostOf("Example.org"), "example.org");
  EXPECT_EQ(hostOf("example.org:8080"), "example.org");
  EXPECT_EQ(hostOf("[::1]:8080"), "::1");
  EXPECT_EQ(hostOf("[FE80::1]"), "fe80::1");
  for (const char* none : {"", ":80", "a:b", "[::1", "[::1]x", "localhost:80@evil.org", "a:1234567",
                           "localhost:80:90"}) {
    EXPECT_EQ(hostOf(none), "") << none;
  }
}

TEST(HttpPolicyNames, ServerKnowsItsNamesAndNoOthers) {
  HttpPolicy policy;
  policy.hostNames = {"Box.example"};
  for (const char* known : {"localhost", "LOCALHOST:99", "127.0.0.1:8080", "[::1]:8080",
                            "192.168.1.5:8080", "box.example", "BOX.example:443"}) {
    EXPECT_TRUE(policy.knowsHost(known, "192.168.1.5")) << known;
  }
  for (const char* foreign : {"", "evil.example", "localhost.evil.example", "box.example.evil",
                              "127.0.0.1.evil.example", "192.168.1.6", "localhost:x"}) {
    EXPECT_FALSE(policy.knowsHost(foreign, "192.168.1.5")) << foreign;
  }
  EXPECT_FALSE(policy.knowsHost("", ""));
}

TEST(HttpPolicyNames, OwnPagesAndNamedOriginsMayAsk) {
  HttpPolicy policy;
  policy.origins = {"https://app.example"};
  EXPECT_TRUE(policy.admitsOrigin("http://localhost:8080", "localhost:8080"));
  EXPECT_TRUE(policy.admitsOrigin("https://app.example", "localhost:8080"));
  for (const char* foreign :
       {"http://localhost:9090", "http://app.example", "https://app.example.evil", "null"}) {
    EXPECT_FALSE(policy.admitsOrigin(foreign, "localhost:8080")) << foreign;
  }
  EXPECT_FALSE(policy.admitsOrigin("null", ""));
  policy.origins = {"*"};
  EXPECT_TRUE(policy.admitsOrigin("null", "localhost"));
}

TEST_F(HttpPolicyTest, ForeignHostIsRefused) {
  service.policy.hostNames = {"box.example"};
  start();
  for (const auto& [host, status] : {std::pair{"evil.example", 403}, std::pair{"127.0.0.1:1", 200},
                                     std::pair{"box.example:443", 200}}) {
    HttpClient caller = client();
    caller.send(std::string("GET /health HTTP/1.1\r\nHost: ") + host + "\r\n\r\n");
    EXPECT_EQ(caller.read().status, status) << host;
  }
  HttpClient old = client();
  old.send("GET /health HTTP/1.0\r\n\r\n");
  EXPECT_EQ(old.read().status, 200);
}

TEST_F(HttpPolicyTest, ServerAtAllAddressesGoesByTheOneThatWasReached) {
  options.address = "0.0.0.0";
  start();
  HttpClient caller = client();
  caller.send("GET /health HTTP/1.1\r\nHost: 127.0.0.2\r\n\r\n");
  EXPECT_EQ(caller.read().status, 403);
  caller.send("GET /health HTTP/1.1\r\nHost: 0.0.0.0\r\n\r\n");
  EXPECT_EQ(caller.read().status, 403);
  HttpClient second(server.port(), 0, INADDR_LOOPBACK + 1);
  second.send("GET /health HTTP/1.1\r\nHost: 127.0.0.2\r\n\r\n");
  EXPECT_EQ(second.read().status, 200);
}

TEST_F(HttpPolicyTest, KeysAreAskedForWhereThereAreSome) {
  service.policy.keys = ApiKeys({"alpha", "beta"});
  start();
  HttpClient caller = client();
  for (const char* headers :
       {"", "Authorization: Bearer gamma\r\n", "Authorization: alpha\r\n", "X-Api-Key: alph\r\n",
        "X-Api-Key: alphaa\r\n", "X-Api-Key: \r\n", "Authorization: Basic alpha\r\n",
        "X-Api-Key: alpha\r\nX-Api-Key: beta\r\n"}) {
    caller.ask("POST", "/echo", headers, "x");
    const HttpAnswer answer = caller.read();
    EXPECT_EQ(answer.status, 401) << headers;
    EXPECT_EQ(answer.headers.at("www-authenticate"), "Bearer");
    EXPECT_EQ(parseJson(answer.body)["error"]["code"], "invalid_api_key");
  }
  for (const char* headers : {"Authorization: Bearer alpha\r\n", "Authorization: bearer beta\r\n",
                              "X-API-Key: beta\r\n"}) {
    caller.ask("POST", "/echo", headers, "x");
    EXPECT_EQ(caller.read().status, 200) << headers;
  }
  // What is there is not told to those without a key; open routes are for all.
  caller.ask("GET", "/nowhere");
  EXPECT_EQ(caller.read().status, 401);
  caller.ask("GET", "/health");
  EXPECT_EQ(caller.read().status, 200);
}

TEST_F(HttpPolicyTest, PagesElsewhereMayNotAskUnlessNamed) {
  service.policy.origins = {"https://app.example"};
  start();
  HttpClient caller = client();
  caller.ask("POST", "/echo", "Origin: https://evil.example\r\nContent-Type: text/plain\r\n", "x");
  HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 403);
  EXPECT_FALSE(answer.headers.contains("access-control-allow-origin"));

  caller.ask("POST", "/echo", "Origin: http://localhost\r\n", "x");
  answer = caller.read();
  EXPECT_EQ(answer.status, 200);
  EXPECT_FALSE(answer.headers.contains("access-control-allow-origin"));

  caller.ask("POST", "/echo", "Origin: https://app.example\r\n", "x");
  answer = caller.read();
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.headers.at("access-control-allow-origin"), "https://app.example");
  EXPECT_EQ(answer.headers.at("vary"), "Origin");
}

TEST_F(HttpPolicyTest, StreamsAndRefusalsAreSharedWithNamedOrigins) {
  service.policy.origins = {"https://app.example"};
  service.policy.keys = ApiKeys({"alpha"});
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait", "Origin: https://app.example\r\n");
  HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 401);
  EXPECT_EQ(answer.headers.at("access-control-allow-origin"), "https://app.example");
  caller.ask("GET", "/wait", "Origin: https://app.example\r\nX-Api-Key: alpha\r\n");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/event-stream");
  exchange->end();
  answer = caller.read();
  EXPECT_EQ(answer.headers.at("access-control-allow-origin"), "https://app.example");
}

TEST_F(HttpPolicyTest, BrowsersMayAskForLeave) {
  service.policy.origins = {"https://app.example"};
  service.policy.keys = ApiKeys({"alpha"});
  start();
  const std::string asking =
      "Access-Control-Request-Method: POST\r\n"
      "Access-Control-Request-Headers: authorization,content-type,x-stainless-os\r\n";
  HttpClient caller = client();
  caller.ask("OPTIONS", "/echo", asking + "Origin: https://app.example\r\n");
  HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 204);
  EXPECT_EQ(answer.headers.at("access-control-allow-origin"), "https://app.example");
  EXPECT_EQ(answer.headers.at("access-control-allow-headers"),
            "authorization,content-type,x-stainless-os");
  EXPECT_NE(answer.headers.at("access-control-allow-methods").find("POST"), std::string::npos);

  caller.ask("OPTIONS", "/echo", asking + "Origin: https://evil.example\r\n");
  answer = caller.read();
  EXPECT_EQ(answer.status, 204);
  EXPECT_EQ(answer.headers.at("allow"), "POST, OPTIONS");
  EXPECT_FALSE(answer.headers.contains("access-control-allow-origin"));
  EXPECT_FALSE(answer.headers.contains("access-control-allow-methods"));
}

}  // namespace
}  // namespace zym
