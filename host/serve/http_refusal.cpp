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

AnswerNumbers AnswerCounts::numbers() const {
  AnswerNumbers numbers;
  for (size_t status = 0; status < counts.size(); ++status) {
    if (const uint64_t count = counts[status]; count > 0) {
      numbers.emplace(static_cast<int>(status), count);
    }
  }
  return numbers;
}

RefusalNumbers RefusalCounts::numbers() const {
  RefusalNumbers numbers{};
  std::copy(counts.begin(), counts.end(), numbers.begin());
  return numbers;
}

}  // namespace zym
