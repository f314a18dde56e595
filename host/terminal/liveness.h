// Shows on a terminal that the program is alive during work without results: after half a second, a
// line on standard error with the seconds gone, drawn by a thread of its own.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace zym {

class Liveness {
 public:
  // Does nothing where standard error is not a terminal.
  explicit Liveness(std::string what);
  ~Liveness();
  Liveness(const Liveness&) = delete;
  Liveness& operator=(const Liveness&) = delete;

  // Removes the line; nothing is drawn afterwards. Any number of calls, from one thread.
  void stop();

 private:
  void draw();

  std::string what;
  std::mutex mutex;
  std::condition_variable wake;
  bool stopped = false;
  std::thread drawer;
};

}  // namespace zym
