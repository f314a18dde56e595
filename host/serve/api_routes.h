// The interfaces of `zym serve`: which answers what.
//
//   const Api api(services);
//   HttpHandler handler = [&](std::shared_ptr<HttpExchange> exchange) {
//     if (!api.handle(exchange)) ...
//   };
#pragma once

#include <memory>

#include "host/serve/api_services.h"
#include "host/serve/http_exchange.h"
#include "host/serve/served_model.h"

namespace zym {

// Any number of threads. Answers that are under way hold on to what they need.
class Api {
 public:
  explicit Api(ApiServices services);

  // Answers, now or as the model runs; false where the path is none of the interfaces'.
  bool handle(const std::shared_ptr<HttpExchange>& exchange) const;

 private:
  SharedModel served;
};

}  // namespace zym
