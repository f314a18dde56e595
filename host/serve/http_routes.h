// Which handler answers which request.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "host/serve/http_exchange.h"

namespace zym {

enum class RouteAccess : uint8_t {
  Keyed,  // callers show a key, where the server has keys
  Open,   // for everybody: what browsers and health checks ask without headers of their own
};

class HttpRoutes {
 public:
  // A GET route answers HEAD, too.
  void add(const std::string& method, const std::string& path, HttpHandler handler,
           RouteAccess access = RouteAccess::Keyed);

  struct Match {
    const HttpHandler* handler = nullptr;  // null: none for this path, or none for this method
    RouteAccess access = RouteAccess::Keyed;
    std::string allowed;  // methods of the path, as in an Allow header; empty: no such path
  };
  Match find(std::string_view method, const std::string& path) const;

 private:
  struct Route {
    HttpHandler handler;
    RouteAccess access = RouteAccess::Keyed;
  };
  std::map<std::string, std::map<std::string, Route, std::less<>>> paths;  // then by method
};

}  // namespace zym
