// POST /v1/chat/completions.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "host/serve/generation.h"
#include "host/serve/http_exchange.h"
#include "host/serve/json_fields.h"
#include "host/serve/served_model.h"

namespace zym {

struct ChatCompletion {
  GenerationRequest request;
  bool streams = false;
  bool showsUsage = false;  // at the end of a stream
};

// From the body of a request.
ApiError readChatCompletion(std::string_view body, const ServedModel& served, ChatCompletion& out);

void answerChatCompletion(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange);

}  // namespace zym
