#include "host/measure/probe_team.h"

#include <algorithm>

namespace zym {

ProbeTeam::ProbeTeam(size_t nThreads) : start(static_cast<std::ptrdiff_t>(nThreads)) {
  team.reserve(nThreads);
  for (size_t t = 0; t < nThreads; ++t) {
    team.emplace_back([this, t](const std::stop_token& stop) { follow(stop, t); });
  }
}

double ProbeTeam::run(const std::function<void(size_t)>& work) {
  std::unique_lock lock(mutex);
  task = &work;
  finished = 0;
  firstBegin = Clock::time_point::max();
  lastEnd = Clock::time_point::min();
  ++pass;
  wake.notify_all();
  done.wait(lock, [this] { return finished == team.size(); });
  return std::chrono::duration<double>(lastEnd - firstBegin).count();
}

void ProbeTeam::follow(const std::stop_token& stop, size_t thread) {
  uint64_t seen = 0;
  std::unique_lock lock(mutex);
  while (wake.wait(lock, stop, [&] { return pass != seen; })) {
    seen = pass;
    lock.unlock();
    start.arrive_and_wait();
    const Clock::time_point begin = Clock::now();
    (*task)(thread);
    const Clock::time_point end = Clock::now();
    lock.lock();
    firstBegin = std::min(firstBegin, begin);
    lastEnd = std::max(lastEnd, end);
    if (++finished == team.size()) {
      done.notify_one();
    }
  }
}

}  // namespace zym
