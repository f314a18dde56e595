// A request while it is read: whether it is one for a handler, and its body.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "host/serve/http_exchange.h"
#include "host/serve/http_limits.h"
#include "host/serve/http_policy.h"
#include "host/serve/http_refusal.h"
#include "host/serve/http_routes.h"

namespace zym {

// Bytes that the bodies of all requests have together.
class HttpBodyRoom {
 public:
  explicit HttpBodyRoom(size_t most) : mostBytes(most) {}
  bool take(size_t bytes);
  void giveBack(size_t bytes) { used -= bytes; }

 private:
  size_t mostBytes;
  std::atomic<size_t> used = 0;
};

// The part of one body in it.
class HttpBodyShare {
 public:
  explicit HttpBodyShare(std::shared_ptr<HttpBodyRoom> whole) : room(std::move(whole)) {}
  ~HttpBodyShare() { giveBack(); }
  HttpBodyShare(const HttpBodyShare&) = delete;
  HttpBodyShare& operator=(const HttpBodyShare&) = delete;
  bool take(size_t more);
  void giveBack();

 private:
  std::shared_ptr<HttpBodyRoom> room;
  size_t bytes = 0;
};

// How a request begins, as it stands in the connection.
struct HttpHead {
  std::string method;
  std::string rawPath;
  std::string version;
  HttpHeaders headers;
  std::string address;  // of the caller
  std::string reached;  // of this end of the connection
};

struct HttpService {
  HttpRoutes routes;
  HttpPolicy policy;
  HttpLimits limits;
};

class HttpReading {
 public:
  HttpReading(const HttpService& served, HttpHead head, std::shared_ptr<HttpBodyRoom> room);

  // Some more of the body. False: the caller sends without end, and is cut off.
  bool take(std::string_view piece);
  // Whether the refusal is sent before the body has been read. Otherwise the body is read and
  // dropped: the answer would be lost on a caller that is still sending when the connection ends.
  bool refusesAtOnce() const;

  const HttpRefusal& refusal() const { return refused; }
  void refuse(HttpRefusal reason);
  const HttpHandler* handler() const { return match.handler; }
  // Headers that every answer to this request carries.
  const HttpHeaders& answerHeaders() const { return shared; }
  const HttpRequest& request() const { return asked; }
  // Both are left without them.
  HttpRequest takeRequest() { return std::move(asked); }
  std::shared_ptr<HttpBodyShare> takeShare() { return std::move(share); }

 private:
  void judge(const HttpHead& head);
  HttpRefusal faultOf(const HttpHead& head);
  HttpRefusal faultOfFraming(const HttpHead& head) const;
  HttpRefusal faultOfCaller(const HttpHead& head) const;
  HttpRefusal faultOfTarget() const;
  HttpRefusal faultOfLength() const;
  void collect(const HttpHead& head);
  std::string_view header(const std::string& name) const;
  size_t mostDropped() const { return 4 * service.limits.bodyBytes; }

  const HttpService& service;
  HttpRequest asked;
  HttpRoutes::Match match;
  HttpRefusal refused;
  HttpHeaders shared;
  std::shared_ptr<HttpBodyShare> share;
  size_t repeatedLengths = 0;
  size_t repeatedHosts = 0;
  size_t dropped = 0;
};

}  // namespace zym
