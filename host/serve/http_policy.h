// Who may ask: names of the server, origins of pages, keys.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/serve/api_keys.h"
#include "host/serve/http_exchange.h"
#include "host/serve/http_refusal.h"

namespace zym {

struct HttpPolicy {
  ApiKeys keys;                        // none: everybody who reaches the server may ask
  std::vector<std::string> hostNames;  // beside localhost and the address that was reached
  std::vector<std::string> origins;    // of pages elsewhere that may ask; "*": of all

  // A page elsewhere can have its own name point to this machine and would then be asked for
  // nothing by the browser. It cannot choose the Host header: that must name this server.
  //
  // host: the header. reached: the address of this end of the connection.
  bool knowsHost(std::string_view host, std::string_view reached) const;

  // Whether pages of origin may ask, as its header and Host stand in a request. A page of the
  // server's own may.
  bool admitsOrigin(std::string_view origin, std::string_view host) const;
  // Whether origin is one that answers are shared with.
  bool sharesWith(std::string_view origin) const;

  // Whether headers carry one of the keys: "authorization: Bearer KEY" or "x-api-key: KEY".
  bool admitsKeyOf(const HttpRequest& request) const;
};

// The host of "host", "host:port", "[v6]" and "[v6]:port" in lower case; empty where text is none.
std::string hostOf(std::string_view text);

}  // namespace zym
