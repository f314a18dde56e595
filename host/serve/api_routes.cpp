#include "host/serve/api_routes.h"

#include <fmt/format.h>

#include <array>
#include <string_view>
#include <utility>

#include "host/serve/api_output.h"
#include "host/serve/chat_api.h"
#include "host/serve/completion_api.h"
#include "host/serve/messages_api.h"
#include "host/serve/model_list_api.h"
#include "host/serve/responses_api.h"

namespace zym {

namespace {

using Exchange = std::shared_ptr<HttpExchange>;

constexpr std::string_view kModels = "/v1/models";

struct Route {
  std::string_view path;
  std::string_view method;
  ErrorForm form;
  void (*answer)(const SharedModel& served, const Exchange& exchange);
};

constexpr std::array kRoutes = {
    Route{kModels, "GET", ErrorForm::Completions,
          [](const SharedModel& served, const Exchange& exchange) {
            answerModelList(*served, *exchange);
          }},
    Route{"/v1/chat/completions", "POST", ErrorForm::Completions, answerChatCompletion},
    Route{"/v1/completions", "POST", ErrorForm::Completions, answerTextCompletion},
    Route{"/v1/responses", "POST", ErrorForm::Completions, answerResponse},
    Route{"/v1/messages", "POST", ErrorForm::Messages, answerMessage},
    Route{"/v1/messages/count_tokens", "POST", ErrorForm::Messages, answerTokenCount},
    Route{"/tokenize", "POST", ErrorForm::Completions,
          [](const SharedModel& served, const Exchange& exchange) {
            answerTokenize(*served, *exchange);
          }},
    Route{"/detokenize", "POST", ErrorForm::Completions,
          [](const SharedModel& served, const Exchange& exchange) {
            answerDetokenize(*served, *exchange);
          }},
};

bool takesMethod(HttpExchange& exchange, std::string_view method, ErrorForm form) {
  if (exchange.request().method == method) {
    return true;
  }
  constexpr int kWrongMethod = 405;
  answerError(exchange, form,
              {kWrongMethod, fmt::format("{} takes {}", exchange.request().path, method), {}},
              {{"Allow", std::string(method)}});
  return false;
}

}  // namespace

Api::Api(ApiServices services) : served(std::make_shared<ServedModel>(std::move(services))) {}

bool Api::handle(const std::shared_ptr<HttpExchange>& exchange) const {
  const std::string_view path = exchange->request().path;
  for (const Route& route : kRoutes) {
    if (path == route.path) {
      if (takesMethod(*exchange, route.method, route.form)) {
        route.answer(served, exchange);
      }
      return true;
    }
  }
  if (path.starts_with(kModels) && path.substr(kModels.size()).starts_with('/')) {
    if (takesMethod(*exchange, "GET", ErrorForm::Completions)) {
      answerModel(*served, path.substr(kModels.size() + 1), *exchange);
    }
    return true;
  }
  return false;
}

}  // namespace zym
