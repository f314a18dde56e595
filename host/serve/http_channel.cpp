#include "host/serve/http_channel.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace zym {

HttpChannel::HttpChannel(MHD_Connection* polled, int socket, HttpRequest received,
                         std::shared_ptr<void> share, size_t mostUnsent)
    : connection(polled),
      fd(socket),
      asked(std::move(received)),
      bodyShare(std::move(share)),
      mostUnsentBytes(mostUnsent) {}

void HttpChannel::wake() {
  if (std::exchange(isSuspended, false)) {
    movedAt = Clock::now();  // a stream that was idle has been read so far
    MHD_resume_connection(connection);
  }
}

void HttpChannel::setGone() {
  // Read by other threads in the middle of their work, without the mutex.
  __atomic_store_n(&goneFlag, 1, __ATOMIC_RELAXED);
}

void HttpChannel::answer(HttpAnswerHead complete, std::string body) {
  const std::scoped_lock lock(mutex);
  if (isAnswered) {
    return;
  }
  head = std::move(complete);
  head.bytes = body.size();
  out = std::move(body);
  isAnswered = true;
  movedAt = Clock::now();
  isEnded = true;
  wake();
}

void HttpChannel::begin(HttpAnswerHead complete) {
  const std::scoped_lock lock(mutex);
  if (isAnswered) {
    return;
  }
  head = std::move(complete);
  head.bytes.reset();
  isAnswered = true;
  movedAt = Clock::now();
  wake();
}

void HttpChannel::write(std::string_view piece) {
  const std::scoped_lock lock(mutex);
  if (!isAnswered || isEnded || overflowed || connection == nullptr || piece.empty()) {
    return;
  }
  if (unsent() + piece.size() > mostUnsentBytes) {
    overflowed = true;
    out = {};
    sent = 0;
    setGone();
  } else {
    out.erase(0, std::exchange(sent, 0));
    out += piece;
  }
  wake();
}

void HttpChannel::end() {
  const std::scoped_lock lock(mutex);
  if (isAnswered) {
    isEnded = true;
    wake();
  }
}

void HttpChannel::letGo() {
  const std::scoped_lock lock(mutex);
  isLetGo = true;
  wake();
}

HttpChannel::Next HttpChannel::next() {
  const std::scoped_lock lock(mutex);
  if (isAnswered) {
    return Next::Answer;
  }
  if (goneFlag != 0 || isLetGo) {
    return Next::Cut;
  }
  isSuspended = true;
  MHD_suspend_connection(connection);
  return Next::Wait;
}

// Told of an error in the middle of a body (MHD_CONTENT_READER_END_WITH_ERROR), the library shuts
// the connection down, but leaves it in place until something else happens on it. A byte that
// cannot be sent has it closed at once, and no caller gets to see it.
ssize_t HttpChannel::breakOff(char* to) {
  shutdown(fd, SHUT_RDWR);
  *to = '\0';
  return 1;
}

ssize_t HttpChannel::pull(char* to, size_t most) {
  const std::scoped_lock lock(mutex);
  movedAt = Clock::now();
  if (unsent() > 0) {
    const size_t count = std::min(most, unsent());
    std::memcpy(to, out.data() + sent, count);
    sent += count;
    pulled += count;
    if (unsent() == 0) {
      out.clear();
      sent = 0;
    }
    return static_cast<ssize_t>(count);
  }
  if (overflowed) {
    return breakOff(to);
  }
  if (isEnded) {
    return MHD_CONTENT_READER_END_OF_STREAM;
  }
  if (goneFlag != 0 || isLetGo) {
    return breakOff(to);
  }
  isSuspended = true;
  MHD_suspend_connection(connection);
  return 0;
}

uint64_t HttpChannel::pulledBytes() const {
  const std::scoped_lock lock(mutex);
  return pulled;
}

bool HttpChannel::detach() {
  const std::scoped_lock lock(mutex);
  const bool isWhole = isEnded && unsent() == 0 && !overflowed;
  connection = nullptr;
  isSuspended = false;
  out = {};
  sent = 0;
  if (!isWhole) {
    setGone();
  }
  return isWhole;
}

void HttpChannel::callerGone() {
  const std::scoped_lock lock(mutex);
  setGone();
  wake();
}

bool HttpChannel::isStuck(Clock::time_point now, std::chrono::milliseconds patience) const {
  const std::scoped_lock lock(mutex);
  if (connection == nullptr || !isAnswered || isSuspended) {
    return false;
  }
  return overflowed || now - movedAt > patience;
}

}  // namespace zym
