// A request and what answers it: the seam between the transport (host/serve/http_server.h) and
// what is served.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zym {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method;
  std::string path;                            // decoded, without the query
  std::string address;                         // of the caller, without the port
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
};

// Is answered once: by answer(), or by begin(), any number of write() and end(). Any thread, one at
// a time. Where the caller has gone away, what is written goes nowhere. An exchange that is let go
// of without an answer, or before its end(), is cut off.
class HttpExchange {
 public:
  virtual ~HttpExchange() = default;

  virtual const HttpRequest& request() const = 0;

  virtual void answer(int status, std::string_view contentType, std::string body,
                      const HttpHeaders& headers = {}) = 0;

  // A body that is sent as it comes.
  virtual void begin(int status, std::string_view contentType, const HttpHeaders& headers = {}) = 0;
  virtual void write(std::string_view piece) = 0;
  virtual void end() = 0;

  // Not 0 once the caller has gone away, or reads so slowly that it is given up; as long as the
  // exchange lives. As engine::ReplySinks::cancel.
  virtual const volatile int* gone() const = 0;
};

// Called by a thread of the transport: for GET and HEAD by the one that polls all connections,
// which must not be kept waiting; for other methods by one that does nothing else, request after
// request.
using HttpHandler = std::function<void(std::shared_ptr<HttpExchange>)>;

}  // namespace zym
