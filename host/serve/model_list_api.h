// GET /v1/models and /v1/models/NAME, POST /tokenize and /detokenize: what is answered without the
// model running.
#pragma once

#include <string_view>

#include "host/serve/http_exchange.h"
#include "host/serve/served_model.h"

namespace zym {

void answerModelList(const ServedModel& served, HttpExchange& exchange);
void answerModel(const ServedModel& served, std::string_view name, HttpExchange& exchange);

void answerTokenize(const ServedModel& served, HttpExchange& exchange);
void answerDetokenize(const ServedModel& served, HttpExchange& exchange);

}  // namespace zym
