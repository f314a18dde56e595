// Watches the connections for what the polling of a suspended one does not see, and for what takes
// too long: callers that go away while they wait, requests that come in drop by drop, answers that
// nobody reads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "container/status.h"
#include "host/serve/http_channel.h"

namespace zym {

class HttpWatch {
 public:
  using Clock = HttpChannel::Clock;

  HttpWatch() = default;
  ~HttpWatch();
  HttpWatch(const HttpWatch&) = delete;
  HttpWatch& operator=(const HttpWatch&) = delete;

  // tick: how often the times are looked at.
  kel::Status start(std::chrono::milliseconds tick, std::chrono::milliseconds writePatience);
  void stop();

  // A connection, from its beginning until just before its socket is closed.
  uint64_t add(int fd, Clock::time_point readUntil);
  void remove(uint64_t id);
  // The connection is cut where that time comes before another call; Time::max(): no limit.
  // lateAnswer: what is sent before; empty: nothing. The text outlives the watch.
  void readUntil(uint64_t id, Clock::time_point time, std::string_view lateAnswer = {});
  // Whether that time came.
  bool isLate(uint64_t id) const;
  // A request has been read, and its answer is awaited or sent.
  void attend(uint64_t id, const std::shared_ptr<HttpChannel>& channel);
  void release(uint64_t id);

  size_t connectionCount() const;
  size_t requestCount() const;
  // Waits until no request is attended, and not longer than that time.
  void waitForRequests(Clock::time_point until);
  // All callers count as gone.
  void cutRequests();

 private:
  struct Watched {
    int fd = -1;
    Clock::time_point readUntil;
    std::string_view lateAnswer;
    bool isLate = false;
    bool isArmed = false;  // the socket is in the set of descriptors
    std::shared_ptr<HttpChannel> channel;
  };

  void run();
  void checkTimes();
  void dropDeserted();
  std::shared_ptr<HttpChannel> channelOf(uint64_t id) const;
  void wakeUp() const;

  mutable std::mutex mutex;
  std::condition_variable released;
  std::map<uint64_t, Watched> connections;
  uint64_t lastId = 0;
  size_t requests = 0;
  bool isStopping = false;
  std::chrono::milliseconds tick{};
  std::chrono::milliseconds writePatience{};
  int events = -1;  // epoll
  int waker = -1;   // eventfd, 0 in the set
  std::thread thread;
};

}  // namespace zym
