// One request between the thread that polls the connections and those that answer it: the answer as
// far as it is known and has not been sent.
//
// While there is nothing to send the connection is suspended, and costs neither a thread nor a turn
// of the polling.
#pragma once

#include <microhttpd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "host/serve/http_exchange.h"

namespace zym {

struct HttpAnswerHead {
  int status = 0;
  std::string contentType;
  HttpHeaders headers;
  std::optional<uint64_t> bytes;  // of the body; none: it is sent as it comes
};

class HttpChannel {
 public:
  using Clock = std::chrono::steady_clock;

  // socket: of the connection.
  // share: kept as long as the channel; what holds the room of the request's body.
  // mostUnsent: bytes of a streamed body that a slow caller may leave behind.
  HttpChannel(MHD_Connection* polled, int socket, HttpRequest received, std::shared_ptr<void> share,
              size_t mostUnsent);

  const HttpRequest& request() const { return asked; }

  // The answering side: as HttpExchange, which says what they do.
  void answer(HttpAnswerHead head, std::string body);
  void begin(HttpAnswerHead head);
  void write(std::string_view piece);
  void end();
  // The exchange exists no more.
  void letGo();
  const volatile int* gone() const { return &goneFlag; }

  // The polling side, from within the callbacks of its thread.
  enum class Next : uint8_t { Wait, Answer, Cut };
  // What to do with the connection; it is suspended where that is Wait.
  Next next();
  // Of the answer that next() has told of.
  const HttpAnswerHead& answerHead() const { return head; }
  // Up to most bytes of the body, at least one. 0 where there are none, with the connection
  // suspended, or MHD_CONTENT_READER_END_OF_STREAM.
  ssize_t pull(char* to, size_t most);
  uint64_t pulledBytes() const;
  // The connection has no more to do with the request. Whether all of the answer was taken.
  bool detach();

  // Any thread. The caller has gone away, or is to be treated so.
  void callerGone();
  // Whether the caller has left the answer unread for so long, or too much of it.
  bool isStuck(Clock::time_point now, std::chrono::milliseconds patience) const;

 private:
  void setGone();
  // Both by whoever holds the mutex.
  void wake();
  ssize_t breakOff(char* to);
  size_t unsent() const { return out.size() - sent; }

  mutable std::mutex mutex;
  MHD_Connection* connection;  // null once it has no more to do with the request
  int fd;
  HttpRequest asked;
  std::shared_ptr<void> bodyShare;
  size_t mostUnsentBytes;
  HttpAnswerHead head;
  std::string out;
  size_t sent = 0;  // bytes at the beginning of out
  uint64_t pulled = 0;
  Clock::time_point movedAt;  // when there last was something to send, and when some was taken
  bool isAnswered = false;    // head is complete
  bool isEnded = false;       // out is all that there will be
  bool isLetGo = false;
  bool isSuspended = false;
  bool overflowed = false;
  volatile int goneFlag = 0;
};

}  // namespace zym
