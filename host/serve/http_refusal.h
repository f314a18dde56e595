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

// In the form of the interface at path. Bytes that are no UTF-8 are replaced.
std::string refusalBody(const HttpRefusal& refusal, std::string_view path);

}  // namespace zym
