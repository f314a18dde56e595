// What the transport refuses is counted, each by its reason, and logged.
#include "host/serve/http_refusal.h"

#include <gtest/gtest.h>

#include "tests/host/serve/serve_fixture.h"

namespace zym {
namespace {

using std::chrono::milliseconds;
using testing_support::comesTrue;
using testing_support::HttpClient;

class HttpRefusalTest : public testing_support::ServeTest {
 protected:
  // What has been counted, once it is the last of these.
  ::testing::AssertionResult counts(RefusalReason reason, uint64_t expected) {
    RefusalNumbers wanted = seen;
    wanted[static_cast<size_t>(reason)] += expected;
    if (!comesTrue([&] { return server.refusals() == wanted; })) {
      auto failure = ::testing::AssertionFailure() << codeOf(reason) << ':';
      for (size_t i = 0; i < kRefusalReasons; ++i) {
        failure << ' ' << codeOf(static_cast<RefusalReason>(i)) << ' ' << server.refusals()[i];
      }
      return failure;
    }
    seen = wanted;
    return ::testing::AssertionSuccess();
  }
  ::testing::AssertionResult countsOne(RefusalReason reason) { return counts(reason, 1); }
  bool logs(const std::string& ending) {
    return comesTrue([&] { return !log().empty() && log().back().ends_with(ending); });
  }

 private:
  RefusalNumbers seen{};
};

TEST_F(HttpRefusalTest, WhatCallersGetWrongIsCountedByItsReason) {
  service.policy.keys = ApiKeys({"alpha"});
  service.limits.headerBytes = 4096;
  service.limits.bodyBytes = 1000;
  start();
  const std::string key = "X-Api-Key: alpha\r\n";
  HttpClient caller = client();
  const auto ask = [&](const std::string& method, const std::string& path,
                       const std::string& headers, const std::string& body = "") {
    caller.ask(method, path, headers, body);
    return caller.read().status;
  };
  EXPECT_EQ(ask("GET", "/%zz", key), 400);
  EXPECT_TRUE(countsOne(RefusalReason::InvalidPath));
  EXPECT_EQ(ask("GET", "/wait", ""), 401);
  EXPECT_TRUE(countsOne(RefusalReason::InvalidKey));
  EXPECT_EQ(ask("POST", "/echo", key + "Origin: https://evil.example\r\n"), 403);
  EXPECT_TRUE(countsOne(RefusalReason::InvalidOrigin));
  EXPECT_EQ(ask("GET", "/nowhere", key), 404);
  EXPECT_TRUE(countsOne(RefusalReason::NotFound));
  EXPECT_EQ(ask("DELETE", "/wait", key), 405);
  EXPECT_TRUE(countsOne(RefusalReason::MethodNotAllowed));
  EXPECT_EQ(ask("POST", "/echo", key, std::string(1001, 'a')), 413);
  EXPECT_TRUE(countsOne(RefusalReason::BodyTooLarge));
  EXPECT_EQ(ask("GET", "/health", "X-Long: " + std::string(4100, 'a') + "\r\n"), 431);
  EXPECT_TRUE(countsOne(RefusalReason::HeadTooLarge));
  caller.send("GET /health HTTP/1.1\r\nHost: evil.example\r\n\r\n");
  EXPECT_EQ(caller.read().status, 403);
  EXPECT_TRUE(countsOne(RefusalReason::InvalidHost));
  EXPECT_EQ(ask("GET", "/health", "X-Odd : a\r\n"), 400);
  EXPECT_TRUE(countsOne(RefusalReason::InvalidHeader));
  HttpClient second = client();
  second.ask("POST", "/echo", key + "Transfer-Encoding: gzip\r\n");
  EXPECT_EQ(second.read().status, 400);
  EXPECT_TRUE(countsOne(RefusalReason::InvalidLength));
}

TEST_F(HttpRefusalTest, WhatIsServedIsNoRefusal) {
  service.policy.origins = {"https://app.example"};
  start();
  HttpClient caller = client();
  caller.ask("GET", "/health");
  EXPECT_EQ(caller.read().status, 200);
  caller.ask("OPTIONS", "/echo",
             "Origin: https://app.example\r\nAccess-Control-Request-Method: POST\r\n");
  EXPECT_EQ(caller.read().status, 204);
  caller.ask("GET", "/health", "Connection: close\r\n");
  EXPECT_TRUE(caller.isClosed());
  EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
  // Callers that say nothing, or leave in the middle.
  for (const char* some :
       {"", "GET /health HTTP/1.1\r\nHost: lo",
        "POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 9\r\n\r\nab"}) {
    client().send(some);
    EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
  }
  EXPECT_EQ(server.refusals(), RefusalNumbers{});
}

TEST_F(HttpRefusalTest, AnswersAreCountedByTheirStatus) {
  start();
  HttpClient caller = client();
  for (const auto& [path, status] :
       {std::pair{"/health", 200}, {"/nowhere", 404}, {"/health", 200}}) {
    caller.ask("GET", path);
    EXPECT_EQ(caller.read().status, status);
  }
  EXPECT_EQ(server.answers(), (AnswerNumbers{{200, 2}, {404, 1}}));
}

TEST_F(HttpRefusalTest, WhatIsNoHttpIsMalformed) {
  start();
  const std::string host = "Host: localhost\r\n";
  for (const std::string& text :
       {std::string("GET\r\n\r\n"), std::string("GET /health HTTP/9.9.9\r\n\r\n"),
        std::string("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"),
        "GET /" + std::string(200000, 'a') + " HTTP/1.1\r\n" + host + "\r\n",
        "GET / HTTP/1.1\r\n" + host + "X: " + std::string(200000, 'a') + "\r\n\r\n",
        "GET / HTTP/1.1\r\n" + host + "Content-Length: many\r\n\r\n",
        "POST /echo HTTP/1.1\r\n" + host + "Transfer-Encoding: chunked\r\n\r\nzz\r\n\r\n"}) {
    SCOPED_TRACE(text.substr(0, 100));
    HttpClient caller = client();
    caller.send(text);
    EXPECT_TRUE(caller.isClosed());
    EXPECT_TRUE(countsOne(RefusalReason::Malformed));
    EXPECT_TRUE(logs(" (malformed)"));
  }
}

TEST_F(HttpRefusalTest, RequestsThatComeTooSlowlyAreCounted) {
  service.limits.readTimeout = milliseconds(200);
  start();
  for (const char* beginning :
       {"GET /health HTTP/1.1\r\nHost: local",
        "POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 9\r\n\r\nab"}) {
    HttpClient caller = client();
    caller.send(beginning);
    EXPECT_EQ(caller.read().status, 408);
    EXPECT_TRUE(countsOne(RefusalReason::TooSlow));
    EXPECT_TRUE(logs(" (request_timeout)"));
  }
  HttpClient silent = client();
  EXPECT_TRUE(silent.isClosed());
  EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
  EXPECT_TRUE(counts(RefusalReason::TooSlow, 0));
}

TEST_F(HttpRefusalTest, BodiesWithoutEndAreTooLarge) {
  service.limits.bodyBytes = 10000;
  start();
  HttpClient caller = client();
  caller.ask("POST", "/echo", "Transfer-Encoding: chunked\r\n");
  while (caller.send("3e8\r\n" + std::string(1000, 'a') + "\r\n")) {
  }
  EXPECT_TRUE(countsOne(RefusalReason::BodyTooLarge));
}

TEST_F(HttpRefusalTest, ConnectionsThatAnAddressHasNoRoomForAreCounted) {
  service.limits.perAddressConnections = 2;
  start();
  HttpClient first = client();
  HttpClient second = client();
  for (HttpClient* caller : {&first, &second}) {
    caller->ask("GET", "/health");
    EXPECT_EQ(caller->read().status, 200);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(client().isClosed());
  }
  EXPECT_TRUE(counts(RefusalReason::AddressTooBusy, 3));
}

TEST_F(HttpRefusalTest, WhatTheServerCannotDoIsCounted) {
  service.limits.bodyBytes = 1000;
  service.limits.bodiesBytes = 1500;
  service.routes.add("GET", "/throws", [](const std::shared_ptr<HttpExchange>&) {
    throw std::runtime_error("numbers went wrong");
  });
  start();
  HttpClient caller = client();
  caller.ask("GET", "/throws");
  EXPECT_EQ(caller.read().status, 500);
  EXPECT_TRUE(countsOne(RefusalReason::Failed));
  HttpClient holder = client();
  holder.ask("POST", "/wait", "", std::string(1000, 'a'));
  const auto held = inbox.take();
  ASSERT_NE(held, nullptr);
  caller.ask("POST", "/echo", "", std::string(1000, 'a'));
  EXPECT_EQ(caller.read().status, 503);
  EXPECT_TRUE(countsOne(RefusalReason::Overloaded));

  std::thread stopping([&] { server.stop(std::chrono::minutes(5)); });
  EXPECT_TRUE(comesTrue([&] { return !client().isConnected; }));
  caller.ask("GET", "/health");
  EXPECT_EQ(caller.read().status, 503);
  EXPECT_TRUE(countsOne(RefusalReason::ShuttingDown));
  held->answer(200, "text/plain", "");
  stopping.join();
  // Connections that the end of the server closes are no fault of their callers.
  EXPECT_TRUE(counts(RefusalReason::Malformed, 0));
}

}  // namespace
}  // namespace zym
