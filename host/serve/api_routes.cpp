#include "host/serve/api_routes.h"

#include <memory>
#include <string>
#include <utility>

#include "host/serve/chat_api.h"
#include "host/serve/completion_api.h"
#include "host/serve/messages_api.h"
#include "host/serve/model_list_api.h"
#include "host/serve/responses_api.h"
#include "host/serve/served_model.h"

namespace zym {

void addApi(ApiServices services, HttpRoutes& routes) {
  const SharedModel served = std::make_shared<ServedModel>(std::move(services));
  const auto add = [&](const char* method, const std::string& path, auto answer) {
    routes.add(method, path, [served, answer](const std::shared_ptr<HttpExchange>& exchange) {
      answer(served, exchange);
    });
  };
  add("GET", "/v1/models", answerModelList);
  for (const std::string& name : served->services.names) {
    routes.add("GET", "/v1/models/" + name,
               [served, name](const std::shared_ptr<HttpExchange>& exchange) {
                 answerModel(*served, name, *exchange);
               });
  }
  add("POST", "/v1/chat/completions", answerChatCompletion);
  add("POST", "/v1/completions", answerTextCompletion);
  add("POST", "/v1/responses", answerResponse);
  add("POST", "/v1/messages", answerMessage);
  add("POST", "/v1/messages/count_tokens", answerTokenCount);
  add("POST", "/tokenize", answerTokenize);
  add("POST", "/detokenize", answerDetokenize);
}

}  // namespace zym
