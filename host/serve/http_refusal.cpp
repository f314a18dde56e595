#include "host/serve/http_refusal.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "host/serve/api_error.h"

namespace zym {
namespace {

// In the order of RefusalReason.
constexpr std::array<std::string_view, kRefusalReasons> kCodes = {
    "invalid_header",    "invalid_path",      "invalid_host",    "invalid_origin",
    "invalid_length",    "invalid_api_key",   "not_found",       "method_not_allowed",
    "request_too_large", "headers_too_large", "request_timeout", "overloaded",
    "shutting_down",     "internal_error",    "malformed",       "address_too_busy"};

}  // namespace

std::string_view codeOf(RefusalReason reason) {
  return kCodes[static_cast<size_t>(reason)];
}

std::string refusalBody(const HttpRefusal& refusal, std::string_view path) {
  return jsonText(errorBody(
      errorFormOf(path),
      {refusal.status, refusal.message, {}, std::string(codeOf(refusal.reason.value()))}));
}

RefusalNumbers RefusalCounts::numbers() const {
  RefusalNumbers numbers{};
  std::copy(counts.begin(), counts.end(), numbers.begin());
  return numbers;
}

}  // namespace zym
