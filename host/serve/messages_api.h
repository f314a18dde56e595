// POST /v1/messages and /v1/messages/count_tokens.
#pragma once

#include <memory>
#include <string_view>

#include "host/serve/generation.h"
#include "host/serve/http_exchange.h"
#include "host/serve/json_fields.h"
#include "host/serve/served_model.h"

namespace zym {

struct MessageRequest {
  GenerationRequest request;
  bool streams = false;
};

// What a body is for: to be counted it needs no limit of tokens.
enum class MessagePurpose : uint8_t { Answer, Count };

ApiError readMessageRequest(std::string_view body, const ServedModel& served,
                            MessagePurpose purpose, MessageRequest& out);

void answerMessage(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange);
void answerTokenCount(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange);

}  // namespace zym
