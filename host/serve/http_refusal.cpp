#include "host/serve/http_refusal.h"

#include <nlohmann/json.hpp>

#include "host/serve/api_error.h"

namespace zym {

std::string refusalBody(const HttpRefusal& refusal, std::string_view path) {
  return jsonText(
      errorBody(errorFormOf(path), {refusal.status, refusal.message, {}, refusal.code}));
}

}  // namespace zym
