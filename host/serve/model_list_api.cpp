#include "host/serve/model_list_api.h"

#include <fmt/chrono.h>
#include <fmt/core.h>

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "engine/text_encoder.h"
#include "host/serve/api_output.h"
#include "host/serve/completion_api.h"
#include "host/serve/request_fields.h"

namespace zym {

namespace {

// What clients of either interface look for.
Json modelObject(const ServedModel& served, std::string_view name) {
  const auto created = static_cast<std::time_t>(served.services.created);
  return {{"id", name},
          {"object", "model"},
          {"created", served.services.created},
          {"owned_by", "zym"},
          {"type", "model"},
          {"display_name", name},
          {"created_at", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(created))},
          {"context_length", served.services.positions}};
}

}  // namespace

void answerModelList(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange) {
  const std::vector<std::string>& names = served->services.names;
  Json data = Json::array();
  Json models = Json::array();
  for (const std::string& name : names) {
    data.push_back(modelObject(*served, name));
    models.push_back({{"name", name}, {"model", name}});
  }
  answerJson(*exchange, {{"object", "list"},
                         {"data", std::move(data)},
                         {"models", std::move(models)},
                         {"has_more", false},
                         {"first_id", names.front()},
                         {"last_id", names.back()}});
}

void answerModel(const ServedModel& served, std::string_view name, HttpExchange& exchange) {
  answerJson(exchange, modelObject(served, name));
}

void answerTokenize(const SharedModel& sharedModel, const std::shared_ptr<HttpExchange>& exchange) {
  const ServedModel& served = *sharedModel;
  ApiError error;
  std::vector<int32_t> ids;
  const std::string& text = exchange->request().body;
  if (isJsonObject(text, served.services.limits.depth, error)) {
    Fields body(text, "", error);
    readModelName(body, served);
    body.require("text");
    const std::string input = body.string("text").value_or("");
    const bool readsMarks = body.boolean("special").value_or(false);
    body.finish();
    if (!error && readsMarks) {
      encodePrompt(served, input, ids);
    } else if (!error) {
      served.model().textEncoder().encode(input, ids);
    }
  }
  if (error) {
    answerError(*exchange, ErrorForm::Completions, error);
    return;
  }
  answerJson(*exchange, {{"tokens", ids}, {"count", ids.size()}});
}

void answerDetokenize(const SharedModel& sharedModel,
                      const std::shared_ptr<HttpExchange>& exchange) {
  const ServedModel& served = *sharedModel;
  ApiError error;
  std::vector<int32_t> ids;
  const std::string& text = exchange->request().body;
  if (isJsonObject(text, served.services.limits.depth, error)) {
    Fields body(text, "", error);
    readModelName(body, served);
    body.require("tokens");
    const auto tokens = body.value("tokens");
    if (tokens && kindOf(*tokens) == engine::JsonKind::Array) {
      readTokenIds(body, "tokens", *tokens, served, ids);
    } else {
      body.fail("tokens", "must be an array of token ids");
    }
    body.finish();
  }
  if (error) {
    answerError(*exchange, ErrorForm::Completions, error);
    return;
  }
  answerJson(*exchange, {{"text", decodeTokens(served, ids)}});
}

}  // namespace zym
