// How soon a full queue has room again.
#pragma once

#include <chrono>
#include <cstddef>

namespace zym {

// Learns from the time that requests take.
class QueuePace {
 public:
  // Callers that are told to wait for longer give up instead.
  static constexpr std::chrono::seconds kLongest{60};

  // places: requests that are at work at once.
  explicit QueuePace(size_t places) : parallel(static_cast<double>(places)) {}

  // A request has ended so long after it was taken up.
  void saw(double seconds);

  // Until the next of as many as there are places is likely to end, and one that waits makes room:
  // whole seconds, from 1 to kLongest.
  std::chrono::seconds untilRoom() const;

 private:
  double parallel;
  double meanSeconds = 0;  // of the last few requests
  size_t seen = 0;         // of those, how many
};

}  // namespace zym
