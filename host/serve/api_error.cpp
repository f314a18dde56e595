#include "host/serve/api_error.h"

#include <nlohmann/json.hpp>

namespace zym {
namespace {

// The clients of the completions make their kinds of errors from the status, and know these two
// types; those of messages have a type for each.
std::string_view typeOf(ErrorForm form, int status) {
  constexpr std::string_view kInvalid = "invalid_request_error";
  if (form == ErrorForm::Completions) {
    return status >= 500 ? "server_error" : kInvalid;
  }
  switch (status) {
    case 401:
      return "authentication_error";
    case 403:
      return "permission_error";
    case 404:
      return "not_found_error";
    case 408:
      return "timeout_error";
    case 413:
      return "request_too_large";
    case 503:
      return "overloaded_error";
    default:
      return status >= 500 ? "api_error" : kInvalid;
  }
}

Json orNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

}  // namespace

ErrorForm errorFormOf(std::string_view path) {
  constexpr std::string_view kMessages = "/v1/messages";
  const bool isWithin = path.starts_with(kMessages) &&
                        (path.size() == kMessages.size() || path[kMessages.size()] == '/');
  return isWithin ? ErrorForm::Messages : ErrorForm::Completions;
}

Json errorBody(ErrorForm form, const ApiError& error) {
  const std::string_view type = typeOf(form, error.status);
  if (form == ErrorForm::Messages) {
    return {{"type", "error"}, {"error", {{"type", type}, {"message", error.message}}}};
  }
  return {{"error",
           {{"message", error.message},
            {"type", type},
            {"param", orNull(error.param)},
            {"code", orNull(error.code)}}}};
}

std::string jsonText(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace zym
