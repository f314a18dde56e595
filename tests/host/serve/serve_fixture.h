// A server with a few routes, and the exchanges that it hands out.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/serve/http_server.h"
#include "tests/host/serve/http_client.h"

namespace zym::testing_support {

// Exchanges whose answers the test gives.
class Inbox {
 public:
  void put(std::shared_ptr<HttpExchange> exchange) {
    const std::scoped_lock lock(mutex);
    waiting.push_back(std::move(exchange));
    arrived.notify_all();
  }
  // The next one; null where none comes.
  std::shared_ptr<HttpExchange> take() {
    std::unique_lock lock(mutex);
    arrived.wait_for(lock, std::chrono::seconds(20), [&] { return !waiting.empty(); });
    if (waiting.empty()) {
      return nullptr;
    }
    auto exchange = std::move(waiting.front());
    waiting.pop_front();
    return exchange;
  }

 private:
  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<std::shared_ptr<HttpExchange>> waiting;
};

inline bool isGone(const HttpExchange& exchange) {
  return __atomic_load_n(exchange.gone(), __ATOMIC_RELAXED) != 0;
}

// Whether that comes to be so, within a time that is far too long for it.
template <typename Condition>
bool comesTrue(const Condition& condition) {
  for (int i = 0; i < 4000; ++i) {
    if (condition()) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

class ServeTest : public ::testing::Test {
 protected:
  ServeTest() {
    service.routes.add("POST", "/echo", [](const std::shared_ptr<HttpExchange>& exchange) {
      exchange->answer(200, "text/plain", exchange->request().body);
    });
    service.routes.add("POST", "/wait", [this](auto exchange) { inbox.put(std::move(exchange)); });
    service.routes.add("GET", "/wait", [this](auto exchange) { inbox.put(std::move(exchange)); });
    addHealth(service.routes);
    options.log = [this](std::string_view line) {
      const std::scoped_lock lock(logMutex);
      lines.emplace_back(line);
    };
  }
  ~ServeTest() override { server.stop(std::chrono::milliseconds(0)); }

  void start() {
    const kel::Status status = server.start(options, service);
    ASSERT_TRUE(status.ok()) << status.message;
  }
  HttpClient client() const { return HttpClient(server.port()); }
  std::vector<std::string> log() {
    const std::scoped_lock lock(logMutex);
    return lines;
  }

  HttpServerOptions options;
  HttpService service;
  Inbox inbox;
  HttpServer server;

 private:
  std::mutex logMutex;
  std::vector<std::string> lines;
};

}  // namespace zym::testing_support
