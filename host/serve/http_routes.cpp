#include "host/serve/http_routes.h"

#include <utility>

namespace zym {

void HttpRoutes::add(const std::string& method, const std::string& path, HttpHandler handler,
                     RouteAccess access) {
  paths[path].insert_or_assign(method, Route{std::move(handler), access});
}

HttpRoutes::Match HttpRoutes::find(std::string_view method, const std::string& path) const {
  Match match;
  const auto methods = paths.find(path);
  if (methods == paths.end()) {
    return match;
  }
  const auto route = methods->second.find(method == "HEAD" ? "GET" : method);
  if (route != methods->second.end()) {
    match.handler = &route->second.handler;
    match.access = route->second.access;
  }
  for (const auto& [name, unused] : methods->second) {
    match.allowed += (match.allowed.empty() ? "" : ", ") + name + (name == "GET" ? ", HEAD" : "");
  }
  match.allowed += ", OPTIONS";
  return match;
}

}  // namespace zym
