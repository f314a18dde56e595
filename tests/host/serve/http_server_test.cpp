// Requests and answers as they go over a connection.
#include "host/serve/http_server.h"

#include <gtest/gtest.h>

#include <future>
#include <nlohmann/json.hpp>

#include "tests/host/serve/serve_fixture.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using kel::test::parseJson;
using testing_support::comesTrue;
using testing_support::HttpAnswer;
using testing_support::HttpClient;
using testing_support::isGone;
using HttpServerTest = testing_support::ServeTest;

TEST_F(HttpServerTest, OneConnectionServesManyRequests) {
  start();
  HttpClient caller = client();
  for (const std::string body : {"one", "two", "three"}) {
    caller.ask("POST", "/echo", "", body);
    const HttpAnswer answer = caller.read();
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, body);
    EXPECT_EQ(answer.headers.at("content-type"), "text/plain");
  }
  EXPECT_EQ(server.connectionCount(), 1u);
}

TEST_F(HttpServerTest, RequestsSentAheadAreAnsweredInTheirOrder) {
  start();
  HttpClient caller = client();
  caller.send(
      "POST /wait HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1\r\n\r\na"
      "POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1\r\n\r\nb");
  const auto first = inbox.take();
  ASSERT_NE(first, nullptr);
  EXPECT_FALSE(isGone(*first));
  first->answer(200, "text/plain", "of " + first->request().body);
  EXPECT_EQ(caller.read().body, "of a");
  EXPECT_EQ(caller.read().body, "b");
}

TEST_F(HttpServerTest, BodiesMayComeInChunks) {
  start();
  HttpClient caller = client();
  caller.send(
      "POST /echo HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n"
      "4\r\nab\r\n\r\n");
  caller.send("3;part=2\r\ncde\r\n0\r\n\r\n");
  EXPECT_EQ(caller.read().body, "ab\r\ncde");
  caller.ask("POST", "/echo", "", "next");
  EXPECT_EQ(caller.read().body, "next");
}

TEST_F(HttpServerTest, BodiesAreWhatWasSentByteForByte) {
  start();
  std::string body;
  for (int i = 0; i < 300000; ++i) {
    body += static_cast<char>(i * 7 + i / 256);
  }
  HttpClient caller = client();
  caller.ask("POST", "/echo", "", body);
  const HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.body.size(), body.size());
  EXPECT_TRUE(answer.body == body);
}

TEST_F(HttpServerTest, HandlersSeeTheRequest) {
  start();
  HttpClient caller = client();
  caller.ask("POST", "/wa%69t?secret=1", "X-Some: Thing\r\nx-some: else\r\n", "{}");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  EXPECT_EQ(exchange->request().method, "POST");
  EXPECT_EQ(exchange->request().path, "/wait");
  EXPECT_EQ(exchange->request().address, "127.0.0.1");
  EXPECT_EQ(exchange->request().headers.at("x-some"), "Thing, else");
  EXPECT_EQ(exchange->request().body, "{}");
}

TEST_F(HttpServerTest, AnswersMayCarryHeadersAndAnyStatus) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->answer(503, "application/json", "{}", {{"Retry-After", "7"}});
  const HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 503);
  EXPECT_EQ(answer.headers.at("retry-after"), "7");
  EXPECT_EQ(answer.headers.at("content-length"), "2");
}

TEST_F(HttpServerTest, OnlyTheFirstAnswerCounts) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->answer(200, "text/plain", "first");
  exchange->answer(500, "text/plain", "second");
  EXPECT_EQ(caller.read().body, "first");
}

TEST_F(HttpServerTest, HeadIsGetWithoutTheBody) {
  start();
  HttpClient caller = client();
  caller.ask("HEAD", "/health");
  const HttpAnswer answer = caller.read(true);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.headers.at("content-length"), "15");
  ASSERT_TRUE(comesTrue([&] { return log().size() == 1; }));
  EXPECT_TRUE(log()[0].ends_with(" ms 0 bytes")) << log()[0];
  caller.ask("GET", "/health");
  EXPECT_EQ(caller.read().body, "{\"status\":\"ok\"}");
}

TEST_F(HttpServerTest, StreamsComeAsTheyAreWritten) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/event-stream", {{"Cache-Control", "no-store"}});
  ASSERT_TRUE(caller.readUntil("\r\n\r\n"));  // its head, before there is a body
  for (const std::string piece : {"data: 1\n\n", "data: 2\n\n", "data: 3\n\n"}) {
    exchange->write(piece);
    ASSERT_TRUE(caller.readUntil(piece));
  }
  EXPECT_FALSE(isGone(*exchange));
  exchange->end();
  EXPECT_TRUE(caller.readUntil("\r\n0\r\n\r\n"));
  caller.take();
  caller.ask("POST", "/echo", "", "next");
  EXPECT_EQ(caller.read().body, "next");
}

TEST_F(HttpServerTest, StreamsEndWithTheConnectionForOldCallers) {
  start();
  HttpClient caller = client();
  caller.send("GET /wait HTTP/1.0\r\n\r\n");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/plain");
  exchange->write("all");
  exchange->end();
  EXPECT_TRUE(caller.isClosed());
  const std::string text = caller.take();
  EXPECT_EQ(text.substr(text.find("\r\n\r\n") + 4), "all");
}

TEST_F(HttpServerTest, PiecesWrittenTogetherComeInTheirOrder) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/plain");
  std::string all;
  for (int i = 0; i < 20000; ++i) {
    const std::string piece = std::to_string(i) + ",";
    exchange->write(piece);
    all += piece;
  }
  exchange->end();
  const HttpAnswer answer = caller.read();
  EXPECT_TRUE(answer.isWhole);
  EXPECT_TRUE(answer.body == all);
}

TEST_F(HttpServerTest, CallerThatLeavesWhileItWaitsIsGone) {
  start();
  for (const bool isReset : {false, true}) {
    HttpClient caller = client();
    caller.ask("POST", "/wait", "", "x");
    const auto exchange = inbox.take();
    ASSERT_NE(exchange, nullptr);
    EXPECT_FALSE(isGone(*exchange));
    isReset ? caller.reset() : caller.close();
    EXPECT_TRUE(comesTrue([&] { return isGone(*exchange); }));
    exchange->answer(200, "text/plain", "for nobody");
    EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
  }
}

// A program that is killed closes its side in the same way: one that only reads on cannot be told
// from it, and its reply would be written for nobody.
TEST_F(HttpServerTest, CallerThatEndsItsSendingIsGone) {
  start();
  HttpClient caller = client();
  caller.ask("POST", "/wait", "", "x");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  EXPECT_FALSE(isGone(*exchange));
  caller.endSending();
  EXPECT_TRUE(comesTrue([&] { return isGone(*exchange); }));
  EXPECT_TRUE(caller.isClosed());
  EXPECT_EQ(caller.take(), "");
}

TEST_F(HttpServerTest, CallerThatLeavesAnIdleStreamIsGone) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/event-stream");
  exchange->write("data: 1\n\n");
  ASSERT_TRUE(caller.readUntil("data: 1\n\n"));
  EXPECT_FALSE(isGone(*exchange));
  caller.close();
  EXPECT_TRUE(comesTrue([&] { return isGone(*exchange); }));
  EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
  exchange->write("data: 2\n\n");
  exchange->end();
}

TEST_F(HttpServerTest, CallerThatLeavesIsGoneInALaterRequestOfItsConnection) {
  start();
  HttpClient caller = client();
  for (int i = 0; i < 3; ++i) {
    caller.ask("POST", "/wait", "", "x");
    inbox.take()->answer(200, "text/plain", "y");
    EXPECT_EQ(caller.read().body, "y");
  }
  caller.ask("POST", "/wait", "", "x");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  caller.close();
  EXPECT_TRUE(comesTrue([&] { return isGone(*exchange); }));
}

TEST_F(HttpServerTest, CallerThatLeavesWithARequestOutstandingIsGone) {
  start();
  HttpClient caller = client();
  caller.ask("POST", "/wait", "", "first");
  caller.ask("POST", "/wait", "", "second");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  caller.close();
  EXPECT_TRUE(comesTrue([&] { return isGone(*exchange); }));
}

TEST_F(HttpServerTest, CallersThatLeaveInTheMiddleOfTheirRequestsHoldNoConnections) {
  start();
  for (int i = 0; i < 300; ++i) {
    const HttpClient caller = client();
    caller.send(i % 2 == 0
                    ? "POST /echo HTTP/1.1\r\nHost: local"
                    : "POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 9\r\n\r\nab");
  }
  EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; })) << server.connectionCount();
}

TEST_F(HttpServerTest, ExchangeWithoutAnAnswerIsCutOff) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait");
  inbox.take().reset();
  EXPECT_TRUE(caller.isClosed());
  EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
  EXPECT_EQ(caller.take(), "");
}

TEST_F(HttpServerTest, StreamWithoutAnEndIsCutOff) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait");
  auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/plain");
  exchange->write("half");
  exchange.reset();
  const HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "half");
  EXPECT_FALSE(answer.isWhole);
  EXPECT_TRUE(caller.isClosed());
  // Not only shut down: its caller may stay for as long as it likes.
  EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
}

TEST_F(HttpServerTest, HandlerThatTakesItsTimeHoldsUpNoStreamAndNoHealthCheck) {
  std::promise<void> end;
  service.routes.add("POST", "/long", [&](const std::shared_ptr<HttpExchange>& exchange) {
    end.get_future().wait();
    exchange->answer(200, "text/plain", "done");
  });
  start();
  HttpClient reader = client();
  reader.ask("GET", "/wait");
  const auto stream = inbox.take();
  ASSERT_NE(stream, nullptr);
  stream->begin(200, "text/plain");
  HttpClient slow = client();
  slow.ask("POST", "/long", "", "a");
  HttpClient other = client();
  other.ask("GET", "/health");
  EXPECT_EQ(other.read().status, 200);
  stream->write("piece");
  EXPECT_TRUE(reader.readUntil("piece"));
  end.set_value();
  EXPECT_EQ(slow.read().body, "done");
}

TEST_F(HttpServerTest, FailureOfAHandlerIsAnAnswer) {
  service.routes.add("GET", "/throws", [](const std::shared_ptr<HttpExchange>&) {
    throw std::runtime_error("numbers went wrong");
  });
  start();
  HttpClient caller = client();
  caller.ask("GET", "/throws");
  const HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 500);
  EXPECT_EQ(parseJson(answer.body)["error"]["type"], "server_error");
  caller.ask("GET", "/health");
  EXPECT_EQ(caller.read().status, 200);
}

TEST_F(HttpServerTest, UnknownPathsAndMethodsAreToldOf) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/nowhere%ff");
  HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 404);
  EXPECT_EQ(answer.headers.at("content-type"), "application/json");
  const auto error = parseJson(answer.body);
  EXPECT_EQ(error["error"]["message"], "there is nothing at /nowhere\xef\xbf\xbd");
  EXPECT_EQ(error["error"]["code"], "not_found");
  EXPECT_TRUE(error["error"]["param"].is_null());
  EXPECT_FALSE(error.contains("type"));

  caller.ask("DELETE", "/wait");
  answer = caller.read();
  EXPECT_EQ(answer.status, 405);
  EXPECT_EQ(answer.headers.at("allow"), "GET, HEAD, POST, OPTIONS");
}

TEST_F(HttpServerTest, RefusalsAreInTheFormOfTheInterfaceThatWasAsked) {
  service.routes.add("POST", "/v1/messages", [](const std::shared_ptr<HttpExchange>&) {
    throw std::runtime_error("numbers went wrong");
  });
  start();
  HttpClient caller = client();
  caller.ask("POST", "/v1/messages/nothing", "", "{}");
  EXPECT_EQ(caller.read().body, R"({"type":"error","error":{"type":"not_found_error",)"
                                R"("message":"there is nothing at /v1/messages/nothing"}})");
  caller.ask("GET", "/v1/messages");
  EXPECT_EQ(caller.read().body, R"({"type":"error","error":{"type":"invalid_request_error",)"
                                R"("message":"/v1/messages takes POST, OPTIONS"}})");
  caller.ask("POST", "/v1/messages", "", "{}");
  EXPECT_EQ(caller.read().body, R"({"type":"error","error":{"type":"api_error",)"
                                R"("message":"the server failed at this request"}})");
}

TEST_F(HttpServerTest, MalformedRequestsAreRefused) {
  start();
  const std::string host = "Host: localhost\r\n";
  const std::pair<std::string, int> cases[] = {
      {"GET /wait%00 HTTP/1.1\r\n" + host + "\r\n", 400},
      {"GET /wait%4 HTTP/1.1\r\n" + host + "\r\n", 400},
      {"GET /%zz HTTP/1.1\r\n" + host + "\r\n", 400},
      {"GET /health HTTP/1.1 HTTP/1.1\r\n" + host + "\r\n", 400},
      {"GET /health\x0bHTTP/1.1 HTTP/1.1\r\n" + host + "\r\n", 400},
      {"GET /health HTTP/1.1\r\n\r\n", 400},
      {"GET /health HTTP/1.1\r\n" + host + host + "\r\n", 400},
      {"POST /echo HTTP/1.1\r\n" + host +
           "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
       400},
      {"POST /echo HTTP/1.1\r\n" + host + "Content-Length: 1\r\nContent-Length: 5\r\n\r\n12345",
       400},
      {"POST /echo HTTP/1.1\r\n" + host + "Transfer-Encoding: gzip\r\n\r\n", 400},
      {"POST /echo HTTP/1.1\r\n" + host + "Content-Length: many\r\n\r\n", 400},
  };
  for (const auto& [text, status] : cases) {
    HttpClient caller = client();
    caller.send(text);
    EXPECT_EQ(caller.read().status, status) << text;
  }
  for (const std::string& text :
       {std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n", 15),
        std::string("GET\r\n\r\n"),
        "POST /echo HTTP/1.1\r\n" + host + "Transfer-Encoding: chunked\r\n\r\nzz\r\n\r\n"}) {
    HttpClient caller = client();
    caller.send(text);
    EXPECT_TRUE(caller.isClosed()) << text;
  }
  HttpClient caller = client();
  caller.ask("GET", "/health");
  EXPECT_EQ(caller.read().status, 200);
}

TEST_F(HttpServerTest, RequestWithoutAHostIsAnsweredOnce) {
  start();
  HttpClient caller = client();
  caller.send("GET /health HTTP/1.1\r\n\r\n");
  const HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 400);
  EXPECT_EQ(parseJson(answer.body)["error"]["code"], "invalid_host");
  caller.ask("GET", "/health");
  EXPECT_EQ(caller.read().status, 200);
}

TEST_F(HttpServerTest, HandlersHearOfWholeRequestsOnly) {
  start();
  for (const char* part :
       {"POST /wait HTTP/1.1\r\nHost: localhost\r\nContent-Length: 9\r\n\r\nabcdefgh",
        "POST /wait HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n"
        "5\r\nhello\r\n"}) {
    HttpClient caller = client();
    caller.send(part);
    caller.close();
  }
  EXPECT_TRUE(comesTrue([&] { return log().size() == 2; }));
  client().ask("POST", "/wait", "", "whole");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  EXPECT_EQ(exchange->request().body, "whole");
}

TEST_F(HttpServerTest, NothingIsReadBehindARequestWhoseEndIsInDoubt) {
  start();
  const std::string hidden = "GET /health HTTP/1.1\r\nHost: localhost\r\n\r\n";
  const std::string length = "Content-Length: " + std::to_string(hidden.size());
  // Also where the request is refused for something else.
  for (const std::string path : {"/echo", "/nowhere", "/%zz"}) {
    const std::string begin = "POST " + path + " HTTP/1.1\r\nHost: localhost\r\n";
    const std::string begin10 = "POST " + path + " HTTP/1.0\r\nHost: localhost\r\n";
    const std::string chunked = "Transfer-Encoding: chunked";
    for (const auto& [head, code] : std::initializer_list<std::pair<std::string, std::string>>{
             {begin + "Content-Length : 5\r\n\r\n", "invalid_header"},
             {begin + "Content-Length\t: 5\r\n\r\n", "invalid_header"},
             {begin + "Transfer-Encoding : chunked\r\n\r\n", "invalid_header"},
             {begin + "X: y\r" + chunked + "\r\nContent-Length: 0\r\n\r\n", "invalid_header"},
             {begin + "Content-Length: 0\r\n" + length + "\r\n\r\n", "invalid_length"},
             {begin + "Content-Length: 0\r\n" + chunked + "\r\n\r\n0\r\n\r\n", "invalid_length"},
             {begin + chunked + "\r\n" + chunked + "\r\n\r\n0\r\n\r\n", "invalid_length"},
             {begin + "Transfer-Encoding: identity\r\n\r\n", "invalid_length"},
             {begin + "Transfer-Encoding: \x0b" + "chunked\r\n\r\n", "invalid_header"},
             {begin10 + "Connection: keep-alive\r\n" + chunked + "\r\n\r\n0\r\n\r\n",
              "invalid_length"}}) {
      SCOPED_TRACE(head);
      HttpClient caller = client();
      caller.send(head + hidden);
      const HttpAnswer answer = caller.read();
      EXPECT_EQ(answer.status, 400);
      EXPECT_EQ(parseJson(answer.body)["error"]["code"], code);
      EXPECT_EQ(answer.headers.at("connection"), "close");
      EXPECT_TRUE(caller.isClosed());
      EXPECT_EQ(caller.take(), "");
    }
  }
}

TEST_F(HttpServerTest, ALineIsLoggedForEveryRequestAndNothingOfWhatItSays) {
  start();
  HttpClient caller = client();
  caller.ask("POST", "/echo?key=hidden", "", "private words");
  caller.read();
  caller.ask("GET", "/no%0awhere", "Authorization: Bearer hidden\r\n");
  caller.read();
  ASSERT_TRUE(comesTrue([&] { return log().size() == 2; }));
  EXPECT_TRUE(log()[0].starts_with("127.0.0.1 POST /echo 200 ")) << log()[0];
  EXPECT_TRUE(log()[0].ends_with(" ms 13 bytes")) << log()[0];
  EXPECT_TRUE(log()[1].starts_with("127.0.0.1 GET /no?where 404 ")) << log()[1];
}

TEST_F(HttpServerTest, LinesOfTheLogControlNoTerminal) {
  service.routes.add("GET", "/throws", [](const std::shared_ptr<HttpExchange>&) {
    throw std::runtime_error("no \x1b[2J number");
  });
  options.logsBodies = true;
  start();
  HttpClient caller = client();
  caller.ask("GET", "/a%9b2J%c2%9bb%e2%80%a8c%e2%80%aed%1b");
  caller.read();
  caller.ask("G\x1b[2JT", "/a");
  caller.read();
  caller.ask("POST", "/echo", "", "a\xc2\x9b\xe2\x80\xae");
  caller.read();
  caller.ask("GET", "/throws");
  caller.read();
  ASSERT_TRUE(comesTrue([&] { return log().size() == 7; }));
  EXPECT_TRUE(log()[0].starts_with("127.0.0.1 GET /a?2J?b?c?d? 404 ")) << log()[0];
  EXPECT_TRUE(log()[1].starts_with("127.0.0.1 G?[2JT /a 404 ")) << log()[1];
  EXPECT_EQ(log()[2], "POST /echo a??");
  EXPECT_EQ(log()[4], "GET /throws ");
  EXPECT_EQ(log()[5], "http: no ?[2J number");
}

TEST_F(HttpServerTest, BodiesAreLoggedWhereThatIsAskedFor) {
  options.logsBodies = true;
  start();
  HttpClient caller = client();
  caller.ask("POST", "/echo", "", "private\nwords");
  caller.read();
  ASSERT_TRUE(comesTrue([&] { return log().size() == 2; }));
  EXPECT_EQ(log()[0], "POST /echo private?words");
}

TEST_F(HttpServerTest, CallersThatWentAwayAreLogged) {
  start();
  HttpClient caller = client();
  caller.ask("GET", "/wait");
  const auto exchange = inbox.take();
  caller.close();
  ASSERT_TRUE(comesTrue([&] { return log().size() == 1; }));
  EXPECT_TRUE(log()[0].starts_with("127.0.0.1 GET /wait - ")) << log()[0];
  EXPECT_TRUE(log()[0].ends_with("(cut off)")) << log()[0];
}

TEST_F(HttpServerTest, StopLetsRequestsEndAndTakesNoOthers) {
  start();
  HttpClient atWork = client();
  atWork.ask("GET", "/wait");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  HttpClient idle = client();
  idle.ask("GET", "/health");
  EXPECT_EQ(idle.read().status, 200);

  std::thread stopping([&] { server.stop(std::chrono::minutes(5)); });
  EXPECT_TRUE(comesTrue([&] { return !client().isConnected; }));
  idle.ask("GET", "/health");
  const HttpAnswer refused = idle.read();
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.headers.at("retry-after"), "10");
  EXPECT_TRUE(idle.isClosed());
  EXPECT_FALSE(isGone(*exchange));
  exchange->answer(200, "text/plain", "last");
  const HttpAnswer answer = atWork.read();
  EXPECT_EQ(answer.body, "last");
  EXPECT_EQ(answer.headers.at("connection"), "close");
  stopping.join();
}

TEST_F(HttpServerTest, StopCutsRequestsOffAfterItsGrace) {
  start();
  HttpClient waiting = client();
  waiting.ask("GET", "/wait");
  const auto unanswered = inbox.take();
  ASSERT_NE(unanswered, nullptr);
  HttpClient reading = client();
  reading.ask("GET", "/wait");
  const auto stream = inbox.take();
  ASSERT_NE(stream, nullptr);
  stream->begin(200, "text/plain");
  stream->write("some");
  ASSERT_TRUE(reading.readUntil("some"));

  server.stop(std::chrono::milliseconds(1));
  EXPECT_TRUE(isGone(*unanswered));
  EXPECT_TRUE(isGone(*stream));
  EXPECT_TRUE(waiting.isClosed());
  EXPECT_TRUE(reading.isClosed());
  // Exchanges outlive the server.
  unanswered->answer(200, "text/plain", "late");
  stream->write("late");
  stream->end();
}

TEST_F(HttpServerTest, ConcurrentStreamsKeepApart) {
  start();
  constexpr int kCallers = 24;
  std::vector<HttpClient> callers;
  std::vector<std::shared_ptr<HttpExchange>> exchanges;
  for (int i = 0; i < kCallers; ++i) {
    callers.push_back(client());
    callers.back().ask("POST", "/wait", "", std::to_string(i));
    exchanges.push_back(inbox.take());
    ASSERT_NE(exchanges.back(), nullptr);
  }
  const auto writeHalf = [&](int first) {
    for (int i = first; i < kCallers; i += 2) {
      exchanges[i]->begin(200, "text/plain");
    }
    for (int round = 0; round < 200; ++round) {
      for (int i = first; i < kCallers; i += 2) {
        exchanges[i]->write(exchanges[i]->request().body + ";");
      }
    }
    for (int i = first; i < kCallers; i += 2) {
      exchanges[i]->end();
    }
  };
  std::thread even([&] { writeHalf(0); });
  std::thread odd([&] { writeHalf(1); });
  for (int i = 0; i < kCallers; ++i) {
    std::string expected;
    for (int round = 0; round < 200; ++round) {
      expected += std::to_string(i) + ";";
    }
    const HttpAnswer answer = callers[i].read();
    EXPECT_TRUE(answer.isWhole);
    EXPECT_EQ(answer.body, expected);
  }
  even.join();
  odd.join();
}

TEST_F(HttpServerTest, AddressInUseIsToldOf) {
  start();
  HttpServer second;
  HttpServerOptions same;
  same.port = server.port();
  const kel::Status status = second.start(same, {});
  EXPECT_EQ(status.message, "http: cannot listen at 127.0.0.1 port " +
                                std::to_string(server.port()) + ": Address already in use");
}

TEST_F(HttpServerTest, UnknownAddressIsToldOf) {
  options.address = "256.0.0.1";
  const kel::Status status = server.start(options, service);
  EXPECT_TRUE(status.message.starts_with("http: no address 256.0.0.1: ")) << status.message;
}

TEST_F(HttpServerTest, UrlIsWhereTheServerIsReached) {
  start();
  EXPECT_EQ(server.url(), "http://127.0.0.1:" + std::to_string(server.port()));
  HttpServer everywhere;
  HttpServerOptions all;
  all.address = "0.0.0.0";
  ASSERT_TRUE(everywhere.start(all, {}).ok());
  EXPECT_EQ(everywhere.url(), "http://localhost:" + std::to_string(everywhere.port()));
}

}  // namespace
}  // namespace zym
