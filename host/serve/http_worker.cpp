#include "host/serve/http_worker.h"

#include <utility>

namespace zym {

HttpWorker::~HttpWorker() {
  stop();
}

void HttpWorker::add(std::function<void()> work) {
  {
    const std::scoped_lock lock(mutex);
    if (isStopping) {
      return;
    }
    waiting.push_back(std::move(work));
    if (!thread.joinable()) {
      thread = std::thread([this] { run(); });
    }
  }
  arrival.notify_one();
}

void HttpWorker::stop() {
  std::deque<std::function<void()>> dropped;
  {
    const std::scoped_lock lock(mutex);
    isStopping = true;
    dropped.swap(waiting);
  }
  arrival.notify_one();
  if (thread.joinable()) {
    thread.join();
  }
}

void HttpWorker::run() {
  std::unique_lock lock(mutex);
  while (true) {
    arrival.wait(lock, [this] { return isStopping || !waiting.empty(); });
    if (isStopping) {
      return;
    }
    std::function<void()> work = std::move(waiting.front());
    waiting.pop_front();
    lock.unlock();
    work();
    work = nullptr;  // what it holds goes without the lock
    lock.lock();
  }
}

}  // namespace zym
