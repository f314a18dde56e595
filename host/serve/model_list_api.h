// GET /v1/models and /v1/models/NAME, POST /tokenize and /detokenize: what is answered without the
// model running.
#pragma once

#include <memory>
#include <string_view>

#include "host/serve/http_exchange.h"
#include "host/serve/served_model.h"

namespace zym {

void answerModelList(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange);

// name: one of the model's.
void answerModel(const ServedModel& served, std::string_view name, HttpExchange& exchange);

void answerTokenize(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange);
void answerDetokenize(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange);

}  // namespace zym
