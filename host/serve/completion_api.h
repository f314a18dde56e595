// POST /v1/completions: a text that the model goes on with.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "host/serve/generation.h"
#include "host/serve/http_exchange.h"
#include "host/serve/json_fields.h"
#include "host/serve/served_model.h"

namespace zym {

struct TextCompletion {
  GenerationRequest request;
  std::string echo;  // stands before every text
  bool streams = false;
  bool showsUsage = false;
};

ApiError readTextCompletion(std::string_view body, const ServedModel& served, TextCompletion& out);

void answerTextCompletion(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange);

// The tokens of a text of those who write the framing themselves: control tokens that are written
// out take effect, and what the model begins every text with stands in front.
void encodePrompt(const ServedModel& served, std::string_view text, std::vector<int32_t>& out);

// Array of ids of the vocabulary.
void readTokenIds(Fields& fields, std::string_view key, std::string_view array,
                  const ServedModel& served, std::vector<int32_t>& out);

// What the tokens say, control tokens written out.
std::string decodeTokens(const ServedModel& served, const std::vector<int32_t>& ids);

}  // namespace zym
