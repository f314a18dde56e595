// POST /v1/responses.
#pragma once

#include <memory>
#include <string_view>

#include "host/serve/api_output.h"
#include "host/serve/generation.h"
#include "host/serve/http_exchange.h"
#include "host/serve/json_fields.h"
#include "host/serve/served_model.h"

namespace zym {

struct ResponseRequest {
  GenerationRequest request;
  bool streams = false;
  std::shared_ptr<const Json> settings;  // as the response repeats them
};

ApiError readResponseRequest(std::string_view body, const ServedModel& served,
                             ResponseRequest& out);

void answerResponse(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange);

}  // namespace zym
