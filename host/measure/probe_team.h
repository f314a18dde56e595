// Threads for probing the machine: started once, and each pass is timed without their start.
#pragma once

#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zym {

class ProbeTeam {
 public:
  explicit ProbeTeam(size_t nThreads);
  ProbeTeam(const ProbeTeam&) = delete;
  ProbeTeam& operator=(const ProbeTeam&) = delete;

  size_t size() const { return team.size(); }
  // Lets every thread do the work at once, each with its number below size(). The seconds from the
  // first that began to the last that ended. The work must not throw.
  double run(const std::function<void(size_t thread)>& work);

 private:
  using Clock = std::chrono::steady_clock;

  void follow(const std::stop_token& stop, size_t thread);

  std::mutex mutex;
  std::condition_variable_any wake;
  std::condition_variable done;
  uint64_t pass = 0;
  size_t finished = 0;
  Clock::time_point firstBegin;
  Clock::time_point lastEnd;
  const std::function<void(size_t)>* task = nullptr;
  std::barrier<> start;
  std::vector<std::jthread> team;  // last: its threads use all of the above until they have ended
};

}  // namespace zym
