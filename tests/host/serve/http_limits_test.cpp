// What the server does about callers that send too much, too slowly, or read too slowly.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tests/host/serve/serve_fixture.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using kel::test::parseJson;
using std::chrono::milliseconds;
using testing_support::comesTrue;
using testing_support::HttpAnswer;
using testing_support::HttpClient;
using testing_support::isGone;
using HttpLimitsTest = testing_support::ServeTest;

std::string errorCode(const HttpAnswer& answer) {
  return parseJson(answer.body)["error"]["code"];
}

size_t threadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// Descriptors for both ends of a thousand connections.
void allowManyFiles() {
  rlimit files{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  files.rlim_cur = files.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  if (files.rlim_cur < 3000) {
    GTEST_SKIP() << "a process may open " << files.rlim_cur << " files here";
  }
}

TEST_F(HttpLimitsTest, LargeHeadsAreRefused) {
  service.limits.headerBytes = 4096;
  start();
  HttpClient caller = client();
  caller.ask("GET", "/health", "X-Long: " + std::string(3900, 'a') + "\r\n");
  EXPECT_EQ(caller.read().status, 200);
  caller.ask("GET", "/health", "X-Long: " + std::string(4100, 'a') + "\r\n");
  const HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 431);
  EXPECT_EQ(errorCode(answer), "headers_too_large");

  HttpClient hostile = client();
  hostile.ask("GET", "/health", "X-Long: " + std::string(200000, 'a') + "\r\n");
  EXPECT_TRUE(hostile.isClosed());
}

TEST_F(HttpLimitsTest, LargeBodiesAreRefusedHoweverTheyCome) {
  service.limits.bodyBytes = 10000;
  start();
  HttpClient caller = client();
  caller.ask("POST", "/echo", "", std::string(10000, 'a'));
  EXPECT_EQ(caller.read().status, 200);
  caller.ask("POST", "/echo", "", std::string(10001, 'a'));
  HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 413);
  EXPECT_EQ(errorCode(answer), "request_too_large");

  // The refused body has been read: the connection goes on.
  caller.ask("POST", "/echo", "Transfer-Encoding: chunked\r\n");
  for (int i = 0; i < 11; ++i) {
    caller.send("3e8\r\n" + std::string(1000, 'a') + "\r\n");
  }
  caller.send("0\r\n\r\n");
  EXPECT_EQ(caller.read().status, 413);
  caller.ask("GET", "/health");
  EXPECT_EQ(caller.read().status, 200);
}

TEST_F(HttpLimitsTest, BodiesWithoutEndAreCutOff) {
  service.limits.bodyBytes = 10000;
  start();
  HttpClient caller = client();
  caller.ask("POST", "/echo", "Transfer-Encoding: chunked\r\n");
  const std::string chunk = "3e8\r\n" + std::string(1000, 'a') + "\r\n";
  size_t sent = 0;
  while (sent < 100000000 && caller.send(chunk)) {
    sent += chunk.size();
  }
  EXPECT_LT(sent, 100000000u);
}

TEST_F(HttpLimitsTest, CallersThatAskFirstAreToldAtOnce) {
  service.limits.bodyBytes = 10000;
  start();
  HttpClient caller = client();
  caller.ask("POST", "/echo", "Expect: 100-continue\r\nContent-Length: 10001\r\n");
  EXPECT_EQ(caller.read().status, 413);
  EXPECT_TRUE(caller.isClosed());

  HttpClient allowed = client();
  allowed.ask("POST", "/echo", "Expect: 100-continue\r\nContent-Length: 2\r\n");
  EXPECT_EQ(allowed.read().status, 100);
  allowed.send("ok");
  EXPECT_EQ(allowed.read().body, "ok");
}

TEST_F(HttpLimitsTest, HugeLengthsAreRefusedBeforeTheirBodies) {
  start();
  for (const std::string length : {"99999999999", "18446744073709551614"}) {
    HttpClient caller = client();
    caller.ask("POST", "/echo", "Content-Length: " + length + "\r\n");
    EXPECT_EQ(caller.read().status, 413) << length;
  }
}

TEST_F(HttpLimitsTest, BodiesOfAllRequestsHaveARoomTogether) {
  service.limits.bodyBytes = 10000;
  service.limits.bodiesBytes = 15000;
  start();
  HttpClient first = client();
  first.ask("POST", "/wait", "", std::string(10000, 'a'));
  auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  HttpClient second = client();
  second.ask("POST", "/echo", "", std::string(10000, 'b'));
  const HttpAnswer refused = second.read();
  EXPECT_EQ(refused.status, 503);
  EXPECT_TRUE(refused.headers.contains("retry-after"));

  exchange->answer(200, "text/plain", "");
  exchange.reset();
  EXPECT_EQ(first.read().status, 200);
  EXPECT_TRUE(comesTrue([&] {
    second.ask("POST", "/echo", "", std::string(10000, 'b'));
    return second.read().status == 200;
  }));
}

TEST_F(HttpLimitsTest, FurtherConnectionsOfAnAddressAreClosed) {
  service.limits.perAddressConnections = 3;
  start();
  std::vector<HttpClient> callers;
  for (int i = 0; i < 3; ++i) {
    callers.push_back(client());
    callers.back().ask("GET", "/health");
    EXPECT_EQ(callers.back().read().status, 200);
  }
  HttpClient further = client();
  further.ask("GET", "/health");
  EXPECT_TRUE(further.isClosed());
  EXPECT_EQ(further.take(), "");
  callers[1].close();
  EXPECT_TRUE(comesTrue([&] {
    HttpClient again = client();
    again.ask("GET", "/health");
    return again.read().status == 200;
  }));
}

TEST_F(HttpLimitsTest, FurtherConnectionsWaitForTheirTurn) {
  service.limits.connections = 2;
  start();
  HttpClient first = client();
  HttpClient second = client();
  for (HttpClient* caller : {&first, &second}) {
    caller->ask("GET", "/health");
    EXPECT_EQ(caller->read().status, 200);
  }
  HttpClient third = client();
  third.ask("GET", "/health");
  first.close();
  EXPECT_EQ(third.read().status, 200);
}

TEST_F(HttpLimitsTest, SlowHeadsAreCutOff) {
  service.limits.readTimeout = milliseconds(200);
  start();
  HttpClient caller = client();
  caller.send("GET /health HTTP/1.1\r\nHost: localhost\r\n");
  // Drop by drop, so that the connection is never idle for long.
  while (caller.send("X")) {
    std::this_thread::sleep_for(milliseconds(20));
  }
  EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
}

TEST_F(HttpLimitsTest, SlowBodiesAreCutOffWithAWord) {
  service.limits.readTimeout = milliseconds(200);
  start();
  HttpClient caller = client();
  caller.ask("POST", "/echo", "Content-Length: 1000\r\n");
  caller.send("some");
  const HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 408);
  EXPECT_EQ(errorCode(answer), "request_timeout");
  EXPECT_TRUE(caller.isClosed());
}

TEST_F(HttpLimitsTest, WordToSlowCallersIsInTheFormOfTheInterface) {
  service.limits.readTimeout = milliseconds(200);
  start();
  for (const char* beginning : {"POST /v1/messages?beta=true HTTP/1.1\r\nHost: local",
                                "POST /v1/messages HTTP/1.1\r\nHost: localhost\r\n"
                                "Content-Length: 9\r\n\r\n{"}) {
    HttpClient caller = client();
    caller.send(beginning);
    EXPECT_EQ(caller.read().body, R"({"type":"error","error":{"type":"timeout_error",)"
                                  R"("message":"the request took too long to come in"}})");
  }
}

TEST_F(HttpLimitsTest, SilentAndIdleConnectionsAreClosed) {
  service.limits.readTimeout = milliseconds(200);
  service.limits.idleTimeout = milliseconds(300);
  start();
  HttpClient silent = client();
  EXPECT_TRUE(silent.isClosed());
  EXPECT_EQ(silent.take(), "");
  HttpClient idle = client();
  idle.ask("GET", "/health");
  EXPECT_EQ(idle.read().status, 200);
  EXPECT_TRUE(idle.isClosed());
  EXPECT_EQ(idle.take(), "");
}

TEST_F(HttpLimitsTest, AwaitedAnswersAndIdleStreamsOutlastTheTimeouts) {
  service.limits.readTimeout = milliseconds(100);
  service.limits.writeTimeout = milliseconds(100);
  service.limits.idleTimeout = milliseconds(100);
  start();
  HttpClient waiting = client();
  waiting.ask("POST", "/wait", "", "x");
  const auto unanswered = inbox.take();
  HttpClient reading = client();
  reading.ask("GET", "/wait");
  const auto stream = inbox.take();
  ASSERT_TRUE(unanswered != nullptr && stream != nullptr);
  stream->begin(200, "text/plain");
  stream->write("some");
  std::this_thread::sleep_for(milliseconds(600));
  EXPECT_FALSE(isGone(*unanswered));
  EXPECT_FALSE(isGone(*stream));
  unanswered->answer(200, "text/plain", "late");
  stream->write("more");
  stream->end();
  EXPECT_EQ(waiting.read().body, "late");
  EXPECT_EQ(reading.read().body, "somemore");
}

TEST_F(HttpLimitsTest, AnswerThatIsBegunAtOnceCountsAsUnreadFromThenOn) {
  service.limits.idleTimeout = milliseconds(40);  // how often the times are looked at follows it
  service.routes.add("GET", "/slow", [](const std::shared_ptr<HttpExchange>& exchange) {
    exchange->begin(200, "text/plain");
    std::this_thread::sleep_for(milliseconds(200));
    exchange->write("all");
    exchange->end();
  });
  start();
  HttpClient caller = client();
  caller.ask("GET", "/slow");
  EXPECT_EQ(caller.read().body, "all");
}

TEST_F(HttpLimitsTest, StreamThatIsNotReadIsGivenUpWhenItsRoomIsFull) {
  service.limits.unsentBytes = 100000;
  start();
  HttpClient caller(server.port(), 4096);
  caller.ask("GET", "/wait");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/plain");
  const std::string piece(50000, 'a');
  size_t written = 0;
  while (!isGone(*exchange) && written < 1000000000) {
    exchange->write(piece);
    written += piece.size();
  }
  EXPECT_LT(written, 1000000000u);
  EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
}

TEST_F(HttpLimitsTest, AnswersThatAreNotReadAreGivenUpAfterTheWriteTimeout) {
  service.limits.writeTimeout = milliseconds(300);
  service.limits.unsentBytes = 64 << 20;
  start();
  for (const bool isStream : {true, false}) {
    HttpClient caller(server.port(), 4096);
    caller.ask("GET", "/wait");
    const auto exchange = inbox.take();
    ASSERT_NE(exchange, nullptr);
    const std::string body(32 << 20, 'a');
    if (isStream) {
      exchange->begin(200, "text/plain");
      exchange->write(body);
    } else {
      exchange->answer(200, "text/plain", body);
    }
    EXPECT_TRUE(comesTrue([&] { return isGone(*exchange); })) << isStream;
    EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; })) << isStream;
  }
}

TEST_F(HttpLimitsTest, AThousandIdleStreamsTakeNoThreads) {
  allowManyFiles();
  if (IsSkipped()) {
    return;
  }
  service.limits.perAddressConnections = 2000;
  start();
  HttpClient prober = client();
  prober.ask("GET", "/health");
  EXPECT_EQ(prober.read().status, 200);
  const size_t threadsBefore = threadCount();
  std::vector<HttpClient> callers;
  std::vector<std::shared_ptr<HttpExchange>> streams;
  for (int i = 0; i < 1200; ++i) {
    callers.push_back(client());
    ASSERT_TRUE(callers.back().ask("GET", "/wait"));
    streams.push_back(inbox.take());
    ASSERT_NE(streams.back(), nullptr);
    streams.back()->begin(200, "text/plain");
    streams.back()->write("begun;");
  }
  EXPECT_EQ(server.connectionCount(), 1201u);
  EXPECT_EQ(threadCount(), threadsBefore);
  prober.ask("GET", "/health");
  EXPECT_EQ(prober.read().status, 200);
  // Half of the callers leave, the others get their answers.
  for (size_t i = 0; i < callers.size(); i += 2) {
    callers[i].close();
  }
  for (size_t i = 0; i < callers.size(); i += 2) {
    ASSERT_TRUE(comesTrue([&] { return isGone(*streams[i]); })) << i;
  }
  for (size_t i = 1; i < callers.size(); i += 2) {
    EXPECT_FALSE(isGone(*streams[i]));
    streams[i]->write(std::to_string(i));
    streams[i]->end();
  }
  for (size_t i = 1; i < callers.size(); i += 2) {
    EXPECT_EQ(callers[i].read().body, "begun;" + std::to_string(i));
  }
}

}  // namespace
}  // namespace zym
