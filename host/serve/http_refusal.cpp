#include "host/serve/http_refusal.h"

#include <nlohmann/json.hpp>

namespace zym {
namespace {

const char* errorType(int status) {
  switch (status) {
    case 401:
      return "authentication_error";
    case 403:
      return "permission_error";
    case 404:
      return "not_found_error";
    case 500:
      return "server_error";
    case 503:
      return "overloaded_error";
    default:
      return "invalid_request_error";
  }
}

}  // namespace

std::string refusalBody(const HttpRefusal& refusal, std::string_view path) {
  nlohmann::ordered_json body;
  if (path.starts_with("/v1/messages")) {
    body["type"] = "error";
  }
  body["error"] = {{"message", refusal.message},
                   {"type", errorType(refusal.status)},
                   {"param", nullptr},
                   {"code", refusal.code}};
  return body.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace zym
