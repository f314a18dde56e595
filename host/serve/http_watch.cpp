#include "host/serve/http_watch.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace zym {

HttpWatch::~HttpWatch() {
  stop();
}

kel::Status HttpWatch::start(std::chrono::milliseconds every, std::chrono::milliseconds patience) {
  tick = every;
  writePatience = patience;
  events = epoll_create1(EPOLL_CLOEXEC);
  waker = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = 0;
  if (events < 0 || waker < 0 || epoll_ctl(events, EPOLL_CTL_ADD, waker, &event) != 0) {
    return kel::Status::ioError(std::string("http: cannot watch connections: ") +
                                std::strerror(errno));
  }
  thread = std::thread([this] { run(); });
  return kel::Status::success();
}

void HttpWatch::stop() {
  {
    const std::scoped_lock lock(mutex);
    isStopping = true;
  }
  if (thread.joinable()) {
    wakeUp();
    thread.join();
  }
  for (int* fd : {&events, &waker}) {
    if (*fd >= 0) {
      close(std::exchange(*fd, -1));
    }
  }
}

void HttpWatch::wakeUp() const {
  const uint64_t one = 1;
  // It fails only where as many calls are outstanding as a number can count.
  (void)!::write(waker, &one, sizeof(one));
}

uint64_t HttpWatch::add(int fd, Clock::time_point time) {
  const std::scoped_lock lock(mutex);
  Watched& watched = connections[++lastId];
  watched.fd = fd;
  watched.readUntil = time;
  if (connections.size() == 1) {
    wakeUp();
  }
  return lastId;
}

void HttpWatch::remove(uint64_t id) {
  const std::scoped_lock lock(mutex);
  connections.erase(id);
}

void HttpWatch::readUntil(uint64_t id, Clock::time_point time, std::string_view lateAnswer) {
  const std::scoped_lock lock(mutex);
  Watched& watched = connections.at(id);
  watched.readUntil = time;
  watched.lateAnswer = lateAnswer;
}

bool HttpWatch::isLate(uint64_t id) const {
  const std::scoped_lock lock(mutex);
  return connections.at(id).isLate;
}

void HttpWatch::attend(uint64_t id, const std::shared_ptr<HttpChannel>& channel) {
  const std::scoped_lock lock(mutex);
  Watched& watched = connections.at(id);
  watched.channel = channel;
  watched.readUntil = Clock::time_point::max();
  ++requests;
  epoll_event event{};
  // Once, and not for data: a caller may send its next request before the answer.
  event.events = EPOLLRDHUP | EPOLLET | EPOLLONESHOT;
  event.data.u64 = id;
  const int operation = std::exchange(watched.isArmed, true) ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (epoll_ctl(events, operation, watched.fd, &event) != 0) {
    // Without memory for it the request is served, though nobody would notice its caller leave.
    watched.isArmed = false;
  }
}

void HttpWatch::release(uint64_t id) {
  const std::scoped_lock lock(mutex);
  if (std::exchange(connections.at(id).channel, nullptr) != nullptr && --requests == 0) {
    released.notify_all();
  }
}

size_t HttpWatch::connectionCount() const {
  const std::scoped_lock lock(mutex);
  return connections.size();
}

size_t HttpWatch::requestCount() const {
  const std::scoped_lock lock(mutex);
  return requests;
}

void HttpWatch::waitForRequests(Clock::time_point until) {
  std::unique_lock lock(mutex);
  released.wait_until(lock, until, [&] { return requests == 0; });
}

void HttpWatch::cutRequests() {
  std::vector<std::shared_ptr<HttpChannel>> all;
  {
    const std::scoped_lock lock(mutex);
    for (const auto& [id, watched] : connections) {
      all.push_back(watched.channel);
    }
  }
  for (const auto& channel : all) {
    if (channel != nullptr) {
      channel->callerGone();
    }
  }
}

std::shared_ptr<HttpChannel> HttpWatch::channelOf(uint64_t id) const {
  const std::scoped_lock lock(mutex);
  const auto found = connections.find(id);
  return found == connections.end() ? nullptr : found->second.channel;
}

void HttpWatch::checkTimes() {
  const Clock::time_point now = Clock::now();
  const std::scoped_lock lock(mutex);
  for (auto& [id, watched] : connections) {
    const bool isLate = now > watched.readUntil;
    if (!isLate && (watched.channel == nullptr || !watched.channel->isStuck(now, writePatience))) {
      continue;
    }
    watched.isLate = watched.isLate || isLate;
    // The polling side writes nothing while it reads a request.
    if (isLate && !watched.lateAnswer.empty()) {
      (void)send(watched.fd, watched.lateAnswer.data(), watched.lateAnswer.size(),
                 MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    // The polling side sees the end of the connection, and closes it.
    shutdown(watched.fd, SHUT_RDWR);
    watched.readUntil = Clock::time_point::max();
    if (watched.channel != nullptr) {
      watched.channel->callerGone();
    }
  }
}

// The polling side misses the end of a connection that came together with some of a request.
void HttpWatch::dropDeserted() {
  const std::scoped_lock lock(mutex);
  std::vector<pollfd> unattended;
  for (const auto& [id, watched] : connections) {
    if (watched.channel == nullptr) {
      unattended.push_back({watched.fd, POLLRDHUP, 0});
    }
  }
  if (poll(unattended.data(), unattended.size(), 0) <= 0) {
    return;
  }
  for (const pollfd& connection : unattended) {
    if (connection.revents != 0) {
      shutdown(connection.fd, SHUT_RDWR);
    }
  }
}

void HttpWatch::run() {
  std::array<epoll_event, 64> ready{};
  Clock::time_point nextCheck = Clock::now() + tick;
  while (true) {
    bool isIdle = false;
    {
      const std::scoped_lock lock(mutex);
      if (isStopping) {
        return;
      }
      isIdle = connections.empty();
    }
    const int count = epoll_wait(events, ready.data(), static_cast<int>(ready.size()),
                                 isIdle ? -1 : static_cast<int>(tick.count()));
    for (int i = 0; i < count; ++i) {
      if (ready[i].data.u64 == 0) {
        uint64_t calls = 0;
        (void)!::read(waker, &calls, sizeof(calls));
      } else if (const auto channel = channelOf(ready[i].data.u64); channel != nullptr) {
        channel->callerGone();
      }
    }
    if (Clock::now() >= nextCheck) {
      checkTimes();
      dropDeserted();
      nextCheck = Clock::now() + tick;
    }
  }
}

}  // namespace zym
