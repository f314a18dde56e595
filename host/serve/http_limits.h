// What the server puts up with.
#pragma once

#include <chrono>
#include <cstddef>

namespace zym {

struct HttpLimits {
  size_t headerBytes = 16 << 10;          // of one request
  size_t bodyBytes = 16 << 20;            // of one request
  size_t bodiesBytes = 256 << 20;         // of all requests that are read or answered at a time
  size_t unsentBytes = 1 << 20;           // of a streamed answer that its caller has not read yet
  unsigned connections = 4096;            // further ones wait until some are closed
  unsigned perAddressConnections = 1024;  // further ones are closed
  // For the head of a request, and then for every 64 KiB of its body.
  std::chrono::milliseconds readTimeout{30000};
  // For a caller to read some more of an answer.
  std::chrono::milliseconds writeTimeout{30000};
  // Between two requests of a connection.
  std::chrono::milliseconds idleTimeout{75000};
};

}  // namespace zym
