// What the transport itself answers a request that no handler gets to see.
#pragma once

#include <string>
#include <string_view>

#include "host/serve/http_exchange.h"

namespace zym {

struct HttpRefusal {
  int status = 0;    // 0: not refused
  std::string code;  // for programs: "invalid_host"
  std::string message;
  HttpHeaders headers;

  bool isRefused() const { return status != 0; }
};

// {"error":{"message","type","param","code"}}, and for the paths of the messages interface, whose
// clients look for it, "type":"error" beside it. Bytes that are no UTF-8 are replaced.
std::string refusalBody(const HttpRefusal& refusal, std::string_view path);

}  // namespace zym
