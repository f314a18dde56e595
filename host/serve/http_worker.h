// A thread that does what others must not wait for, piece after piece.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace zym {

class HttpWorker {
 public:
  HttpWorker() = default;
  ~HttpWorker();  // as stop()
  HttpWorker(const HttpWorker&) = delete;
  HttpWorker& operator=(const HttpWorker&) = delete;

  // Has the thread call work, behind all that it was given before. Nothing is thrown out of work.
  // Any thread.
  void add(std::function<void()> work);

  // Waits for what is being done; what has not begun is dropped, as is all that is added later.
  void stop();

 private:
  void run();

  std::mutex mutex;
  std::condition_variable arrival;
  std::deque<std::function<void()>> waiting;
  bool isStopping = false;
  std::thread thread;  // from the first piece on
};

}  // namespace zym
