// The transport of `zym serve`: HTTP/1.1, in the clear or by TLS. One thread polls all connections,
// one watches them (http_watch.h), one calls the handlers of requests with a body, and a connection
// that awaits an answer costs no other.
//
// What is refused here is answered with an error object (http_refusal.h), but for what is no HTTP
// at all and heads above four times their limit: those the library answers, with a page of its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "container/status.h"
#include "host/serve/http_reading.h"
#include "host/serve/http_refusal.h"

namespace zym {

struct HttpServerOptions {
  std::string address = "127.0.0.1";
  uint16_t port = 0;     // 0: any that is free
  std::string certFile;  // PEM; empty: in the clear
  std::string keyFile;
  // A line for every request, without its line feed; null: none. Called by threads of the server.
  std::function<void(std::string_view)> log;
  bool logsBodies = false;  // what people have written, too
};

class HttpServer {
 public:
  HttpServer();
  ~HttpServer();  // as stop() without grace
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Listens, and answers from then on. Once.
  kel::Status start(HttpServerOptions options, HttpService service);
  uint16_t port() const;
  // "http://127.0.0.1:8080", with localhost for an address that stands for all.
  std::string url() const;

  size_t connectionCount() const;
  // Requests that no handler has answered, and connections that were closed unheard.
  RefusalNumbers refusals() const;
  // All answers that were begun, by their status.
  AnswerNumbers answers() const;

  // Listens no longer, refuses what still comes by open connections, and waits until the requests
  // at work have their answers; after grace the others are cut off. Exchanges may outlive it.
  void stop(std::chrono::milliseconds grace);

 private:
  class State;
  std::unique_ptr<State> state;
};

// GET /health: {"status":"ok"}, for everybody.
void addHealth(HttpRoutes& routes);

}  // namespace zym
